// vorlundctl export: a run or a fleet folder as JUnit XML for CI systems and as one JSON document
// (reports/exports.h), each file written atomically.
#include <cstdio>

#include "commands.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/reports/exports.h"

namespace vorlundctl {

namespace {

void writeExport(const std::string& path, const std::string& text) {
  if (!vl::paths::writeFileAtomically(path, text)) throw UsageFailure("cannot write " + path);
  std::printf("%s\n", path.c_str());
}

}  // namespace

void addExportCommand(CLI::App& app) {
  static std::string source, junit, json;
  auto* command =
      app.add_subcommand("export", "Export a run or a fleet folder as JUnit XML or JSON");
  command->footer(
      "SOURCE is a results file (its timeline beside it) or a fleet folder (\"Plists\" and\n"
      "\"Databases\", as `vorlundctl fleet collect` fills it).\n"
      "JUnit: one testsuite per device, one testcase per test case with a failure element per\n"
      "failure bucket, properties for the metrics. JSON: every device's results, the merged\n"
      "aggregate and the fleet summary.");
  command->add_option("SOURCE", source, "Results file or fleet folder")->required();
  auto* junitOption = command->add_option("--junit", junit, "Write JUnit XML to this file");
  auto* jsonOption = command->add_option("--json", json, "Write JSON to this file");
  command->callback([junitOption, jsonOption] {
    if (junitOption->count() == 0 && jsonOption->count() == 0) {
      throw CLI::ValidationError("export", "give --junit OUT.xml, --json OUT.json or both");
    }
  });
  setAction(command, [] {
    vl::Error error;
    std::optional<vl::Fleet> fleet = vl::loadFleet(source, &error);
    if (!fleet) throw UsageFailure(error.localizedDescription());
    vl::FleetSummary summary = vl::summarizeFleet(*fleet);
    if (!junit.empty()) writeExport(junit, vl::fleetJUnitXml(*fleet, summary));
    if (!json.empty()) {
      writeExport(json,
                  vl::fleetResultsJson(*fleet, summary)
                          .dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) +
                      "\n");
    }
    return 0;
  });
}

}  // namespace vorlundctl
