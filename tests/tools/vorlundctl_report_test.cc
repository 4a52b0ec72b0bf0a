// vorlundctl report: the real binary writes the HTML page of a fleet folder and of one run file,
// and refuses what it cannot read or write with a one-line reason and exit status 1.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "reports/report_fleet.h"
#include "tools/ctl.h"

namespace vl {
namespace {

using test::ctl;

TEST(VorlundctlReportTest, WritesThePageOfAFleetFolderOrOneRunFile) {
  test::TempDir scratch;
  std::string fleet = scratch.file("fleet");
  test::makeReportRun({"CTL-A", 8, true, 4, 10.0, {"wpa_supplicant crashed"}}, fleet);
  std::string single = test::makeReportRun({"CTL-B", 8, false, 4, 20.0, {}}, fleet);

  for (const auto& [input, devices] : std::vector<std::pair<std::string, std::vector<std::string>>>{
           {fleet, {"CTL-A", "CTL-B"}}, {single, {"CTL-B"}}}) {
    std::string out = scratch.file("report.html");
    test::ChildResult written = ctl({"report", input, "--html", out});
    ASSERT_EQ(written.exitStatus, 0) << written.err;
    EXPECT_EQ(written.out, "Report of " + input + " written to " + out + "\n");
    std::string page = test::readFile(out);
    EXPECT_TRUE(page.starts_with("<!DOCTYPE html>"));
    std::string devicesJson = "\"devices\":" + nlohmann::json(devices).dump();
    EXPECT_NE(page.find(devicesJson), std::string::npos) << input;
  }
}

TEST(VorlundctlReportTest, RefusesWhatItCannotReadOrWrite) {
  test::TempDir scratch;
  std::string run = test::makeReportRun({"CTL-C", 2, false, 0, 0.0, {}}, scratch.file("fleet"));
  const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
      {{"report", scratch.file("missing"), "--html", scratch.file("a.html")},
       scratch.file("missing")},
      {{"report", run, "--html", scratch.file("no/such/folder.html")}, "Cannot write the report"},
  };
  for (const auto& [args, reason] : refused) {
    test::ChildResult result = ctl(args);
    EXPECT_EQ(result.exitStatus, 1) << result.out;
    EXPECT_TRUE(result.err.starts_with("vorlundctl: ")) << result.err;
    EXPECT_NE(result.err.find(reason), std::string::npos) << result.err;
  }
  EXPECT_FALSE(std::filesystem::exists(scratch.file("a.html")));
  // Without --html there is nothing to write.
  EXPECT_NE(ctl({"report", run}).exitStatus, 0);
}

}  // namespace
}  // namespace vl
