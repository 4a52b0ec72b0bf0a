#include "vorlund/results/issue_reporting.h"

#include "vorlund/results/issue.h"
#include "vorlund/results/results.h"

namespace {

constexpr const char* kFrameworkProcess = "Vorlund";

void addIssue(const std::string& process, const std::string& type, bool primaryProcess,
              const std::string& reason) {
  auto issue = VLIssue::make();
  issue->setReason(reason);
  issue->setProcess(process);
  issue->setType(type);
  issue->setTime(vl::Date::now());
  issue->setPrimaryProcess(primaryProcess);
  VLResults::currentResults()->addIssue(issue);
}

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
