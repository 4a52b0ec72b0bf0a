// vorlundctl's network commands as the user runs them: measure against real servers on loopback,
// each measurement joining the user's run, and parse over recorded outputs and garbage.
#include <gtest/gtest.h>
#include <signal.h>

#include "network/loopback_server.h"
#include "tools/ctl.h"

namespace vl {
namespace {

using test::ctl;

class VorlundctlNetworkTest : public ::testing::Test {
 protected:
  void TearDown() override {
    // A server that a failed assertion left running goes with the test, and only that one.
    std::string record = test::readFile(sandbox_.home() + "/Library/Caches/vorlund_iperf_server");
    int pid = record.empty() ? 0 : std::stoi(record);
    if (pid > 0 && getpgid(pid) == pid) kill(-pid, SIGKILL);
  }
  // A figure of the named case in the run (Mean of a metric, or FailureRate), -1 when missing.
  static double figure(const Dictionary& run, const std::string& name, const std::string& metric) {
    const Dictionary* statistic = test::caseNamed(run, name);
    if (statistic && metric == "FailureRate") return statistic->get(metric).doubleOr(-1);
    const Dictionary* metrics = statistic ? statistic->get("Metrics").asDictionary() : nullptr;
    const Dictionary* figure = metrics ? metrics->get(metric).asDictionary() : nullptr;
    return figure ? figure->get("Mean").doubleOr(-1) : -1;
  }

  test::Sandbox sandbox_;
  test::ScopedEnv serial_{"VORLUND_SERIAL_NUMBER", "TESTSERIAL1"};
  test::TempDir site_;
};

TEST_F(VorlundctlNetworkTest, MeasurementsAgainstLocalServersJoinTheRun) {
  test::writeFile(site_.file("blob.bin"), std::string(1 << 20, 'x'));
  int httpPort = test::freePort();
  test::ServerProcess http("python3 -m http.server " + std::to_string(httpPort) +
                           " --bind 127.0.0.1 --directory " + site_.path());
  std::string iperfPort = std::to_string(test::freePort());
  int iperf3Port = test::freePort();
  test::ServerProcess iperf3("iperf3 -s -p " + std::to_string(iperf3Port));
  ASSERT_TRUE(test::waitUntilListening(httpPort));
  ASSERT_TRUE(test::waitUntilListening(iperf3Port));
  std::string blob = "http://127.0.0.1:" + std::to_string(httpPort) + "/blob.bin";

  auto ping = ctl({"measure", "ping", "127.0.0.1", "--count", "3", "--interval", "0.2"});
  ASSERT_EQ(ping.exitStatus, 0) << ping.out << ping.err;
  EXPECT_NE(ping.out.find("Ping 127.0.0.1 recorded\n"), std::string::npos) << ping.out;
  // A host that does not resolve is a failed measurement with the tool's reason.
  auto unresolved = ctl({"measure", "ping", "no-such-host.invalid", "--count", "1", "--json"});
  EXPECT_EQ(unresolved.exitStatus, 1);
  EXPECT_NE(unresolved.out.find("Ping output did not include ping statistics"), std::string::npos)
      << unresolved.out;
  auto download = ctl({"measure", "download", blob, "--timeout", "30", "--json"});
  ASSERT_EQ(download.exitStatus, 0) << download.out << download.err;
  auto missing = ctl({"measure", "download", blob + ".missing"});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_NE(missing.out.find("Download failed: HTTP status 404"), std::string::npos) << missing.out;

  // The server outlives the command that started it, one at a time, and stop ends it.
  auto started = ctl({"measure", "iperf-server", "start", "--port", iperfPort});
  ASSERT_EQ(started.exitStatus, 0) << started.out << started.err;
  ASSERT_TRUE(test::waitUntilListening(std::stoi(iperfPort)));
  EXPECT_EQ(ctl({"measure", "iperf-server", "start", "--port", iperfPort}).exitStatus, 1);
  auto iperf = ctl({"measure", "iperf", "127.0.0.1", "--port", iperfPort, "--listen-port",
                    std::to_string(test::freePort()), "--seconds", "1.5"});
  EXPECT_EQ(iperf.out.rfind("Throughput", 0), 0u) << iperf.out << iperf.err;
  EXPECT_EQ(ctl({"measure", "iperf-server", "stop"}).exitStatus, 0);
  EXPECT_FALSE(test::isListening(std::stoi(iperfPort)));
  EXPECT_EQ(ctl({"measure", "iperf-server", "stop"}).out, "Iperf Server not running\n");
  EXPECT_TRUE(iperf3.isRunning()) << "stop leaves other iperf servers alone";
  auto udp = ctl({"measure", "iperf", "127.0.0.1", "--iperf3", "--udp", "--seconds", "1", "--port",
                  std::to_string(iperf3Port)});
  EXPECT_EQ(udp.exitStatus, 0) << udp.out << udp.err;

  Dictionary run = test::shownRun();
  EXPECT_EQ(figure(run, "Ping 127.0.0.1", "PacketsReceived"), 3);
  EXPECT_GT(figure(run, "Ping 127.0.0.1", "RoundTripAverage"), 0);
  EXPECT_EQ(figure(run, "Ping no-such-host.invalid", "FailureRate"), 1);
  EXPECT_EQ(figure(run, "Download " + blob, "Bytes"), 1 << 20);
  EXPECT_GT(figure(run, "Download " + blob, "Throughput"), 0);
  EXPECT_EQ(figure(run, "Download " + blob + ".missing", "FailureRate"), 1);
  EXPECT_GT(figure(run, "Iperf 127.0.0.1", "Throughput"), 0);
  EXPECT_GT(figure(run, "Iperf3 127.0.0.1", "ReceivedThroughput"), 0);
  EXPECT_GE(figure(run, "Iperf3 127.0.0.1", "Jitter"), 0);
}

TEST_F(VorlundctlNetworkTest, ParseRecordedOutputAndGarbage) {
  std::string ping = std::string(VORLUND_TESTDATA_DIR) + "/network/ping/";
  std::string tp = std::string(VORLUND_TESTDATA_DIR) + "/network/throughput/";
  std::string garbage = site_.file("garbage");
  test::writeFile(garbage, "\x01\xff--- x statistics ---\nnot a summary\n{");
  // Each parser's figures as one JSON object or as lines, and its error for garbage.
  const struct {
    const char* parser;
    std::string file;
    bool json;
    int status;
    const char* shown;
  } rows[] = {
      {"ping", ping + "busybox-loopback.txt", true, 0, "0.062,\n  \"roundTripStdDev\": null,"},
      {"iperf", tp + "iperf2-dual.txt", true, 0, "4280.0,\n  \"figure\": \"4.28\","},
      {"iperf3", tp + "iperf3-refused.json", true, 1,
       "\"error\": \"unable to connect to server: Connection refused\""},
      {"curl", tp + "curl-loopback.txt", false, 0, "throughput           281.21484756469727\n"},
      {"ping", garbage, true, 1,
       "\"error\": \"Ping output did not have packets transmitted/received correctly displayed\""},
      {"iperf", garbage, false, 1, "error: Unreadable throughput figure: a summary\n"},
      {"iperf3", garbage, false, 1, "error: Unreadable iperf3 output\n"},
      {"curl", garbage, false, 1, "error: No throughput in the curl output\n"},
      {"streamperf", garbage, false, 1, "error: Failing throughput\n"},
      {"ping", site_.file("missing"), false, 1, "vorlundctl: cannot read "},
  };
  for (const auto& row : rows) {
    auto parsed = row.json ? ctl({"parse", row.parser, row.file, "--json"})
                           : ctl({"parse", row.parser, row.file});
    EXPECT_EQ(parsed.exitStatus, row.status) << row.parser << " " << row.file;
    EXPECT_NE((parsed.out + parsed.err).find(row.shown), std::string::npos) << parsed.out;
  }
  EXPECT_EQ(ctl({"parse", "streamperf"}).exitStatus, 1) << "no file: standard input, empty here";
}

}  // namespace
}  // namespace vl
