// Real device runs for the HTML report's tests: each run is made through the results API in a
// sandbox of its own, its results spread over time, and its results file and timeline are copied
// into a fleet folder, as `vorlundctl fleet collect` leaves them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "results/run_sandbox.h"
#include "vorlund/results/sqlite/database.h"

namespace vl::test {

struct ReportDevice {
  std::string serial;
  int pings = 0;         // "Ping" results, one a minute; every fourth fails when failing is set
  bool failing = false;  // bucket "timeout"
  int downloads = 0;     // "Download" results of type "Average", a metric "Throughput" each
  double throughput = 0;
  std::vector<std::string> crashReasons;  // one crash of "wpa_supplicant" each, a minute apart
  // More "Download" results of a long run, six seconds apart after the others; their timeline
  // rows are written in one transaction (growTimeline) instead of a synced one per result.
  int bulkDownloads = 0;
};

// Adds the rows of `results` more "Download" results to a timeline holding at least one, six
// seconds apart, as the results aggregate writes them.
inline void growTimeline(const std::string& timelinePath, int results) {
  sqlite::Database db(timelinePath);
  ASSERT_TRUE(db.open());
  Error error;
  std::string sql =
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
      std::to_string(results) +
      ") INSERT INTO TestCases(test_case_name, test_case_iteration, metric_name, is_number, "
      "test_case_type, start_time, end_time, result, bucket, value_number, value_string, uuid) "
      "SELECT t.test_case_name, t.test_case_iteration + n.i, t.metric_name, t.is_number, "
      "t.test_case_type, strftime('%Y-%m-%d-%H-%M-%S', unixepoch(s.start) + 6 * n.i, "
      "'unixepoch'), t.end_time, t.result, t.bucket, t.value_number + n.i % 100, t.value_string, "
      "t.uuid || '-' || n.i FROM n, (SELECT * FROM TestCases WHERE test_case_type = 'Average' "
      "LIMIT 1) t, (SELECT substr(start_time, 1, 10) || ' ' || "
      "replace(substr(start_time, 12), '-', ':') AS start FROM TestCases LIMIT 1) s";
  ASSERT_TRUE(db.executeStatements("BEGIN; " + sql + "; COMMIT", &error)) << error.description();
}

// Makes the device's run and copies its results file and timeline into folder (created). Returns
// the path of the results file's copy.
inline std::string makeReportRun(const ReportDevice& device, const std::filesystem::path& folder) {
  RunSandbox sandbox(
      {{"StressType", "wifi"}, {"StressSubtype", "Default"}, {"SerialNumber", device.serial}});
  std::shared_ptr<VLResults> run = sandbox.results();
  double start = run->startTime().secondsSince1970;
  auto add = [&](std::shared_ptr<VLTestCaseResult> r, int minute) {
    r->setStartTime(Date{start + 60.0 * minute});
    r->setEndTime(Date{start + 60.0 * minute + 5});
    run->addTestCaseResult(r, false);
  };
  for (int i = 0; i < device.pings; ++i) add(result("Ping", !(device.failing && i % 4 == 3)), i);
  for (int i = 0; i < device.downloads; ++i) {
    auto r = result("Download", true, kVLTestCaseResultTypeAverage);
    r->addMetric(Value(Number(device.throughput + i % 7)), std::string("Throughput"));
    add(r, i);
  }
  for (size_t i = 0; i < device.crashReasons.size(); ++i) {
    run->addIssue(issue(device.crashReasons[i], "wpa_supplicant", "Crash", 60.0 * (i + 1), *run));
  }
  for (int i = 0; i < device.bulkDownloads; ++i) {
    auto r = result("Download", true, kVLTestCaseResultTypeAverage);
    r->addMetric(Value(Number(device.throughput + i % 100)), std::string("Throughput"));
    run->addTestCaseResult(r, nullptr, false, false);
  }
  run->setRuntime(3600);
  std::filesystem::create_directories(folder);
  std::string copy =
      (folder / std::filesystem::path(run->getResultsFilePath()).filename()).string();
  EXPECT_TRUE(run->saveToFile(copy));
  std::filesystem::path timeline = folder / std::filesystem::path(run->timelinePath()).filename();
  std::filesystem::copy_file(run->timelinePath(), timeline);
  if (device.bulkDownloads > 0) growTimeline(timeline.string(), device.bulkDownloads);
  return copy;
}

}  // namespace vl::test
