// A fleet of two on one machine, run for real by the fleet demo: the reference manager, and two
// devices each with its own bus, stress service and bridge. One device's test case runs on the
// other through the manager, and the host answers a device's command.
#include <gtest/gtest.h>

#include <string>

#include "support/child_process.h"
#include "support/test_support.h"

namespace vl::test {
namespace {

TEST(FleetTest, ATestCaseOfOneDeviceRunsOnTheOtherThroughTheManager) {
  TempDir work;
  // The demo stops everything it started when it ends; timeout ends the demo if it hangs.
  ChildResult demo = runChild({"timeout", "--kill-after=10", "240", "bash",
                               VORLUND_SOURCE_DIR "/scripts/demo-fleet.sh", VORLUND_BINARY_DIR,
                               work.path() + "/fleet"});
  ASSERT_EQ(demo.exitStatus, 0) << demo.out << demo.err;

  for (const char* expected :
       {"[1/1] FindPeers passed", "[1/1] RemoteEcho passed", "[1/1] KingCommand passed",
        "\"RequestingDevice\": \"FLEET-A\"", "\"SerialNumber\": \"FLEET-B\""}) {
    EXPECT_NE(demo.out.find(expected), std::string::npos) << expected << "\n" << demo.out;
  }
  // Device B's run holds the Echo that device A asked for, and only B's.
  size_t runOfB = demo.out.find("== Device B: vorlundctl results show");
  ASSERT_NE(runOfB, std::string::npos);
  EXPECT_NE(demo.out.find("  Echo ", runOfB), std::string::npos) << demo.out;
  EXPECT_EQ(demo.out.find("  Echo "), demo.out.find("  Echo ", runOfB)) << demo.out;
  // Neither run took an issue (an invalid result, a test case no bundle offers).
  size_t firstClean = demo.out.find("Issues (0)");
  ASSERT_NE(firstClean, std::string::npos) << demo.out;
  EXPECT_NE(demo.out.find("Issues (0)", firstClean + 1), std::string::npos) << demo.out;
}

}  // namespace
}  // namespace vl::test
