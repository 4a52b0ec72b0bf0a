// A sandboxed stress run for the results tests: a temporary device (HOME and VORLUND_ROOT), the
// preferences written there, and a fresh shared results aggregate that is dropped afterwards.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>

#include "support/test_support.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/foundation/value.h"
#include "vorlund/results/results.h"

namespace vl::test {

class RunSandbox {
 public:
  explicit RunSandbox(const Dictionary& preferences = {{"StressType", "wifi"},
                                                       {"StressSubtype", "Default"}}) {
    writePreferences(preferences);
    VLResults::setCurrentResults(VLResults::make());
  }
  ~RunSandbox() { VLResults::setCurrentResults(nullptr); }
  RunSandbox(const RunSandbox&) = delete;
  RunSandbox& operator=(const RunSandbox&) = delete;

  void writePreferences(const Dictionary& preferences) {
    std::string path = VLGetTestSettingsFilePath();
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    plist::writeFile(Value(preferences), path);
  }
  // Sets one preference, keeping the others.
  void setPreference(const std::string& key, Value value) {
    Dictionary preferences = VLGetPreferences();
    preferences.set(key, std::move(value));
    writePreferences(preferences);
  }

  std::shared_ptr<VLResults> results() const { return VLResults::currentResults(); }
  const Sandbox& device() const { return sandbox_; }

 private:
  Sandbox sandbox_;
};

}  // namespace vl::test
