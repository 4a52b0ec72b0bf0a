#include "vorlund/results/timeline_database.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "results/run_sandbox.h"
#include "support/test_support.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/process.h"
#include "vorlund/logging/log_capture.h"

namespace {

using vl::Array;
using vl::Date;
using vl::Dictionary;
using vl::Value;

// The tables as they must be created, letter for letter (SQLite keeps the text without the ';').
constexpr const char* kTestCasesTable =
    "CREATE TABLE TestCases(id INTEGER PRIMARY KEY, test_case_name VARCHAR(250), "
    "test_case_iteration INTEGER, metric_name VARCHAR(250), is_number BOOLEAN, test_case_type "
    "VARCHAR(250), start_time VARCHAR(50), end_time VARCHAR(50), result INTEGER, bucket "
    "VARCHAR(1000), value_number DOUBLE PRECISION, value_string VARCHAR(250), uuid VARCHAR(40))";
constexpr const char* kIssuesTable =
    "CREATE TABLE Issues(id INTEGER PRIMARY KEY, reason VARCHAR(1000), process VARCHAR(250), type "
    "VARCHAR(250), is_primary_process BOOLEAN, is_wireless_process BOOLEAN, time VARCHAR(50), "
    "history VARCHAR(1000000))";
constexpr const char* kConfigTable =
    "CREATE TABLE Config(id INTEGER PRIMARY KEY, key VARCHAR(250), value VARCHAR(250))";

const Date kStart{1767225600.0};  // 2026-01-01 00:00:00 UTC
const Date kEnd{1767225690.0};

using vl::test::sqliteTool;

std::shared_ptr<VLTestCaseResult> makeResult(const std::string& name, const char* type) {
  auto result = VLTestCaseResult::withName(name);
  result->setType(std::string(type));
  result->setStartTime(kStart);
  result->setEndTime(kEnd);
  return result;
}

std::shared_ptr<VLIssue> makeIssue(const std::string& reason, const std::string& process,
                                   Date time) {
  auto issue = VLIssue::make();
  issue->setReason(reason);
  issue->setProcess(process);
  issue->setType(std::string("Crash"));
  issue->setTime(time);
  return issue;
}

class TimelineTest : public ::testing::Test {
 protected:
  vl::test::Sandbox sandbox_;
  std::string path_ = sandbox_.path("VorlundTimeline.db");
  VLTimelineDatabase timeline_{path_};
};

TEST_F(TimelineTest, CreatesTheThreeTablesWithTheExactStatements) {
  vl::LogCapture capture;
  EXPECT_FALSE(timeline_.isInitialized());
  timeline_.databaseInit();
  EXPECT_TRUE(timeline_.verifyDBTables());

  EXPECT_EQ(sqliteTool(path_, "SELECT sql FROM sqlite_master WHERE type='table' ORDER BY rowid"),
            std::string(kTestCasesTable) + "\n" + kIssuesTable + "\n" + kConfigTable + "\n");
  EXPECT_EQ(vl::timelineCreateConfigStatement(), kConfigTable);

  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Results",
                               "Database object is <VLSQLiteDatabase: " + path_ + " (closed)>"));
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Results", "hasIssues = 0"));
  // Once after creating them and once more from verifyDBTables.
  EXPECT_EQ(capture.count("hasTestCases = 1"), 2u);

  // Opening an existing timeline creates nothing and logs no failure: it verifies twice.
  capture.clear();
  VLTimelineDatabase again(path_);
  again.databaseInit();
  EXPECT_EQ(capture.count("hasConfig = 1"), 2u);
  for (const auto& line : capture.lines()) EXPECT_NE(line.level, VLLogLevelError) << line.message;
}

TEST_F(TimelineTest, AverageResultsWriteOneRowPerMetricAndNoDefaultRow) {
  vl::LogCapture capture;
  auto average = makeResult("Ping", kVLTestCaseResultTypeAverage);
  average->addMetric(Value(12.5), std::string("Latency"));
  average->addMetric(Value(3), std::string("Lost"));
  average->pass();
  ASSERT_TRUE(timeline_.saveResultToDatabase(*average, 1));
  EXPECT_TRUE(capture.contains(VLLogLevelNotice, "Results", "No tags, adding default result row"));
  EXPECT_TRUE(capture.contains(VLLogLevelDebug, "Results", "Waiting for db lock"));
  EXPECT_EQ(sqliteTool(path_,
                       "SELECT metric_name, is_number, value_number, value_string, bucket "
                       "FROM TestCases ORDER BY id"),
            "Latency|1|12.5|None|None\nLost|1|3.0|None|None\n");

  // Text stays text; tags come before metrics.
  auto mixed = makeResult("Ping", kVLTestCaseResultTypeAverage);
  mixed->addMetric(Value("n/a"), std::string("Latency"));
  mixed->addTag(Value("Office"), std::string("Location"));
  mixed->pass();
  ASSERT_TRUE(timeline_.saveResultToDatabase(*mixed, 2));
  EXPECT_EQ(sqliteTool(path_,
                       "SELECT metric_name, is_number, value_number, value_string "
                       "FROM TestCases WHERE test_case_iteration = 2 ORDER BY id"),
            "Location|0|2147483647.0|Office\nLatency|0|2147483647.0|n/a\n");
  // A number that is not finite is a number row without a value, never text.
  auto broken = makeResult("Ping", kVLTestCaseResultTypeAverage);
  broken->addMetric(Value(std::nan("")), std::string("Jitter"));
  broken->addMetric(Value(-INFINITY), std::string("Gain"));
  broken->pass();
  ASSERT_TRUE(timeline_.saveResultToDatabase(*broken, 3));
  EXPECT_EQ(sqliteTool(path_,
                       "SELECT is_number, typeof(value_number), value_string "
                       "FROM TestCases WHERE test_case_iteration = 3 ORDER BY id"),
            "1|null|None\n1|null|None\n");
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Results",
                               "Metric Gain of Ping is -inf, which is not a finite number: "
                               "stored as NULL"));
  // The rows are in the log; a Config rewrite (each save) folds them into the file, so that a
  // copy of the file alone holds them all.
  EXPECT_EQ(sqliteTool(path_, "PRAGMA journal_mode"), "wal\n");
  ASSERT_TRUE(timeline_.saveConfigToDatabase(Dictionary{
      {"Test Settings", Dictionary{{"City", "Oslo"}}}, {"StressType", "wifi"}, {"X", Array{1}}}));
  EXPECT_EQ(sqliteTool(path_, "SELECT key, value FROM Config"), "City|Oslo\nStressType|wifi\n");
  const std::string copy = path_ + ".copy";
  std::filesystem::copy_file(path_, copy);
  EXPECT_EQ(sqliteTool(copy, "SELECT COUNT(*) FROM TestCases"), "6\n");
}

// Each use opens the file anew, so the log must be emptied by the commits themselves; a reader of
// another process may hold it, and then only delays the emptying.
TEST_F(TimelineTest, TheLogStaysSmallOverALongRunAndAReaderOnlyDelaysItsEmptying) {
  const std::string log = path_ + "-wal";
  auto logPages = [&] {
    std::error_code missing;
    auto bytes = std::filesystem::file_size(log, missing);
    return missing || bytes < 32 ? 0 : static_cast<int>((bytes - 32) / (4096 + 24));
  };
  auto result = makeResult("Ping", kVLTestCaseResultTypePassFail);
  for (int tag = 0; tag < 5; ++tag) result->addTag(Value("value"), "tag" + std::to_string(tag));
  result->pass();
  int64_t iteration = 0;
  int largest = 0;
  for (; iteration < 100; ++iteration) {
    ASSERT_TRUE(timeline_.saveResultToDatabase(*result, iteration));
    largest = std::max(largest, logPages());
  }
  EXPECT_GT(largest, 0);
  EXPECT_LT(largest, vl::kTimelineCheckpointPages);

  vl::sqlite::Database reader(path_);
  ASSERT_TRUE(reader.open(vl::sqlite::kOpenReadOnly));
  auto rows = reader.executeQuery("SELECT id FROM TestCases");
  ASSERT_TRUE(rows && rows->next());
  for (int i = 0; i < 40; ++i) ASSERT_TRUE(timeline_.saveResultToDatabase(*result, iteration++));
  EXPECT_GE(logPages(), vl::kTimelineCheckpointPages);
  rows->close();
  ASSERT_TRUE(timeline_.saveResultToDatabase(*result, iteration++));
  EXPECT_LT(logPages(), vl::kTimelineCheckpointPages);
  EXPECT_EQ(sqliteTool(path_, "SELECT COUNT(*) FROM TestCases"), "705\n");
}

TEST_F(TimelineTest, IssueRowsCarryTheirHistoryAndAreFoundAgain) {
  vl::LogCapture capture;
  Date time{1767229200.0};
  auto issue = makeIssue("Baseband crashed", "ModemManager", time);
  issue->setWirelessProcess(true);
  EXPECT_TRUE(timeline_.isNewIssue(*issue));
  Array history{Dictionary{{"Name", "Ping"}, {"Timeout", 30}}, Dictionary{{"Name", "Join"}}};
  ASSERT_TRUE(timeline_.saveIssueToDatabase(*issue, history));
  EXPECT_EQ(sqliteTool(path_,
                       "SELECT reason, process, type, is_primary_process, "
                       "is_wireless_process, time, history FROM Issues"),
            "Baseband crashed|ModemManager|Crash|0|1|" + vl::dateString(time) +
                "|[{\"Name\":\"Ping\",\"Timeout\":30},{\"Name\":\"Join\"}]\n");
  EXPECT_FALSE(timeline_.isNewIssue(*makeIssue("Baseband crashed", "ModemManager", time)));
  EXPECT_TRUE(timeline_.isNewIssue(*makeIssue("Baseband crashed", "ofonod", time)));

  // Reasons are stored without single quotes and looked up the same way; a quote in the process
  // name does not break the lookup.
  ASSERT_TRUE(timeline_.saveIssueToDatabase(*makeIssue("cant attach", "o'daemon", time), Array{}));
  EXPECT_FALSE(timeline_.isNewIssue(*makeIssue("can't attach", "o'daemon", time)));
  EXPECT_TRUE(
      capture.contains(VLLogLevelDebug, "Results", "Removing single quotes from can't attach"));
  for (const auto& line : capture.lines()) EXPECT_NE(line.level, VLLogLevelError) << line.message;
}

TEST_F(TimelineTest, AHistoryThatIsTooLongOrNotJsonIsStoredEmpty) {
  vl::LogCapture capture;
  Date time{1767229200.0};
  ASSERT_TRUE(
      timeline_.saveIssueToDatabase(*makeIssue("exact", "p", time), std::string(1000000, 'h')));
  ASSERT_TRUE(
      timeline_.saveIssueToDatabase(*makeIssue("long", "p", time), std::string(1000001, 'h')));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Results",
                               "Unable to save historyJSON because it was too long... (1000001 > "
                               "1000000)"));
  // Characters, not bytes: 1000000 two-byte characters fit.
  std::string wide;
  for (int i = 0; i < 1000000; ++i) wide += "\xC3\xA9";
  ASSERT_TRUE(timeline_.saveIssueToDatabase(*makeIssue("wide", "p", time), wide));
  ASSERT_TRUE(
      timeline_.saveIssueToDatabase(*makeIssue("binary", "p", time), std::string("\xFF\xFE")));
  EXPECT_EQ(capture.find("Unable to save json string for DB....The history is not valid UTF-8 text")
                .size(),
            1u);
  ASSERT_TRUE(timeline_.saveIssueToDatabase(*makeIssue("nan", "p", time),
                                            Array{Dictionary{{"Value", std::nan("")}}}));
  EXPECT_EQ(vl::test::linesStartingWith(capture, VLLogLevelError, "Results",
                                        "Can not generate JSON from results array. ")
                .size(),
            1u);
  EXPECT_EQ(sqliteTool(path_, "SELECT reason, length(history) FROM Issues ORDER BY id"),
            "exact|1000000\nlong|0\nwide|1000000\nbinary|0\nnan|0\n");
}

TEST(TimelineOpenTest, CorruptAndForeignFilesRaiseDBInitializationFailed) {
  vl::test::Sandbox sandbox;
  auto expectFailure = [](const std::string& path, const std::string& reason) {
    VLTimelineDatabase timeline(path);
    try {
      timeline.databaseInit();
      ADD_FAILURE() << "no exception for " << path;
    } catch (const VLException& e) {
      EXPECT_EQ(e.name(), "DBInitializationFailed");
      EXPECT_EQ(e.reason(), reason);
    }
    EXPECT_FALSE(timeline.verifyDBTables());
  };

  // A timeline whose header was overwritten.
  std::string corrupt = sandbox.path("corrupt.db");
  VLTimelineDatabase(corrupt).databaseInit();
  {
    std::string bytes = vl::test::readFile(corrupt);
    ASSERT_GT(bytes.size(), 100u);
    for (size_t i = 0; i < 100; ++i) bytes[i] = static_cast<char>(0x5A);
    vl::test::writeFile(corrupt, bytes);
  }
  vl::LogCapture capture;
  expectFailure(corrupt, "Failed to verify tables for " + corrupt);
  EXPECT_TRUE(capture.contains(
      VLLogLevelError, "Results",
      "Failed to execute the issues initialization statement...file is not a database,"));

  // A file of another kind at the timeline's path.
  std::string foreign = sandbox.path("foreign.db");
  vl::test::writeFile(foreign, "<?xml version=\"1.0\"?>\n<plist version=\"1.0\"><dict/></plist>\n");
  expectFailure(foreign, "Failed to verify tables for " + foreign);
  EXPECT_EQ(vl::test::readFile(foreign).size(), 59u);  // left as it was

  // A folder that does not exist.
  std::string nowhere = sandbox.path("missing/folder/VorlundTimeline.db");
  VLTimelineDatabase timeline(nowhere);
  try {
    timeline.saveResultToDatabase(*makeResult("x", kVLTestCaseResultTypePassFail), 1);
    ADD_FAILURE() << "no exception";
  } catch (const VLException& e) {
    EXPECT_EQ(e.name(), "DBInitializationFailed");
    EXPECT_EQ(
        e.reason(),
        "Failed to open database after creating...unable to open database file (" + nowhere + ")");
  }
}

TEST(TimelineOpenTest, TheTetherProcessNeverMakesATimeline) {
  vl::test::Sandbox sandbox;
  std::string path = sandbox.path("VorlundTimeline.db");
  VLTimelineDatabase timeline(path);
  {
    vl::process::ScopedName tether("vorlund_tether");
    try {
      timeline.databaseInitWithPath(path);
      ADD_FAILURE() << "no exception";
    } catch (const VLException& e) {
      EXPECT_EQ(e.name(), "VLTetherResultsException");
      EXPECT_EQ(e.reason(), "Attempted to create a database object from the tether process");
    }
    EXPECT_FALSE(vl::test::fileExists(path));
  }
  vl::process::ScopedName other("vorlund_tethered");
  timeline.databaseInitWithPath(path);
  EXPECT_TRUE(timeline.isInitialized());
}

}  // namespace
