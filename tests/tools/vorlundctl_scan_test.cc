// vorlundctl scan: the recorded reports in a user's Faultbin folder become issues of the user's run
// and are printed, through the real binary in a private home.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "tools/ctl.h"
#include "vorlund/foundation/date_string.h"

namespace vl {
namespace {

using test::ctl;
using test::shownRun;

TEST(VorlundctlScanTest, ScanAddsTheFoundIssuesToTheRunAndPrintsThem) {
  test::Sandbox sandbox;
  test::ScopedEnv serial("VORLUND_SERIAL_NUMBER", "TESTSERIAL1");
  const std::string folder = sandbox.root() + "/var/mobile/Library/Logs/Faultbin/";
  std::filesystem::create_directories(folder);
  // The run takes no issue older than itself: the reports are dated a minute from now.
  const Date reportTime{std::floor(Date::now().secondsSince1970) + 60};
  const std::string date = formatLocalTime(reportTime, "%Y-%m-%d-%H%M%S");
  for (const char* file :
       {"wpa_supplicant_2023-05-01-123456.ips", "CullerEvent_2023-05-01-150000.ips", "notes.txt"}) {
    std::string name = file;
    if (size_t at = name.find("2023-05-01-"); at != std::string::npos) name.replace(at, 17, date);
    std::filesystem::copy_file(std::string(VORLUND_TESTDATA_DIR) + "/faultbin/" + file,
                               folder + name);
  }

  auto scanned = ctl({"scan", "--user", "mobile", "--json"});
  ASSERT_EQ(scanned.exitStatus, 0) << scanned.err;
  std::optional<Value> printed = json::parse(scanned.out);
  ASSERT_TRUE(printed && printed->isArray()) << scanned.out;
  const Array& issues = *printed->asArray();
  ASSERT_EQ(issues.size(), 3u) << scanned.out;
  const Dictionary& first = *issues[0].asDictionary();
  EXPECT_EQ(first.get("process"), Value("ModemManager"));
  EXPECT_EQ(first.get("time"), Value(dateString(reportTime)));
  EXPECT_EQ(issues[2].asDictionary()->get("reason"), Value("wpa_supplicant - Crash"));

  const std::string runIssues = shownRun().get("Issues").description();
  for (const char* reason : {"wpa_supplicant - Crash", "Culler killed geoclue"}) {
    EXPECT_NE(runIssues.find(reason), std::string::npos) << reason << " in " << runIssues;
  }

  // A second scan finds the same reports; the run has seen them, so none is added or printed.
  auto text = ctl({"scan", "--user", "mobile"});
  ASSERT_EQ(text.exitStatus, 0) << text.err;
  EXPECT_EQ(text.out, "0 issues added to the run (3 found)\n");
}

}  // namespace
}  // namespace vl
