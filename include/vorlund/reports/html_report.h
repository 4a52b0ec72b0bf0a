// The HTML report of a run or a fleet: one self-contained page (its script, its style and Chart.js
// inlined; nothing is fetched from the network) with the summary table, the failure rate per test
// case and device, every "Average" metric over time per device, the issues over time per device
// and the quality figures. It reads the fleet (reports/fleet.h), its summary
// (reports/fleet_summary.h) and each device's timeline, read-only.
//
// The page stays light whatever the run's length: each timeline is reduced here, in C++, to at
// most kHtmlReportMaxBuckets time buckets per series before anything reaches the page.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "vorlund/foundation/error.h"
#include "vorlund/reports/fleet.h"
#include "vorlund/reports/fleet_summary.h"

namespace vl {

// The most time buckets of one series (a metric of a test case on a device, or one type of issue
// on a device). 500 points a line is about what a chart a screen wide can show.
inline constexpr size_t kHtmlReportMaxBuckets = 500;
// The most issues the page's table lists, most frequent first; the rest are counted.
inline constexpr size_t kHtmlReportMaxIssueRows = 200;
// The longest reason an issue bin carries (in bytes, cut at a character): a bin only hints at
// what happened; the issue table has the whole reasons.
inline constexpr size_t kHtmlReportMaxBinReasonLength = 200;
// The type under which a timeline's failed test case instances join the issues over time.
inline constexpr const char* kHtmlReportTestCaseFailureType = "TestCaseFailure";

// The values of one series that fell into one time bucket. Times are seconds since 1970.
struct TimeBucket {
  double time = 0;  // the mean time of the bucket's values
  double mean = 0;
  double minimum = 0;
  double maximum = 0;
  uint64_t count = 0;
};

// A numeric metric of an "Average" test case on one device, over time.
struct MetricSeries {
  std::string testCase;
  std::string metric;
  std::string device;
  std::vector<TimeBucket> buckets;  // by time; empty buckets are left out
};

// How many issues of one type one device had in one time bucket, with one of their reasons.
struct IssueBin {
  double time = 0;  // the mean time of the bucket's issues
  uint64_t count = 0;
  std::string reason;  // the first reason seen in the bucket, cut to kHtmlReportMaxBinReasonLength
};

struct IssueSeries {
  std::string device;
  // The Issues table's type ("Crash", "Failure", "Statistic", ...), or
  // kHtmlReportTestCaseFailureType for failed test case instances.
  std::string type;
  std::vector<IssueBin> bins;  // by time; empty bins are left out
};

// One device's timeline reduced for the page.
struct TimelineDigest {
  std::vector<MetricSeries> metrics;  // by test case, then metric
  std::vector<IssueSeries> issues;    // by type
  // Rows read, before bucketing.
  uint64_t metricRows = 0;
  uint64_t issueRows = 0;
};

// Reads the timeline database at path read-only (it may be the live timeline of a running
// service) and buckets it: the numeric metric rows of "Average" results per test case and metric,
// the Issues rows per type and the failed test case instances, each series into at most maxBuckets
// buckets of equal time width over its own time span. Rows with an unreadable date are skipped.
// None, with error (domain "VLReports"), when the file cannot be opened or is not a timeline.
std::optional<TimelineDigest> digestTimeline(const std::string& path, const std::string& device,
                                             size_t maxBuckets = kHtmlReportMaxBuckets,
                                             Error* error = nullptr);

// The page's data: fleetSummaryJson(summary) with its issues cut to the kHtmlReportMaxIssueRows
// most frequent ("issuesLeftOut" counts the rest), and the devices' digests as "metricSeries" and
// "issueSeries" (times in milliseconds since 1970). Numbers that are not finite are null.
nlohmann::json htmlReportData(const FleetSummary& summary,
                              const std::vector<TimelineDigest>& timelines,
                              const std::string& title);

// JSON text that can stand inside a <script> element: every '<', '>' and '&' is written as a \u
// escape, so no text of the data ("</script>" in an issue's reason) can end the element. Text
// that is not UTF-8 is replaced, never thrown over.
std::string scriptSafeJson(const nlohmann::json& data);

// The whole page for data (as htmlReportData makes it).
std::string htmlReportPage(const nlohmann::json& data);

// Loads the run file or fleet folder at path (vl::loadFleet), summarises it, digests every
// device's timeline and writes the page to outPath atomically: a reader sees the old file or the
// whole new one. A timeline that cannot be read is left out of the charts and named in the page's
// warnings. False, with error (domain "VLReports"), when the fleet cannot be loaded or outPath
// cannot be written; outPath is then left as it was.
bool writeHtmlReport(const std::string& path, const std::string& outPath, Error* error = nullptr);

}  // namespace vl
