// vorlundctl report: one self-contained HTML page of a run or a fleet, to open in any browser
// without network: the summary table, failure rates, metrics and issues over time, QI and MTBF.
#include <cstdio>

#include "commands.h"
#include "vorlund/reports/html_report.h"

namespace vorlundctl {

namespace {

int report(const std::string& path, const std::string& html) {
  vl::Error error;
  if (!vl::writeHtmlReport(path, html, &error)) throw UsageFailure(error.localizedDescription());
  std::printf("Report of %s written to %s\n", path.c_str(), html.c_str());
  return 0;
}

}  // namespace

void addReportCommand(CLI::App& app) {
  auto* command = app.add_subcommand(
      "report", "Write a report of a run (its results file) or of a fleet folder");
  static std::string path;
  static std::string html;
  command->add_option("RUN_FILE_OR_DIR", path, "A results file, or a fleet folder of several")
      ->required();
  command->add_option("--html", html, "The HTML page to write (replaced whole)")->required();
  setAction(command, [] { return report(path, html); });
}

}  // namespace vorlundctl
