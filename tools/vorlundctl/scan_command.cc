// vorlundctl scan: writes the reports of the journal's new crashes and kills into the Faultbin
// folders (the collector; a journal that cannot be read is reported and the scan goes on), then
// scans a user's Faultbin folders at once, on this thread, sends each issue found
// to the user's run (the run of the stress service while it runs, else the one in this user's
// files; main installs the recorder that sends them there) and prints them. The run itself drops
// the ones it has seen before and those older than the run.
#include <cstdio>

#include "commands.h"
#include "vorlund/devicetools/crash_collector.h"
#include "vorlund/devicetools/crash_scanner.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/process.h"

namespace vorlundctl {

namespace {

void printIssues(const std::vector<vl::FaultbinIssue>& issues, bool asJson) {
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
  std::printf("%zu issue%s found\n", issues.size(), issues.size() == 1 ? "" : "s");
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
    printIssues(_VLProcessCrashesInFaultbinFolder(user.empty() ? vl::process::userName() : user),
                asJson);
    return 0;
  });
}

}  // namespace vorlundctl
