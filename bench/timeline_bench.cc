// Writing results to the run's timeline, beside the raw baseline of inserting the same rows with
// the plain SQLite C API (one prepared statement, one transaction per result). Every result carries
// five tags, so it is five rows, and each is committed (on disk) before the next begins. The
// commits wait for the disk, so rates are measured in real time, not CPU time.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <string>

#include "bench_sandbox.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/value.h"
#include "vorlund/results/results.h"
#include "vorlund/results/test_case_result.h"
#include "vorlund/results/timeline_database.h"

namespace {

using vl::bench::sandbox;

constexpr int kTagsPerResult = 5;
const vl::Date kStart{1767225600.0};
const vl::Date kEnd{1767225690.0};

std::shared_ptr<VLTestCaseResult> sampleResult() {
  auto result = VLTestCaseResult::withName("WiFi Ping Gateway");
  result->setType(std::string(kVLTestCaseResultTypePassFail));
  result->setStartTime(kStart);
  result->setEndTime(kEnd);
  for (int i = 0; i < kTagsPerResult; ++i) {
    result->addTag(vl::Value("value " + std::to_string(i)), "tag" + std::to_string(i));
  }
  result->pass();
  return result;
}

void BM_TimelineRawSqliteBaseline(benchmark::State& state) {
  std::string path = sandbox().freshPath("raw.db");
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db, vl::timelineCreateTestCasesStatement().c_str(), nullptr, nullptr, nullptr) !=
          SQLITE_OK) {
    state.SkipWithError("cannot create the database");
    sqlite3_close(db);
    return;
  }
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(db,
                     "INSERT INTO TestCases(test_case_name, test_case_iteration, metric_name, "
                     "is_number, test_case_type, start_time, end_time, result, bucket, "
                     "value_number, value_string, uuid) VALUES (?,?,?,?,?,?,?,?,?,?,?,?)",
                     -1, &insert, nullptr);
  const std::string start = vl::dateString(kStart);
  const std::string end = vl::dateString(kEnd);
  int64_t iteration = 0;
  for (auto _ : state) {
    ++iteration;
    const std::string uuid = vl::Uuid::randomString();
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    for (int i = 0; i < kTagsPerResult; ++i) {
      std::string tag = "tag" + std::to_string(i);
      std::string value = "value " + std::to_string(i);
      sqlite3_bind_text(insert, 1, "WiFi Ping Gateway", -1, SQLITE_STATIC);
      sqlite3_bind_int64(insert, 2, iteration);
      sqlite3_bind_text(insert, 3, tag.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_int(insert, 4, 0);
      sqlite3_bind_text(insert, 5, kVLTestCaseResultTypePassFail, -1, SQLITE_STATIC);
      sqlite3_bind_text(insert, 6, start.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_text(insert, 7, end.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_int(insert, 8, 0);
      sqlite3_bind_text(insert, 9, "None", -1, SQLITE_STATIC);
      sqlite3_bind_int64(insert, 10, 2147483647);
      sqlite3_bind_text(insert, 11, value.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(insert, 12, uuid.c_str(), -1, SQLITE_STATIC);
      if (sqlite3_step(insert) != SQLITE_DONE) state.SkipWithError(sqlite3_errmsg(db));
      sqlite3_reset(insert);
    }
    if (sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
      state.SkipWithError(sqlite3_errmsg(db));
    }
  }
  sqlite3_finalize(insert);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimelineRawSqliteBaseline)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The timeline object on its own, without the aggregate around it.
void BM_TimelineDatabaseAddResult(benchmark::State& state) {
  VLTimelineDatabase timeline(sandbox().freshPath("timeline.db"));
  try {
    timeline.databaseInit();
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return;
  }
  auto result = sampleResult();
  int64_t iteration = 0;
  for (auto _ : state) {
    if (!timeline.saveResultToDatabase(*result, ++iteration)) state.SkipWithError("write failed");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimelineDatabaseAddResult)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Adding results to a run: validation, the statistic merge, the history, notifications and the
// timeline rows, committed before the add returns.
void BM_TimelineAddResult(benchmark::State& state) {
  sandbox();
  auto run = VLResults::make();
  auto result = sampleResult();
  run->addTestCaseResult(result, true);  // opens the timeline outside the measurement
  for (auto _ : state) {
    run->addTestCaseResult(result, true);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimelineAddResult)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
