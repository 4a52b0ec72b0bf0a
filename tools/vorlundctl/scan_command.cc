// vorlundctl scan: writes the reports of the journal's new crashes and kills into the Faultbin
// folders (the collector; a journal that cannot be read is reported and the scan goes on), then
// scans a user's Faultbin folders at once, on this thread, and sends each issue found to the
// user's run (the run of the stress service while it runs, else the one in this user's files; main
// installs the recorder that sends them there). The run drops the ones it has seen before and
// those older than the run; the command prints the ones it added, told by the run's issue counts
// before and after the scan.
#include <cstdio>
#include <map>
#include <utility>
#include <vector>

#include "commands.h"
#include "user_run.h"
#include "vorlund/devicetools/crash_collector.h"
#include "vorlund/devicetools/crash_scanner.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/process.h"
#include "vorlund/results/issue.h"

namespace vorlundctl {

namespace {

using IssueCounts = std::map<std::pair<std::string, std::string>, int64_t>;

// The run's issues counted by reason and process (an issue seen again adds an instance).
IssueCounts issueCounts() {
  IssueCounts counts;
  const vl::Dictionary summary = userRunSummary();
  const vl::Array* issues = summary.get("Issues").asArray();
  for (size_t i = 0; issues && i < issues->size(); ++i) {
    const vl::Dictionary* issue = (*issues)[i].asDictionary();
    if (!issue) continue;
    const vl::Number* instances = issue->get(kVLIssueKeyInstances).asNumber();
    counts[{issue->get(kVLIssueKeyReason).stringOr(""),
            issue->get(kVLIssueKeyProcess).stringOr("")}] +=
        instances ? instances->int64Value() : 1;
  }
  return counts;
}

// The found issues that the run took, in the order found.
std::vector<vl::FaultbinIssue> addedIssues(const std::vector<vl::FaultbinIssue>& found,
                                           const IssueCounts& before, IssueCounts after) {
  std::vector<vl::FaultbinIssue> added;
  for (const vl::FaultbinIssue& issue : found) {
    const std::pair<std::string, std::string> key{issue.reason, issue.process};
    auto earlier = before.find(key);
    int64_t& now = after[key];
    if (now > (earlier == before.end() ? 0 : earlier->second)) {
      --now;
      added.push_back(issue);
    }
  }
  return added;
}

void printIssues(const std::vector<vl::FaultbinIssue>& issues, size_t found, bool asJson) {
  if (asJson) {
    vl::Array array;
    for (const vl::FaultbinIssue& issue : issues) {
      array.push_back(vl::Value(vl::Dictionary{{"process", vl::Value(issue.process)},
                                               {"type", vl::Value(issue.type)},
                                               {"reason", vl::Value(issue.reason)},
                                               {"time", vl::Value(vl::dateString(issue.time))}}));
    }
    std::printf("%s\n", vl::json::displayString(vl::Value(std::move(array))).c_str());
    return;
  }
  for (const vl::FaultbinIssue& issue : issues) {
    std::printf("%-8s %-24s %s  %s\n", issue.type.c_str(), issue.process.c_str(),
                vl::dateString(issue.time).c_str(), issue.reason.c_str());
  }
  std::printf("%zu issue%s added to the run (%zu found)\n", issues.size(),
              issues.size() == 1 ? "" : "s", found);
}

}  // namespace

void addScanCommand(CLI::App& app) {
  static std::string user;
  static bool asJson = false;
  auto* command = app.add_subcommand(
      "scan", "Scan a user's Faultbin folders now and add the crashes found to the run");
  command->add_option("--user", user, "Whose folders (default: the calling user)");
  command->add_flag("--json", asJson, "Print the issues as a JSON array");
  setAction(command, [] {
    vl::CrashCollector collector(vl::makeSystemJournalSource());
    vl::Error error;
    if (!collector.collect(&error)) {
      std::fprintf(stderr, "vorlundctl: the journal was not collected: %s\n",
                   error.localizedDescription().c_str());
    }
    const IssueCounts before = issueCounts();
    const std::vector<vl::FaultbinIssue> found =
        _VLProcessCrashesInFaultbinFolder(user.empty() ? vl::process::userName() : user);
    printIssues(addedIssues(found, before, issueCounts()), found.size(), asJson);
    return 0;
  });
}

}  // namespace vorlundctl
