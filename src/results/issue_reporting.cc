#include "vorlund/results/issue_reporting.h"

#include <mutex>

#include "vorlund/devicetools/crash_scanner.h"
#include "vorlund/results/issue.h"
#include "vorlund/results/results.h"

namespace {

constexpr const char* kFrameworkProcess = "Vorlund";

struct Recorder {
  std::mutex mutex;
  vl::IssueRecorder record;
};

Recorder& recorder() {
  static Recorder* instance = new Recorder();  // lives for the process
  return *instance;
}

void deliver(const std::shared_ptr<VLIssue>& issue) {
  vl::IssueRecorder record;
  {
    std::lock_guard lock(recorder().mutex);
    record = recorder().record;
  }
  if (record) {
    record(issue);
  } else {
    VLResults::currentResults()->addIssue(issue);
  }
}

void addIssue(const std::string& process, const std::string& type, bool primaryProcess,
              const std::string& reason) {
  auto issue = VLIssue::make();
  issue->setReason(reason);
  issue->setProcess(process);
  issue->setType(type);
  issue->setTime(vl::Date::now());
  issue->setPrimaryProcess(primaryProcess);
  deliver(issue);
}

// The crash scanner beneath files what it finds here, with the report's own time.
[[maybe_unused]] const bool kFaultbinRecorderInstalled = [] {
  vl::setFaultbinIssueRecorder([](const vl::FaultbinIssue& found) {
    auto issue = VLIssue::make();
    issue->setReason(found.reason);
    issue->setProcess(found.process);
    issue->setType(found.type);
    issue->setTime(found.time);
    deliver(issue);
  });
  return true;
}();

}  // namespace

void VLAddCrashToResults(const std::string& process, const std::string& reason) {
  addIssue(process, "Crash", true, reason);
}

void VLAddFailureToResults(const std::string& reason) {
  addIssue(kFrameworkProcess, "Failure", false, reason);
}

void VLAddStatisticToResults(const std::string& reason) {
  addIssue(kFrameworkProcess, "Statistic", false, reason);
}

void vl::setIssueRecorder(IssueRecorder record) {
  std::lock_guard lock(recorder().mutex);
  recorder().record = std::move(record);
}
