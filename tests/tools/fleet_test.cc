// A fleet of two on one machine, run for real by the fleet demo: the reference manager, and two
// devices each with its own bus, stress service and bridge. One device's test case runs on the
// other through the manager, and the host answers a device's command. The host then collects both
// runs into one fleet folder and looks at them together.
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

  // The host's view of both devices: one aggregate of the two runs, a report and a JUnit file.
  size_t aggregate = demo.out.find("== vorlundctl aggregate");
  ASSERT_NE(aggregate, std::string::npos) << demo.out;
  for (const char* expected : {"2 device(s): FLEET-A, FLEET-B", "Merged results 2",
                               "FindPeers    2 ", "RemoteEcho   1 ", "Echo         1 "}) {
    EXPECT_NE(demo.out.find(expected, aggregate), std::string::npos) << expected << "\n"
                                                                     << demo.out;
  }
  const std::string folder = work.path() + "/fleet/";
  std::string report = readFile(folder + "fleet-report.html");
  EXPECT_NE(report.find("FLEET-B"), std::string::npos);
  EXPECT_EQ(report.find("<script src"), std::string::npos);
  ChildResult valid = runChild({"xmllint", "--noout", "--schema",
                                VORLUND_SOURCE_DIR "/tests/testdata/reports/junit-10.xsd",
                                folder + "fleet-junit.xml"});
  EXPECT_EQ(valid.exitStatus, 0) << valid.err;
  std::string junit = readFile(folder + "fleet-junit.xml");
  EXPECT_NE(junit.find("<testsuite name=\"FLEET-A\""), std::string::npos) << junit;
  EXPECT_NE(junit.find("<testsuite name=\"FLEET-B\""), std::string::npos) << junit;
}

}  // namespace
}  // namespace vl::test
