// vorlundctl measure download|iperf|iperf-server and parse iperf|iperf3|curl|streamperf, run as the
// user runs them against real servers on loopback; each measurement joins the user's run.
#include <gtest/gtest.h>
#include <signal.h>

#include "network/loopback_server.h"
#include "tools/ctl.h"

namespace vl {
namespace {

using test::caseNamed;
using test::ctl;

class VorlundctlThroughputTest : public ::testing::Test {
 protected:
  void TearDown() override {
    // A server that a failed assertion left running goes with the test, and only that one.
    std::string record = test::readFile(sandbox_.home() + "/Library/Caches/vorlund_iperf_server");
    int pid = record.empty() ? 0 : std::stoi(record);
    if (pid > 0 && getpgid(pid) == pid) kill(-pid, SIGKILL);
  }
  static double mean(const Dictionary& run, const std::string& name, const std::string& metric) {
    const Dictionary* statistic = caseNamed(run, name);
    const Dictionary* metrics = statistic ? statistic->get("Metrics").asDictionary() : nullptr;
    const Dictionary* figure = metrics ? metrics->get(metric).asDictionary() : nullptr;
    return figure ? figure->get("Mean").doubleOr(-1) : -1;
  }

  test::Sandbox sandbox_;
  test::ScopedEnv serial_{"VORLUND_SERIAL_NUMBER", "TESTSERIAL1"};
  test::TempDir site_;
};

TEST_F(VorlundctlThroughputTest, MeasurementsAgainstLocalServersJoinTheRun) {
  test::writeFile(site_.file("blob.bin"), std::string(1 << 20, 'x'));
  int httpPort = test::freePort();
  test::ServerProcess http("python3 -m http.server " + std::to_string(httpPort) +
                           " --bind 127.0.0.1 --directory " + site_.path());
  int iperfPort = test::freePort();
  int iperf3Port = test::freePort();
  test::ServerProcess iperf3("iperf3 -s -p " + std::to_string(iperf3Port));
  ASSERT_TRUE(test::waitUntilListening(httpPort));
  ASSERT_TRUE(test::waitUntilListening(iperf3Port));
  std::string base = "http://127.0.0.1:" + std::to_string(httpPort) + "/";

  auto download = ctl({"measure", "download", base + "blob.bin", "--timeout", "30", "--json"});
  ASSERT_EQ(download.exitStatus, 0) << download.out << download.err;
  std::optional<Value> shown = json::parse(download.out);
  ASSERT_TRUE(shown && shown->isDictionary()) << download.out;
  auto missing = ctl({"measure", "download", base + "missing.bin"});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_NE(missing.out.find("Download failed: HTTP status 404"), std::string::npos) << missing.out;

  // The server outlives the command that started it, and stop ends it.
  auto started = ctl({"measure", "iperf-server", "start", "--port", std::to_string(iperfPort)});
  ASSERT_EQ(started.exitStatus, 0) << started.out << started.err;
  ASSERT_TRUE(test::waitUntilListening(iperfPort));
  EXPECT_EQ(
      ctl({"measure", "iperf-server", "start", "--port", std::to_string(iperfPort)}).exitStatus, 1)
      << "one server at a time";
  auto iperf = ctl({"measure", "iperf", "127.0.0.1", "--port", std::to_string(iperfPort),
                    "--listen-port", std::to_string(test::freePort()), "--seconds", "1.5"});
  EXPECT_EQ(iperf.exitStatus, 0) << iperf.out << iperf.err;
  EXPECT_EQ(iperf.out.rfind("Throughput", 0), 0u) << iperf.out;
  auto stopped = ctl({"measure", "iperf-server", "stop"});
  EXPECT_EQ(stopped.exitStatus, 0) << stopped.out << stopped.err;
  EXPECT_FALSE(test::isListening(iperfPort));
  auto again = ctl({"measure", "iperf-server", "stop"});
  EXPECT_EQ(again.exitStatus, 1);
  EXPECT_EQ(again.out, "Iperf Server not running\n");
  EXPECT_TRUE(iperf3.isRunning()) << "stop leaves other iperf servers alone";

  auto udp = ctl({"measure", "iperf", "127.0.0.1", "--iperf3", "--udp", "--seconds", "1", "--port",
                  std::to_string(iperf3Port)});
  EXPECT_EQ(udp.exitStatus, 0) << udp.out << udp.err;

  Dictionary run = test::shownRun();
  EXPECT_GT(mean(run, "Download " + base + "blob.bin", "Throughput"), 0);
  EXPECT_EQ(mean(run, "Download " + base + "blob.bin", "Bytes"), 1 << 20);
  EXPECT_GT(mean(run, "Download " + base + "blob.bin", "DownloadTime"), 0);
  const Dictionary* failed = caseNamed(run, "Download " + base + "missing.bin");
  ASSERT_NE(failed, nullptr);
  EXPECT_EQ(failed->get("FailureRate"), Value(1.0));
  EXPECT_GT(mean(run, "Iperf 127.0.0.1", "Throughput"), 0);
  EXPECT_GT(mean(run, "Iperf3 127.0.0.1", "SentThroughput"), 0);
  EXPECT_GT(mean(run, "Iperf3 127.0.0.1", "ReceivedThroughput"), 0);
  EXPECT_GE(mean(run, "Iperf3 127.0.0.1", "Jitter"), 0);
}

TEST_F(VorlundctlThroughputTest, ParseRecordedOutputAndGarbage) {
  std::string folder = std::string(VORLUND_TESTDATA_DIR) + "/network/throughput/";
  auto iperf = ctl({"parse", "iperf", folder + "iperf2-dual.txt", "--json"});
  EXPECT_EQ(iperf.exitStatus, 0) << iperf.err;
  EXPECT_EQ(json::parse(iperf.out),
            json::parse(R"({"throughput": 4280.0, "figure": "4.28", "unit": "Gbits/sec",
                            "error": null})"))
      << iperf.out;
  auto iperf3 = ctl({"parse", "iperf3", folder + "iperf3-refused.json", "--json"});
  EXPECT_EQ(iperf3.exitStatus, 1);
  EXPECT_NE(iperf3.out.find("\"error\": \"unable to connect to server: Connection refused\""),
            std::string::npos)
      << iperf3.out;
  auto curl = ctl({"parse", "curl", folder + "curl-loopback.txt"});
  EXPECT_EQ(curl.exitStatus, 0);
  EXPECT_EQ(curl.out, "throughput           281.21484756469727\n");

  test::writeFile(site_.file("garbage"), "\x01\x02 not a report\n{");
  for (const char* parser : {"iperf", "iperf3", "curl", "streamperf"}) {
    auto parsed = ctl({"parse", parser, site_.file("garbage")});
    EXPECT_EQ(parsed.exitStatus, 1) << parser;
    EXPECT_NE(parsed.out.find("error: "), std::string::npos) << parser << parsed.out;
  }
  // No file: standard input, empty here.
  EXPECT_EQ(ctl({"parse", "streamperf"}).exitStatus, 1);
  EXPECT_EQ(ctl({"parse", "iperf", site_.file("absent")}).exitStatus, 1);
}

}  // namespace
}  // namespace vl
