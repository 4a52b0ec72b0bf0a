// vorlundctl fleet collect, query and export through the real binary: a loop over three devices
// fills a fleet folder from each one's current run, SQL runs across their timelines with a broken
// database among them, and the exports come out valid.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tools/ctl.h"

namespace vl {
namespace {

using test::ctl;

const std::string kReason = "it's \"odd\", <really>";

class VorlundctlFleetTest : public ::testing::Test {
 protected:
  // Each device records its run, collects it into the fleet folder and starts a new run, as the
  // README's loop does on every device.
  void SetUp() override {
    for (const char* serial : {"CLI0001", "CLI0002", "CLI0003"}) {
      test::ScopedEnv serialEnv("VORLUND_SERIAL_NUMBER", serial);
      ASSERT_EQ(
          ctl({"results", "add", "--name", "Ping", "--type", "PassFail", "--pass"}).exitStatus, 0);
      ASSERT_EQ(ctl({"results", "add", "--name", "Ping", "--type", "PassFail", "--fail", kReason})
                    .exitStatus,
                0);
      auto collected = ctl({"fleet", "collect", fleet_.path()});
      ASSERT_EQ(collected.exitStatus, 0) << collected.err;
      EXPECT_NE(collected.out.find(fleet_.file("Plists/VorlundResults_" + std::string(serial))),
                std::string::npos)
          << collected.out;
      auto reset = ctl({"results", "reset"});
      ASSERT_EQ(reset.exitStatus, 0) << reset.err;
    }
  }

  test::Sandbox device_;
  test::TempDir fleet_;
};

TEST_F(VorlundctlFleetTest, CollectedDevicesAnswerOneQueryEvenBesideABrokenDatabase) {
  const std::string sql =
      "SELECT bucket, count(*) AS n FROM TestCases WHERE result=1 AND bucket LIKE 'it''s%' "
      "GROUP BY bucket";
  auto csv = ctl({"query", fleet_.path(), sql, "--csv"});
  ASSERT_EQ(csv.exitStatus, 0) << csv.err;
  EXPECT_EQ(csv.out,
            "device,bucket,n\r\n"
            "CLI0001,\"it's \"\"odd\"\", <really>\",1\r\n"
            "CLI0002,\"it's \"\"odd\"\", <really>\",1\r\n"
            "CLI0003,\"it's \"\"odd\"\", <really>\",1\r\n");

  const std::string broken = fleet_.file("Databases/VorlundTimeline_BROKEN.db");
  test::writeFile(broken, "SQLite format 3 but not really");
  auto json = ctl({"query", fleet_.path(), sql, "--json"});
  EXPECT_EQ(json.exitStatus, 2);
  EXPECT_NE(json.err.find(broken + ": file is not a database"), std::string::npos) << json.err;
  nlohmann::json rows = nlohmann::json::parse(json.out);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[2], (nlohmann::json{{"device", "CLI0003"}, {"bucket", kReason}, {"n", 1}}));

  auto write = ctl({"query", fleet_.path(), "DELETE FROM TestCases"});
  EXPECT_EQ(write.exitStatus, 1);
  EXPECT_NE(write.err.find("only read-only statements"), std::string::npos) << write.err;
  auto table = ctl({"query", fleet_.path(), "SELECT count(*) AS rows FROM TestCases"});
  EXPECT_EQ(table.exitStatus, 2);
  EXPECT_NE(table.out.find("CLI0002     2"), std::string::npos) << table.out;
}

TEST_F(VorlundctlFleetTest, ExportsOfTheFolderAreValidJUnitAndJson) {
  const std::string xml = device_.path("out/fleet.xml");
  const std::string json = device_.path("out/fleet.json");
  std::filesystem::create_directories(device_.path("out"));
  auto exported = ctl({"export", fleet_.path(), "--junit", xml, "--json", json});
  ASSERT_EQ(exported.exitStatus, 0) << exported.err;

  test::ChildResult valid =
      test::runChild({"xmllint", "--noout", "--schema",
                      std::string(VORLUND_TESTDATA_DIR) + "/reports/junit-10.xsd", xml});
  EXPECT_EQ(valid.exitStatus, 0) << valid.err;
  EXPECT_NE(test::readFile(xml).find("message=\"it&apos;s &quot;odd&quot;, &lt;really&gt;\""),
            std::string::npos);
  nlohmann::json document = nlohmann::json::parse(test::readFile(json));
  EXPECT_EQ(document["devices"].size(), 3u);
  EXPECT_EQ(document["aggregate"]["MergedResults"], 3);

  EXPECT_NE(ctl({"export", fleet_.path()}).exitStatus, 0);
  auto missing = ctl({"export", device_.path("nowhere"), "--junit", xml});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_NE(missing.err.find("does not exist"), std::string::npos) << missing.err;
}

TEST_F(VorlundctlFleetTest, CollectTakesGivenFilePairsAndRefusesAnUnpairedFile) {
  test::TempDir other;
  std::vector<std::string> args = {"fleet", "collect", other.path()};
  for (const auto& entry : std::filesystem::directory_iterator(fleet_.file("Plists"))) {
    std::string results = entry.path().string();
    std::string timeline = fleet_.file(
        "Databases/" + entry.path().stem().string().replace(0, 14, "VorlundTimeline") + ".db");
    args.push_back(results);
    args.push_back(timeline);
  }
  auto collected = ctl(args);
  ASSERT_EQ(collected.exitStatus, 0) << collected.err;
  auto query = ctl({"query", other.path(), "SELECT count(*) FROM Issues", "--csv"});
  EXPECT_EQ(query.out, "device,count(*)\r\nCLI0001,0\r\nCLI0002,0\r\nCLI0003,0\r\n") << query.err;

  args.pop_back();
  auto unpaired = ctl(args);
  EXPECT_EQ(unpaired.exitStatus, 1);
  EXPECT_NE(unpaired.err.find("RESULTS_FILE DB"), std::string::npos) << unpaired.err;
}

}  // namespace
}  // namespace vl
