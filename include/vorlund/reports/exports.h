// A fleet's results for other tools: JUnit XML, which CI systems read (one test suite per device,
// one test case per test case statistic, its failures by bucket), and one JSON document holding
// everything (every device's results file, the merged aggregate and the fleet summary). Both are
// built from a loaded fleet (reports/fleet.h) and its summary (reports/fleet_summary.h).
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "vorlund/reports/fleet.h"
#include "vorlund/reports/fleet_summary.h"

namespace vl {

// The JUnit document:
//   <testsuites name="Vorlund" tests failures errors="0" time>   totals of the suites
//     <testsuite name=DEVICE tests failures errors="0" skipped="0" time=RUN_TIME>   per device
//       <properties>  "<test case>.<metric>.Mean|StdDeviation|Min|Max" for every "Average" test
//                     case of the device, the figures pooled over the fleet
//       <testcase name=TEST_CASE classname=TYPE>   TYPE is the test case's type, else "Vorlund"
//         <failure message=BUCKET type="Failure">N of M instances</failure>   one per bucket
// tests counts a suite's test cases, failures those with a failed instance. Run times are the sum
// over a device's runs, in seconds. Text that XML cannot hold (control bytes, malformed UTF-8)
// becomes U+FFFD; everything else is escaped, so any reason or name gives a well-formed document.
std::string fleetJUnitXml(const Fleet& fleet, const FleetSummary& summary);

// The JSON document:
//   {"devices": [{"device", "resultsFile", "timeline", "results": the run's results file
//                 dictionary, its "Issues" included}, ...],
//    "aggregate": the merged results file dictionary,
//    "summary": fleetSummaryJson(summary)}
// Dates are the library's date strings, data base64, numbers that are not finite null.
nlohmann::ordered_json fleetResultsJson(const Fleet& fleet, const FleetSummary& summary);

}  // namespace vl
