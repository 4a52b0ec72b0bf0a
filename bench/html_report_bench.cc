// Reducing a long run's timeline for the HTML report, beside raw SQLite reading the same rows. The
// timeline holds 100,000 "Average" results, one metric row each, every one a second of its own (no
// two rows share a date string), and 1,000 issues. The baseline opens the file read-only, runs the
// report's metric query and reads the four columns of every row, as any plain reader must; the
// digest adds the date parsing and the bucketing into 500 buckets a series, and also reads the
// issues and failures.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <string>

#include "bench_sandbox.h"
#include "vorlund/reports/html_report.h"
#include "vorlund/results/timeline_database.h"

namespace {

using vl::bench::sandbox;

constexpr int kResults = 100000;
constexpr int kIssues = 1000;

constexpr const char* kMetricQuery =
    "SELECT test_case_name, metric_name, start_time, value_number FROM TestCases "
    "WHERE test_case_type = 'Average' AND is_number AND value_number IS NOT NULL "
    "AND metric_name IS NOT NULL";

// The timeline of a long run, made once for the whole benchmark run. Empty when it cannot be made.
const std::string& longTimeline() {
  static const std::string path = [] {
    std::string file = sandbox().freshPath("long-timeline.db");
    sqlite3* db = nullptr;
    // Date strings in local time, six seconds apart, as the results aggregate writes them.
    const std::string fill =
        "BEGIN;"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
        std::to_string(kResults) +
        ") INSERT INTO TestCases(test_case_name, test_case_iteration, metric_name, is_number, "
        "test_case_type, start_time, end_time, result, bucket, value_number, value_string, uuid) "
        "SELECT 'Download', i, 'Throughput', 1, 'Average', "
        "strftime('%Y-%m-%d-%H-%M-%S', 1767225600 + 6 * i, 'unixepoch', 'localtime'), "
        "strftime('%Y-%m-%d-%H-%M-%S', 1767225605 + 6 * i, 'unixepoch', 'localtime'), 0, 'None', "
        "50 + i % 17, 'None', 'uuid-' || i FROM n;"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
        std::to_string(kIssues) +
        ") INSERT INTO Issues(reason, process, type, is_primary_process, is_wireless_process, "
        "time, history) SELECT 'wpa_supplicant crashed ' || (i % 7), 'wpa_supplicant', 'Crash', "
        "1, 1, strftime('%Y-%m-%d-%H-%M-%S', 1767225600 + 600 * i, 'unixepoch', 'localtime'), '' "
        "FROM n;"
        "COMMIT;";
    bool ok = sqlite3_open(file.c_str(), &db) == SQLITE_OK;
    for (const std::string& sql :
         {vl::timelineCreateTestCasesStatement(), vl::timelineCreateIssuesStatement(),
          vl::timelineCreateConfigStatement(), fill}) {
      ok = ok && sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    sqlite3_close(db);
    return ok ? file : std::string();
  }();
  return path;
}

void BM_HtmlReportRawSqliteBaselineReadMetrics(benchmark::State& state) {
  const std::string& path = longTimeline();
  if (path.empty()) return state.SkipWithError("cannot make the timeline");
  for (auto _ : state) {
    sqlite3* db = nullptr;
    sqlite3_stmt* query = nullptr;
    double sum = 0;
    int64_t rows = 0;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, kMetricQuery, -1, &query, nullptr) == SQLITE_OK) {
      while (sqlite3_step(query) == SQLITE_ROW) {
        std::string name(reinterpret_cast<const char*>(sqlite3_column_text(query, 0)));
        std::string metric(reinterpret_cast<const char*>(sqlite3_column_text(query, 1)));
        std::string start(reinterpret_cast<const char*>(sqlite3_column_text(query, 2)));
        sum += sqlite3_column_double(query, 3) + static_cast<double>(start.size());
        ++rows;
      }
    }
    sqlite3_finalize(query);
    sqlite3_close(db);
    if (rows != kResults) state.SkipWithError("the query read the wrong rows");
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * kResults);
}
BENCHMARK(BM_HtmlReportRawSqliteBaselineReadMetrics)->Unit(benchmark::kMillisecond);

void BM_HtmlReportDigestTimeline(benchmark::State& state) {
  const std::string& path = longTimeline();
  if (path.empty()) return state.SkipWithError("cannot make the timeline");
  for (auto _ : state) {
    std::optional<vl::TimelineDigest> digest = vl::digestTimeline(path, "BENCH-1");
    if (!digest || digest->metricRows != kResults) state.SkipWithError("the digest failed");
    benchmark::DoNotOptimize(digest);
  }
  state.SetItemsProcessed(state.iterations() * kResults);
}
BENCHMARK(BM_HtmlReportDigestTimeline)->Unit(benchmark::kMillisecond);

}  // namespace
