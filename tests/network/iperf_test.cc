// VLIperf against real iperf 2 and iperf 3 servers on loopback, on a lowered time scale: the
// client's run and its bound, the in-use and stop rules, the peer-link step, the report files.
#include "vorlund/network/iperf.h"

#include <gtest/gtest.h>

#include <future>

#include "network/loopback_server.h"
#include "support/test_support.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

// The client's link failure leaves the object in use for good.
bool clientLinkFailureSticks(const std::string& outputFile) {
  std::string first, second;
  bool failed = !VLIperf::sharedIperf().StartIperfClientWith("127.0.0.1", false, &first);
  bool refused = !VLIperf::sharedIperf().StartIperfClientWith("127.0.0.1", false, &second);
  return failed && first == "Unable to enable PLNK before starting Iperf client" && refused &&
         second == "Iperf already in use" && !test::fileExists(outputFile);
}

std::string reason(const Error& error) { return error.userInfo.get("Reason").stringOr(""); }

class IperfTest : public ::testing::Test {
 protected:
  void SetUp() override {
    iperf_.setPort(serverPort_);
    iperf_.setDualTestPort(test::freePort());
  }
  void TearDown() override {
    iperf_.StopIperfServer(nullptr);
    iperf_.setPort(0);
    iperf_.setDualTestPort(0);
  }
  std::string reportFile(const char* path) const { return sandbox_.root() + path; }

  test::Sandbox sandbox_;
  time::ScopedScale scale_{0.02};  // 120 s of client run become 2.4 s, its 150 s bound 3 s
  int serverPort_ = test::freePort();
  VLIperf& iperf_ = VLIperf::sharedIperf();
};

// The object's own server serves a client; while the client runs, everything else is refused;
// stop then ends that server and no other iperf server of the machine.
TEST_F(IperfTest, ClientAgainstItsOwnServerWithTheInUseAndStopRules) {
  Error error;
  EXPECT_FALSE(iperf_.StopIperfServer(&error));
  EXPECT_EQ(reason(error), "Iperf Server not running");
  int strangerPort = test::freePort();
  test::ServerProcess stranger("iperf -s -p " + std::to_string(strangerPort));
  ASSERT_TRUE(test::waitUntilListening(strangerPort));
  ASSERT_TRUE(iperf_.StartIperfServer(&error)) << error.description();
  ASSERT_TRUE(test::waitUntilListening(serverPort_));
  int32_t pid = iperf_.childProcessIdentifier();
  EXPECT_EQ(getpgid(pid), pid);

  LogCapture capture;
  std::string text;
  auto client = std::async(std::launch::async,
                           [&] { return iperf_.StartIperfClientWith("127.0.0.1", false, &text); });
  while (iperf_.childProcessIdentifier() == pid &&
         client.wait_for(std::chrono::milliseconds(5)) == std::future_status::timeout) {
  }
  ASSERT_NE(iperf_.childProcessIdentifier(), pid) << "the client never ran";
  EXPECT_EQ(iperf_.runIperf3Client("127.0.0.1", false).error, "Iperf already in use");
  EXPECT_FALSE(iperf_.StartIperfServer(&error));
  EXPECT_EQ(reason(error), "Iperf already in use");
  EXPECT_FALSE(iperf_.StopIperfServer(&error));
  EXPECT_EQ(reason(error), "Currently running Iperf client");
  ASSERT_TRUE(client.get()) << text;
  EXPECT_GT(std::stod(text), 0);

  std::string command = "iperf -c 127.0.0.1 -d -i 1 -t 2.4 -p " + std::to_string(serverPort_) +
                        " -L " + std::to_string(iperf_.dualTestPort());
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Default",
                               "Starting iperf client now with: \"" + command + "\""));
  std::string output = test::readFile(reportFile(kVLIperfOutputFile));
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Default", "iperf Output was \n" + output));
  IperfClientReading reading = readIperfClientOutput(output, "");
  EXPECT_EQ(reading.text, text);
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Default", vl::format("idx is %ld", reading.idx)));
  EXPECT_EQ(capture.count("Output of brindle80211 was "), 0u) << "no link command, no link step";

  EXPECT_TRUE(iperf_.StopIperfServer(&error));
  EXPECT_EQ(iperf_.childProcessIdentifier(), 0);
  EXPECT_FALSE(test::isListening(serverPort_));
  EXPECT_TRUE(test::isListening(strangerPort));
  EXPECT_FALSE(iperf_.StopIperfServer(&error));
}

TEST_F(IperfTest, ClientFailuresComeFromItsErrorFileOrItsBound) {
  // An unknown host prints no report: the error file's text is the answer.
  std::string text;
  EXPECT_FALSE(iperf_.StartIperfClientWith("no.such.host.invalid", true, &text));
  EXPECT_EQ(text, test::readFile(reportFile(kVLIperfErrorFile)));
  EXPECT_NE(text.find("no.such.host.invalid"), std::string::npos) << text;

  // Connections are accepted and never read: the client blocks on a full socket past its -t, and
  // would for good; the bound kills it before any final report line.
  test::SilentServer silent;
  iperf_.setPort(silent.port());
  auto started = std::chrono::steady_clock::now();
  iperf_.StartIperfClientWith("127.0.0.1", false, &text);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
  EXPECT_EQ(test::readFile(reportFile(kVLIperfOutputFile)).find("0.0000-2."), std::string::npos);
  EXPECT_FALSE(iperf_.isInUse());
}

// Without a length of its own the run follows the time scale, rounded up to whole seconds.
TEST_F(IperfTest, Iperf3ClientReportsUdpJitter) {
  test::ServerProcess server("iperf3 -s -p " + std::to_string(serverPort_));
  ASSERT_TRUE(test::waitUntilListening(serverPort_));
  Iperf3Summary udp = iperf_.runIperf3Client("127.0.0.1", false,
                                             {.udp = true, .udpBitsPerSecond = 5e6, .seconds = {}});
  EXPECT_EQ(udp.error, std::nullopt);
  EXPECT_NEAR(udp.sentBitsPerSecond.value_or(0), 5e6, 1e6);
  EXPECT_TRUE(udp.jitterMilliseconds.has_value());
}

TEST_F(IperfTest, PeerLinkCommandGatesTheRun) {
  VLSavePreference(Value("echo link up"), kVLPeerLinkCommandPreference);
  LogCapture capture;
  EXPECT_TRUE(iperf_.EnablePLNKDiscovery());
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Default", "Output of brindle80211 was link up\n"));

  VLSavePreference(Value("echo no radio >&2; exit 3"), kVLPeerLinkCommandPreference);
  Error error;
  EXPECT_FALSE(iperf_.StartIperfServer(&error));
  EXPECT_EQ(reason(error), "Unable to enable PLNK before starting Iperf server");
  EXPECT_FALSE(iperf_.isInUse());

  // A child process keeps the stuck in-use flag from the other tests.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(clientLinkFailureSticks(reportFile(kVLIperfOutputFile)) ? 0 : 1),
              ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vl
