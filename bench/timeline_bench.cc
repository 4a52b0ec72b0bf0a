// Writing results to the run's timeline, beside raw SQLite writing the same rows with the same
// durability. Every result carries five tags, so it is five rows, committed (on disk) before the
// next result begins. The baseline is what a plain program does with SQLite's default settings
// (rollback journal, synchronous=FULL): open the file, prepare the insert, one transaction for the
// result's rows, close — as the timeline opens and closes the file around each result. The raw
// writer that keeps one connection open is measured beside it, for scale: it is cheaper, but
// another program copying the file between writes may find it mid-journal. Commits wait for the
// disk, so rates are measured in real time, not CPU time.
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

constexpr const char* kRawInsert =
    "INSERT INTO TestCases(test_case_name, test_case_iteration, metric_name, is_number, "
    "test_case_type, start_time, end_time, result, bucket, value_number, value_string, uuid) "
    "VALUES (?,?,?,?,?,?,?,?,?,?,?,?)";

// A database with the timeline's TestCases table and SQLite's default settings.
sqlite3* createRawDatabase(const std::string& path) {
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db, vl::timelineCreateTestCasesStatement().c_str(), nullptr, nullptr, nullptr) !=
          SQLITE_OK) {
    sqlite3_close(db);
    return nullptr;
  }
  return db;
}

// One result's rows in one transaction, as a plain program writes them. False on any failure.
bool writeRawResult(sqlite3* db, sqlite3_stmt* insert, int64_t iteration) {
  static const std::string start = vl::dateString(kStart);
  static const std::string end = vl::dateString(kEnd);
  const std::string uuid = vl::Uuid::randomString();
  bool ok = sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK;
  for (int i = 0; ok && i < kTagsPerResult; ++i) {
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
    ok = sqlite3_step(insert) == SQLITE_DONE;
    sqlite3_reset(insert);
  }
  return ok && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
}

void BM_TimelineRawSqliteBaselineOpenPerResult(benchmark::State& state) {
  std::string path = sandbox().freshPath("raw-per-result.db");
  sqlite3_close(createRawDatabase(path));
  int64_t iteration = 0;
  for (auto _ : state) {
    sqlite3* db = nullptr;
    sqlite3_stmt* insert = nullptr;
    bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
              sqlite3_exec(db, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr) == SQLITE_OK &&
              sqlite3_prepare_v2(db, kRawInsert, -1, &insert, nullptr) == SQLITE_OK &&
              writeRawResult(db, insert, ++iteration);
    if (!ok) state.SkipWithError(sqlite3_errmsg(db));
    sqlite3_finalize(insert);
    sqlite3_close(db);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimelineRawSqliteBaselineOpenPerResult)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_TimelineRawSqliteKeptOpen(benchmark::State& state) {
  sqlite3* db = createRawDatabase(sandbox().freshPath("raw-kept-open.db"));
  sqlite3_stmt* insert = nullptr;
  if (!db || sqlite3_exec(db, "PRAGMA synchronous=FULL", nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(db, kRawInsert, -1, &insert, nullptr) != SQLITE_OK) {
    state.SkipWithError("cannot create the database");
    sqlite3_close(db);
    return;
  }
  int64_t iteration = 0;
  for (auto _ : state) {
    if (!writeRawResult(db, insert, ++iteration)) state.SkipWithError(sqlite3_errmsg(db));
  }
  sqlite3_finalize(insert);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimelineRawSqliteKeptOpen)->Unit(benchmark::kMicrosecond)->UseRealTime();

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
