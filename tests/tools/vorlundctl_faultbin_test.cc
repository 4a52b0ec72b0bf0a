// vorlundctl faultbin import: journal lines from a file or standard input become reports in the
// sandbox's Faultbin folders; a bad line is named on standard error and skipped.
#include <gtest/gtest.h>

#include "tools/ctl.h"

namespace vl {
namespace {

using test::ctl;

TEST(VorlundctlFaultbinTest, ImportSkipsABadLineWritesEachReportOnceAndReadsStandardInput) {
  test::Sandbox sandbox;
  test::ScopedEnv tz("TZ", "UTC");
  const std::string data = std::string(VORLUND_TESTDATA_DIR) + "/journal/";
  std::string journal = sandbox.path("journal.json");
  test::writeFile(journal, test::readFile(data + "coredump-segv.json") + "{\"MESSAGE\": \n" +
                               test::readFile(data + "oom-kernel.json"));

  auto first = ctl({"faultbin", "import", journal});
  ASSERT_EQ(first.exitStatus, 0) << first.err;
  EXPECT_EQ(first.err, "vorlundctl: line 2: not JSON; skipped\n");
  const std::string root = sandbox.root();
  EXPECT_EQ(first.out,
            root + "/var/mobile/Library/Logs/Faultbin/stress-helper_2026-03-14-092653.ips\n" +
                root + "/Library/Logs/Faultbin/CullerEvent_2026-03-14-124011.ips\n" + root +
                "/var/mobile/Library/Logs/Faultbin/CullerEvent_2026-03-14-125240.ips\n"
                "7 journal entries, 3 reports\n");
  EXPECT_TRUE(test::fileExists(root + "/Library/Logs/Faultbin/CullerEvent_2026-03-14-124011.ips"));

  auto again = test::runChild(
      {"sh", "-c", "exec \"$0\" faultbin import < \"$1\"", VORLUNDCTL_PATH, journal});
  ASSERT_EQ(again.exitStatus, 0) << again.err;
  EXPECT_NE(again.err.find("line 2: not JSON"), std::string::npos);
  EXPECT_NE(again.out.find("stress-helper_2026-03-14-092653.ips (already there)\n"),
            std::string::npos)
      << again.out;
  EXPECT_EQ(again.out.find("-2.ips"), std::string::npos) << again.out;

  auto missing = ctl({"faultbin", "import", sandbox.path("no-such-file")});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_NE(missing.err.find("cannot read"), std::string::npos) << missing.err;
}

}  // namespace
}  // namespace vl
