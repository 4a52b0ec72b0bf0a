// A sandboxed stress run for the results tests: a temporary device (HOME and VORLUND_ROOT), the
// preferences written there, and a fresh shared results aggregate that is dropped afterwards; and
// the small helpers the results tests share (results, issues, an outside SQLite reader, log lines).
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/test_support.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/catalogue/test_bundle.h"
#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/foundation/value.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/results/issue.h"
#include "vorlund/results/results.h"
#include "vorlund/results/test_case_result.h"

namespace vl::test {

class RunSandbox {
 public:
  explicit RunSandbox(const Dictionary& preferences = {{"StressType", "wifi"},
                                                       {"StressSubtype", "Default"}}) {
    // As on a device, the test bundle folder exists (here empty): looking up a result's test case
    // class searches it, and an unlistable folder would file a "Failure" issue of its own.
    std::filesystem::create_directories(VLGetBundlePath());
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

// An issue of a run, dated secondsAfterStart after the run's start.
inline std::shared_ptr<VLIssue> issue(const std::string& reason, const std::string& process,
                                      const char* type, double secondsAfterStart,
                                      const VLResults& run) {
  auto i = VLIssue::make();
  i->setReason(reason);
  i->setProcess(process);
  i->setType(std::string(type));
  i->setTime(Date{run.startTime().secondsSince1970 + secondsAfterStart});
  return i;
}

// What the sqlite3 command-line tool, an outside reader, prints for a query: "a|b\n" per row.
inline std::string sqliteTool(const std::string& path, const std::string& sql) {
  ChildResult child = runChild({"sqlite3", path, sql});
  EXPECT_EQ(child.exitStatus, 0) << child.err;
  return child.out;
}

// The messages of the captured lines of this level and category that start with prefix.
inline std::vector<std::string> linesStartingWith(const LogCapture& capture, VLLogLevel level,
                                                  const std::string& category,
                                                  const std::string& prefix) {
  std::vector<std::string> messages;
  for (const CapturedLine& line : capture.lines()) {
    if (line.level == level && line.category == category && line.message.starts_with(prefix))
      messages.push_back(line.message);
  }
  return messages;
}

}  // namespace vl::test
