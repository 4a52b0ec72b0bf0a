// SQL across a fleet of real device timelines: the rows of every device with its serial first,
// refused writes that leave the files as they were, broken databases among good ones, and the
// three output forms.
#include "vorlund/reports/fleet_query.h"

#include <gtest/gtest.h>

#include "reports/sandbox_fleet.h"

namespace vl {
namespace {

using test::SandboxFleet;

class FleetQueryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    fleet_ = new SandboxFleet();
    test::addThreeDevices(*fleet_);
  }
  static void TearDownTestSuite() {
    delete fleet_;
    fleet_ = nullptr;
  }

  // The rows as "device|col|col..." lines, values as the table shows them.
  static std::vector<std::string> lines(const FleetQueryResult& result) {
    std::vector<std::string> out;
    for (const auto& row : result.rows) {
      std::string line;
      for (const Value& v : row) line += (line.empty() ? "" : "|") + v.description();
      out.push_back(line);
    }
    return out;
  }

  static SandboxFleet* fleet_;
};

SandboxFleet* FleetQueryTest::fleet_ = nullptr;

TEST_F(FleetQueryTest, FailuresPerHourComeFromEveryDeviceWithItsSerialFirst) {
  Error error;
  auto result = queryFleet(fleet_->path(),
                           "SELECT substr(start_time,1,13) AS hour, count(*) AS failures "
                           "FROM TestCases WHERE result=1 GROUP BY hour",
                           &error);
  ASSERT_TRUE(result) << error.description();
  EXPECT_TRUE(result->failures.empty());
  EXPECT_EQ(result->columns, (std::vector<std::string>{"device", "hour", "failures"}));
  ASSERT_EQ(result->rows.size(), 3u);
  EXPECT_EQ(result->rows[0][0], Value("FLEET0001"));
  EXPECT_EQ(result->rows[1][0], Value("FLEET0002"));
  EXPECT_EQ(result->rows[2][0], Value("FLEET0002"));
  // The second device's failures are an hour apart, each counted once; counts are numbers.
  EXPECT_NE(result->rows[1][1], result->rows[2][1]);
  for (const auto& row : result->rows) EXPECT_EQ(row[2], Value(int64_t{1}));
}

TEST_F(FleetQueryTest, AQuoteInTheSqlTextIsPlainSql) {
  auto result = queryFleet(fleet_->path(),
                           "SELECT test_case_name, bucket FROM TestCases "
                           "WHERE bucket = 'it''s <gone> & \"lost\"'");
  ASSERT_TRUE(result);
  EXPECT_EQ(lines(*result), (std::vector<std::string>{"FLEET0002|Ping|it's <gone> & \"lost\"",
                                                      "FLEET0002|Ping|it's <gone> & \"lost\""}));
}

TEST_F(FleetQueryTest, WritesAndSeveralStatementsAreRefusedAndNothingChanges) {
  const std::string timeline = test::fleetTimeline(*fleet_, "FLEET0001");
  ASSERT_FALSE(timeline.empty());
  const std::string before = test::readFile(timeline);
  const std::pair<const char*, int> refused[] = {
      {"DELETE FROM TestCases", kFleetQueryNotReadOnly},
      {"UPDATE Config SET value='x'", kFleetQueryNotReadOnly},
      {"CREATE TABLE Notes(x)", kFleetQueryNotReadOnly},
      {"SELECT 1; DELETE FROM TestCases", kFleetQueryNotOneStatement},
      {"SELECT 1; SELECT 2", kFleetQueryNotOneStatement},
      {"SELECT 1; garbage", kFleetQueryNotOneStatement},
      {"  -- nothing but a comment\n;", kFleetQueryNotOneStatement},
  };
  for (const auto& [sql, code] : refused) {
    Error error;
    EXPECT_FALSE(queryFleet(fleet_->path(), sql, &error)) << sql;
    EXPECT_EQ(error.domain, kFleetQueryErrorDomain) << sql;
    EXPECT_EQ(error.code, code) << sql << ": " << error.localizedDescription();
  }
  EXPECT_EQ(test::readFile(timeline), before);
  EXPECT_EQ(test::sqliteTool(timeline, "SELECT count(*) FROM TestCases WHERE result=1;"), "1\n");

  // A trailing semicolon and comment leave one statement.
  auto one = queryFleet(fleet_->path(), "SELECT 7 AS seven; -- that is all\n");
  ASSERT_TRUE(one);
  EXPECT_EQ(one->rows.size(), 3u);
}

TEST(FleetQueryBrokenTest, ABrokenDatabaseIsReportedByNameAndTheOthersAnswer) {
  SandboxFleet fleet;
  fleet.addDevice("GOOD0001", [](VLResults& run) {
    run.addTestCaseResult(test::timedResult(run, "Ping", 1, "No reply"), true);
  });
  const std::string garbage = fleet.file("Databases/VorlundTimeline_GARBAGE.db");
  test::writeFile(garbage, std::string(4096, 'x'));
  const std::string otherSchema = fleet.file("Databases/VorlundTimeline_OTHER.db");
  test::sqliteTool(otherSchema, "CREATE TABLE Unrelated(x);");

  auto result = queryFleet(fleet.path(), "SELECT bucket FROM TestCases");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->rows,
            (std::vector<std::vector<Value>>{{Value("GOOD0001"), Value("No reply")}}));
  ASSERT_EQ(result->failures.size(), 2u);
  EXPECT_EQ(result->failures[0].path, garbage);
  EXPECT_EQ(result->failures[0].message, "file is not a database");
  EXPECT_EQ(result->failures[1].path, otherSchema);
  EXPECT_EQ(result->failures[1].message, "no such table: TestCases");

  // Without a Config serial a device is named by its file.
  auto names = queryFleet(fleet.path(), "SELECT 1 AS one");
  ASSERT_TRUE(names);
  EXPECT_EQ(names->rows.size(), 2u);
  EXPECT_EQ(names->rows[1][0].description(), "VorlundTimeline_OTHER");

  Error error;
  EXPECT_FALSE(queryFleet(fleet.file("Plists"), "SELECT 1", &error));
  EXPECT_EQ(error.code, kFleetQueryNoDatabases);
}

TEST(FleetQueryFormatTest, TableCsvAndJsonKeepTypesAndQuoteWhatNeedsIt) {
  FleetQueryResult result;
  result.columns = {"device", "n", "text", "count", "rate"};
  result.rows = {{Value("DEV1"), Value(), Value("a,\"b\"\nc"), Value(int64_t{42}), Value(2.5)},
                 {Value("DEVICE22"), Value(), Value("plain"), Value(int64_t{7}), Value(0.1)}};

  EXPECT_EQ(fleetQueryCsv(result),
            "device,n,text,count,rate\r\n"
            "DEV1,,\"a,\"\"b\"\"\nc\",42,2.5\r\n"
            "DEVICE22,,plain,7,0.1\r\n");
  EXPECT_EQ(fleetQueryJson(result).dump(),
            R"([{"device":"DEV1","n":null,"text":"a,\"b\"\nc","count":42,"rate":2.5},)"
            R"({"device":"DEVICE22","n":null,"text":"plain","count":7,"rate":0.1}])");
  EXPECT_EQ(fleetQueryTable(result),
            "device    n     text      count  rate\n"
            "--------  ----  --------  -----  ----\n"
            "DEV1      NULL  a,\"b\"\\nc     42   2.5\n"
            "DEVICE22  NULL  plain         7   0.1\n");
}

}  // namespace
}  // namespace vl
