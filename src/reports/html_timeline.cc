// Reduces one device's timeline to what the HTML report plots: its numeric "Average" metrics, its
// issues and its failed test case instances, each series cut into a bounded number of time
// buckets, so that a run of a hundred thousand results makes a page as light as a run of ten.
#include <algorithm>
#include <cmath>
#include <map>
#include <string_view>
#include <utility>

#include "vorlund/foundation/date_string.h"
#include "vorlund/reports/html_report.h"
#include "vorlund/results/sqlite/database.h"

namespace vl {

namespace {

constexpr const char* kErrorDomain = "VLReports";

// Reads the timeline's date strings ("yyyy-MM-dd-HH-mm-ss", local time). Local time runs evenly
// within an hour, so one full parse an hour (mktime, most of the cost of reading a long timeline)
// serves every row of that hour; only a second 60 or a malformed string takes the full path.
class DateReader {
 public:
  std::optional<double> seconds(std::string_view text) {
    int minute = twoDigits(text, 14), second = twoDigits(text, 17);
    if (text.size() != 19 || text[13] != '-' || text[16] != '-' || minute > 59 || second > 59) {
      std::optional<Date> date = dateFromString(text);
      return date ? std::optional<double>(date->secondsSince1970) : std::nullopt;
    }
    if (text.substr(0, 13) != hour_) {
      hour_ = text.substr(0, 13);
      std::optional<Date> start = dateFromString(hour_ + "-00-00");
      hourStart_ = start ? std::optional<double>(start->secondsSince1970) : std::nullopt;
    }
    if (!hourStart_) return std::nullopt;
    return *hourStart_ + 60.0 * minute + second;
  }

 private:
  // The number of the two digits at position at, or 99 when they are not two digits.
  static int twoDigits(std::string_view text, size_t at) {
    if (text.size() < at + 2) return 99;
    char tens = text[at], ones = text[at + 1];
    if (tens < '0' || tens > '9' || ones < '0' || ones > '9') return 99;
    return (tens - '0') * 10 + (ones - '0');
  }

  std::string hour_;
  std::optional<double> hourStart_;
};

struct Point {
  double time;
  double value;
};

// Which of n equal buckets over [first, last] holds time.
class Bucketing {
 public:
  Bucketing(double first, double last, size_t n)
      : first_(first), width_((last - first) / static_cast<double>(n)), n_(n) {}
  size_t index(double time) const {
    if (!(width_ > 0)) return 0;
    double i = std::floor((time - first_) / width_);
    return std::min(n_ - 1, static_cast<size_t>(std::max(0.0, i)));
  }

 private:
  double first_;
  double width_;
  size_t n_;
};

template <typename T>
std::pair<double, double> timeSpan(const std::vector<T>& points) {
  auto [low, high] = std::minmax_element(points.begin(), points.end(),
                                         [](const T& a, const T& b) { return a.time < b.time; });
  return {low->time, high->time};
}

std::vector<TimeBucket> bucketMetric(const std::vector<Point>& points, size_t maxBuckets) {
  if (points.empty()) return {};
  auto [first, last] = timeSpan(points);
  Bucketing bucketing(first, last, maxBuckets);
  std::vector<TimeBucket> buckets(maxBuckets);
  std::vector<double> timeSums(maxBuckets, 0), valueSums(maxBuckets, 0);
  for (const Point& p : points) {
    size_t i = bucketing.index(p.time);
    TimeBucket& b = buckets[i];
    b.minimum = b.count == 0 ? p.value : std::min(b.minimum, p.value);
    b.maximum = b.count == 0 ? p.value : std::max(b.maximum, p.value);
    ++b.count;
    timeSums[i] += p.time;
    valueSums[i] += p.value;
  }
  std::vector<TimeBucket> filled;
  for (size_t i = 0; i < buckets.size(); ++i) {
    if (buckets[i].count == 0) continue;
    TimeBucket b = buckets[i];
    b.time = timeSums[i] / static_cast<double>(b.count);
    b.mean = valueSums[i] / static_cast<double>(b.count);
    filled.push_back(b);
  }
  return filled;
}

// At most maxLength bytes of text, cut before a UTF-8 character rather than inside one.
std::string cut(std::string text, size_t maxLength) {
  if (text.size() <= maxLength) return text;
  size_t end = maxLength;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  text.resize(end);
  return text;
}

struct Event {
  double time;
  std::string reason;
};

std::vector<IssueBin> binEvents(const std::vector<Event>& events, size_t maxBuckets) {
  if (events.empty()) return {};
  auto [first, last] = timeSpan(events);
  Bucketing bucketing(first, last, maxBuckets);
  std::vector<IssueBin> bins(maxBuckets);
  std::vector<double> timeSums(maxBuckets, 0);
  for (const Event& e : events) {
    size_t i = bucketing.index(e.time);
    if (bins[i].count++ == 0) bins[i].reason = cut(e.reason, kHtmlReportMaxBinReasonLength);
    timeSums[i] += e.time;
  }
  std::vector<IssueBin> filled;
  for (size_t i = 0; i < bins.size(); ++i) {
    if (bins[i].count == 0) continue;
    bins[i].time = timeSums[i] / static_cast<double>(bins[i].count);
    filled.push_back(std::move(bins[i]));
  }
  return filled;
}

// Runs sql and hands every row to onRow. False, with error, when the query cannot run (no such
// table: not a timeline) or fails while stepping (not a database).
template <typename OnRow>
bool forEachRow(sqlite::Database& db, const char* sql, Error* error, OnRow onRow) {
  Error failure;
  std::optional<sqlite::ResultSet> rows = db.executeQuery(sql, {}, &failure);
  if (rows) {
    while (rows->next(&failure)) onRow(*rows);
    if (!rows->failed()) return true;
  }
  setError(error, Error::withDescription(kErrorDomain, 2,
                                         db.path() + " is not a readable timeline: " +
                                             failure.localizedDescription()));
  return false;
}

// The numeric metrics of "Average" results; rows without a number (text metrics, tags, default
// rows) and NaN metrics, stored as NULL, carry nothing to plot.
constexpr const char* kSelectMetrics =
    "SELECT test_case_name, metric_name, start_time, value_number FROM TestCases "
    "WHERE test_case_type = 'Average' AND is_number AND value_number IS NOT NULL "
    "AND metric_name IS NOT NULL";
constexpr const char* kSelectIssues = "SELECT type, reason, time FROM Issues";
// A result writes one row per tag or metric, all with its uuid: one failed instance per uuid.
constexpr const char* kSelectFailures =
    "SELECT test_case_name, bucket, MIN(start_time) AS start_time FROM TestCases "
    "WHERE result = 1 GROUP BY uuid";

}  // namespace

std::optional<TimelineDigest> digestTimeline(const std::string& path, const std::string& device,
                                             size_t maxBuckets, Error* error) {
  maxBuckets = std::max<size_t>(maxBuckets, 1);
  sqlite::Database db(path);
  Error openError;
  if (!db.open(sqlite::kOpenReadOnly, &openError)) {
    setError(error, Error::withDescription(kErrorDomain, 1,
                                           "Cannot open the timeline " + path + ": " +
                                               openError.localizedDescription()));
    return std::nullopt;
  }
  // A running service may be writing the same file.
  db.setBusyTimeout(std::chrono::seconds(5));

  TimelineDigest digest;
  DateReader dates;
  std::map<std::pair<std::string, std::string>, std::vector<Point>> metrics;
  bool ok = forEachRow(db, kSelectMetrics, error, [&](const sqlite::ResultSet& row) {
    ++digest.metricRows;
    std::optional<double> time = dates.seconds(row.stringForColumn("start_time"));
    if (!time) return;
    metrics[{row.stringForColumn("test_case_name"), row.stringForColumn("metric_name")}].push_back(
        {*time, row.doubleForColumn("value_number")});
  });
  std::map<std::string, std::vector<Event>> events;
  ok = ok && forEachRow(db, kSelectIssues, error, [&](const sqlite::ResultSet& row) {
         ++digest.issueRows;
         std::optional<double> time = dates.seconds(row.stringForColumn("time"));
         if (time)
           events[row.stringForColumn("type")].push_back({*time, row.stringForColumn("reason")});
       });
  ok = ok && forEachRow(db, kSelectFailures, error, [&](const sqlite::ResultSet& row) {
         std::optional<double> time = dates.seconds(row.stringForColumn("start_time"));
         if (!time) return;
         events[kHtmlReportTestCaseFailureType].push_back(
             {*time, row.stringForColumn("test_case_name") + ": " + row.stringForColumn("bucket")});
       });
  if (!ok) return std::nullopt;

  for (auto& [key, points] : metrics) {
    digest.metrics.push_back({key.first, key.second, device, bucketMetric(points, maxBuckets)});
  }
  for (auto& [type, list] : events) {
    digest.issues.push_back({device, type, binEvents(list, maxBuckets)});
  }
  return digest;
}

}  // namespace vl
