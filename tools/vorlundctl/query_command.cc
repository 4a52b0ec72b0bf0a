// vorlundctl query: one read-only SQL statement over every device timeline of a fleet folder, the
// rows of all devices in one table with the device first (reports/fleet_query.h).
#include <cstdio>

#include "commands.h"
#include "vorlund/reports/fleet_query.h"

namespace vorlundctl {

namespace {

constexpr const char* kQueryHelp =
    "Runs one read-only SQL statement on every device timeline of DIR (DIR/Databases/*.db, or\n"
    "*.db in DIR) at once. Each row starts with a \"device\" column: the timeline's Config\n"
    "\"SerialNumber\", else its file name. The tables are TestCases, Issues and Config.\n"
    "\n"
    "Failures per hour per device:\n"
    "  vorlundctl query FLEET \"SELECT substr(start_time,1,13) AS hour, count(*)\n"
    "                         FROM TestCases WHERE result=1 GROUP BY hour\"\n"
    "\n"
    "Exit status: 0 when every timeline answered; 2 when some could not, each named on standard\n"
    "error; 1 when the statement is refused (it writes, or is not exactly one statement).";

}  // namespace

void addQueryCommand(CLI::App& app) {
  static std::string dir, sql;
  static bool csv = false, json = false;
  auto* query =
      app.add_subcommand("query", "Run one read-only SQL query across a fleet's timelines");
  query->footer(kQueryHelp);
  query->add_option("DIR", dir, "Fleet folder")->required();
  query->add_option("SQL", sql, "One read-only SQL statement")->required();
  auto* csvFlag = query->add_flag("--csv", csv, "Print CSV (RFC 4180)");
  query->add_flag("--json", json, "Print a JSON array of objects")->excludes(csvFlag);
  setAction(query, [] {
    vl::Error error;
    std::optional<vl::FleetQueryResult> result = vl::queryFleet(dir, sql, &error);
    if (!result) throw UsageFailure(error.localizedDescription());
    std::string out = csv    ? vl::fleetQueryCsv(*result)
                      : json ? vl::fleetQueryJson(*result).dump(2) + "\n"
                             : vl::fleetQueryTable(*result);
    std::fwrite(out.data(), 1, out.size(), stdout);
    for (const vl::FleetQueryFailure& failure : result->failures) {
      std::fprintf(stderr, "vorlundctl: %s: %s\n", failure.path.c_str(), failure.message.c_str());
    }
    return result->failures.empty() ? 0 : 2;
  });
}

}  // namespace vorlundctl
