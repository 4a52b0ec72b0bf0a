// VLIperf against real iperf 2 and iperf 3 servers on loopback, on a lowered time scale: the
// client's run and its bound, the in-use and stop rules, the peer-link step, the report files.
#include "vorlund/network/iperf.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "network/loopback_server.h"
#include "support/test_support.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

// 120 s of client run become 2.4 s, its 150 s bound 3 s.
constexpr double kScale = 0.02;

// The client's link failure leaves the object in use for good.
bool clientLinkFailureSticks(const std::string& outputFile) {
  std::string first, second;
  bool failed = !VLIperf::sharedIperf().StartIperfClientWith("127.0.0.1", false, &first);
  bool refused = !VLIperf::sharedIperf().StartIperfClientWith("127.0.0.1", false, &second);
  return failed && first == "Unable to enable PLNK before starting Iperf client" && refused &&
         second == "Iperf already in use" && !test::fileExists(outputFile);
}

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
  time::ScopedScale scale_{kScale};
  int serverPort_ = test::freePort();
  VLIperf& iperf_ = VLIperf::sharedIperf();
};

TEST_F(IperfTest, ClientRunAgainstARealServerReportsTheLastLinesFigure) {
  test::ServerProcess server("iperf -s -p " + std::to_string(serverPort_));
  ASSERT_TRUE(test::waitUntilListening(serverPort_));
  LogCapture capture;
  std::string text;
  ASSERT_TRUE(iperf_.StartIperfClientWith("127.0.0.1", false, &text)) << text;
  EXPECT_GT(std::stod(text), 0);
  EXPECT_FALSE(iperf_.isInUse());

  std::string command = "iperf -c 127.0.0.1 -d -i 1 -t 2.4 -p " + std::to_string(serverPort_) +
                        " -L " + std::to_string(iperf_.dualTestPort());
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Default",
                               "Starting iperf client now with: \"" + command + "\""));
  std::string output = test::readFile(reportFile(kVLIperfOutputFile));
  EXPECT_NE(output.find("Client connecting to 127.0.0.1"), std::string::npos) << output;
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Default", "iperf Output was \n" + output));
  IperfClientReading reading = readIperfClientOutput(output, "");
  EXPECT_EQ(reading.text, text);
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Default", vl::format("idx is %ld", reading.idx)));
  EXPECT_EQ(capture.count("Output of brindle80211 was "), 0u) << "no link command, no link step";
}

TEST_F(IperfTest, ClientFailureComesFromItsErrorFile) {
  // An unknown host prints no report: the error file's text is the answer.
  std::string text;
  EXPECT_FALSE(iperf_.StartIperfClientWith("no.such.host.invalid", true, &text));
  EXPECT_EQ(text, test::readFile(reportFile(kVLIperfErrorFile)));
  EXPECT_NE(text.find("no.such.host.invalid"), std::string::npos) << text;
  EXPECT_FALSE(iperf_.isInUse());
}

TEST_F(IperfTest, ClientThatOutlivesItsBoundIsKilled) {
  // Connections are accepted and never read: the client blocks on a full socket past its -t, and
  // would for good; its report is whatever it wrote by then.
  test::SilentServer silent;
  iperf_.setPort(silent.port());
  auto started = std::chrono::steady_clock::now();
  std::string text;
  iperf_.StartIperfClientWith("127.0.0.1", false, &text);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
  EXPECT_EQ(test::readFile(reportFile(kVLIperfOutputFile)).find("0.0000-2."), std::string::npos)
      << "no final report line";
  EXPECT_FALSE(iperf_.isInUse());
}

TEST_F(IperfTest, InUseAndStopRulesWhileAClientRuns) {
  test::ServerProcess server("iperf -s -p " + std::to_string(serverPort_));
  ASSERT_TRUE(test::waitUntilListening(serverPort_));
  auto client = std::async(std::launch::async, [this] {
    std::string text;
    return iperf_.StartIperfClientWith("127.0.0.1", false, &text);
  });
  while (iperf_.childProcessIdentifier() == 0 &&
         client.wait_for(std::chrono::milliseconds(5)) == std::future_status::timeout) {
  }
  ASSERT_NE(iperf_.childProcessIdentifier(), 0);

  std::string text;
  EXPECT_FALSE(iperf_.StartIperfClientWith("127.0.0.1", false, &text));
  EXPECT_EQ(text, "Iperf already in use");
  EXPECT_EQ(iperf_.runIperf3Client("127.0.0.1", false).error, "Iperf already in use");
  Error error;
  EXPECT_FALSE(iperf_.StartIperfServer(&error));
  EXPECT_EQ(error.userInfo.get("Reason"), Value("Iperf already in use"));
  EXPECT_FALSE(iperf_.StopIperfServer(&error));
  EXPECT_EQ(error.userInfo.get("Reason"), Value("Currently running Iperf client"));
  EXPECT_EQ(error.domain, "com.brindle.Vorlund");
  EXPECT_EQ(error.code, 1);
  EXPECT_TRUE(client.get()) << "the client was left to finish";
}

TEST_F(IperfTest, StopEndsOnlyTheServerThisObjectStarted) {
  Error error;
  EXPECT_FALSE(iperf_.StopIperfServer(&error));
  EXPECT_EQ(error.userInfo.get("Reason"), Value("Iperf Server not running"));

  // Another iperf server of the machine, not ours: it must survive the stop.
  int strangerPort = test::freePort();
  test::ServerProcess stranger("iperf -s -p " + std::to_string(strangerPort));
  ASSERT_TRUE(test::waitUntilListening(strangerPort));

  ASSERT_TRUE(iperf_.StartIperfServer(&error)) << error.description();
  ASSERT_TRUE(test::waitUntilListening(serverPort_));
  int32_t pid = iperf_.childProcessIdentifier();
  EXPECT_EQ(getpgid(pid), pid);
  std::string text;
  EXPECT_TRUE(iperf_.StartIperfClientWith("127.0.0.1", false, &text)) << text;

  EXPECT_TRUE(iperf_.StopIperfServer(&error));
  EXPECT_EQ(iperf_.childProcessIdentifier(), 0);
  EXPECT_FALSE(test::isListening(serverPort_));
  EXPECT_TRUE(stranger.isRunning());
  EXPECT_TRUE(test::isListening(strangerPort));
  EXPECT_FALSE(iperf_.StopIperfServer(&error));
}

TEST_F(IperfTest, Iperf3ClientReportsBothDirectionsAndUdpJitter) {
  test::ServerProcess server("iperf3 -s -p " + std::to_string(serverPort_));
  ASSERT_TRUE(test::waitUntilListening(serverPort_));
  Iperf3Summary tcp = iperf_.runIperf3Client("127.0.0.1", false, {.seconds = 1});
  EXPECT_EQ(tcp.error, std::nullopt);
  EXPECT_GT(tcp.sentBitsPerSecond.value_or(0), 0);
  EXPECT_GT(tcp.receivedBitsPerSecond.value_or(0), 0);
  EXPECT_TRUE(tcp.retransmits.has_value());
  EXPECT_FALSE(tcp.jitterMilliseconds.has_value());

  Iperf3Summary udp = iperf_.runIperf3Client(
      "127.0.0.1", false, {.udp = true, .udpBitsPerSecond = 5e6, .seconds = std::nullopt});
  EXPECT_EQ(udp.error, std::nullopt);
  EXPECT_TRUE(udp.udp);
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
  EXPECT_EQ(error.userInfo.get("Reason"),
            Value("Unable to enable PLNK before starting Iperf server"));
  EXPECT_FALSE(iperf_.isInUse());

  // A child process keeps the stuck in-use flag from the other tests.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(clientLinkFailureSticks(reportFile(kVLIperfOutputFile)) ? 0 : 1),
              ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vl
