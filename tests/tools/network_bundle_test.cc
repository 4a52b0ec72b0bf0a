// The network bundle, run by the real vorlundctl from a private device root: its cases measure
// for real or fail with the tool's reason, and each result carries its figures.
#include <gtest/gtest.h>

#include <filesystem>

#include "tools/ctl.h"

namespace vl {
namespace {

using test::ctl;

TEST(NetworkBundleTest, CasesMeasureForRealOrFailWithTheToolsReason) {
  test::Sandbox sandbox;
  const std::string bundles = sandbox.root() + "/BrindleInternal/Library/Bundles/Stress";
  std::filesystem::create_directories(bundles);
  std::filesystem::copy(std::string(VORLUND_SAMPLE_BUNDLE_DIR) + "/NetworkStress.bundle",
                        bundles + "/NetworkStress.bundle",
                        std::filesystem::copy_options::recursive);

  struct Case {
    std::vector<std::string> args;
    int status;
    std::string printed;
  };
  const Case cases[] = {
      {{"run", "Network Ping", "--local", "--option", "Host=127.0.0.1", "--option", "Count=2"},
       0,
       "Network Ping passed"},
      // Nothing listens on port 9 of loopback.
      {{"run", "Network Download", "--local", "--option", "URL=http://127.0.0.1:9/x"},
       1,
       "Network Download failed: Download failed: "},
      {{"run", "Network Download", "--local"},
       1,
       "No URL specified before -[VLHTTPDownload download]"},
      {{"run", "Network Iperf", "--local"}, 1, "Network Iperf failed: No iperf server given"},
  };
  for (const Case& c : cases) {
    auto ran = ctl(c.args);
    EXPECT_EQ(ran.exitStatus, c.status) << c.args[1] << ": " << ran.out << ran.err;
    EXPECT_NE(ran.out.find(c.printed), std::string::npos) << ran.out;
  }

  const Dictionary run = test::shownRun();
  const Dictionary* ping = test::caseNamed(run, "Network Ping");
  ASSERT_NE(ping, nullptr) << run.description();
  const Dictionary* metrics = ping->get("Metrics").asDictionary();
  ASSERT_NE(metrics, nullptr) << ping->description();
  EXPECT_EQ(metrics->get("PacketsReceived").asDictionary()->get("Mean"), Value(2));
  EXPECT_TRUE(metrics->contains("RoundTripAverage"));
}

}  // namespace
}  // namespace vl
