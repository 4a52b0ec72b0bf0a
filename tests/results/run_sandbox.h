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
#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/results/results.h"
#include "vorlund/results/test_case_result.h"

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

// A finished result of a test case named name: passed, or failed with the bucket "timeout";
// started and ended now.
inline std::shared_ptr<VLTestCaseResult> result(const std::string& name, bool passed,
                                                const char* type = kVLTestCaseResultTypePassFail) {
  auto definition = VLTestCaseObject::make();
  definition->setName(name);
  definition->setSelector(std::string("run:"));
  definition->setType(std::string(type));
  definition->setWebTags(Dictionary{});
  auto r = VLTestCaseResult::withTestCaseObject(definition);
  if (passed) {
    r->pass();
  } else {
    r->failWithReason("timeout");
  }
  r->setEndTime(std::nullopt);
  return r;
}

}  // namespace vl::test
