// The throughput parsers against recorded real outputs of iperf 2, iperf 3 and curl, and the
// stream-performance report line; table-style, one row per recording.
#include "vorlund/network/throughput_parsers.h"

#include <gtest/gtest.h>

#include <optional>

#include "support/test_support.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/network/iperf_output.h"

namespace vl {
namespace {

std::string recorded(const std::string& name) {
  return test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/network/throughput/" + name);
}

TEST(IperfClientOutput, RecordedRunsAndTheLineRules) {
  const struct {
    std::string output, errors;
    bool succeeded;
    std::string text;
    std::optional<double> megabits;
  } rows[] = {
      {recorded("iperf2-dual.txt"), "", true, "4.28", 4280},
      {recorded("iperf2-dual-same-port.txt"), recorded("iperf2-dual-same-port.err"), true, "3.07",
       3070},
      {recorded("iperf2-ipv6-no-reverse.txt"), "", true, "10.8", 10800},
      // The return listener's banner is the last line: a dash rule, one part.
      {recorded("iperf2-refused.txt"), recorded("iperf2-refused.err"), false,
       "Malformed throughput line", std::nullopt},
      {"", recorded("iperf2-unknown-host.err"), false, "no.such.host.invalid: Unknown host\n",
       std::nullopt},
      // Runs of blanks give empty parts, which count for the index.
      {"a\nb\n[  3]  0.0-10.0 sec   112 MBytes  94.1 Mbits/sec\n", "", true, "94.1", 94.1},
      // Two lines and the final line feed are only three parts: one line more is needed.
      {"one\n", "err text", false, "err text", std::nullopt},
      // Without a final line feed the last line is not the one read.
      {"a\n1 2 3 Mbits/sec\nx y", "", true, "3", 3},
      {"a\nb\nabc 5 furlongs\n", "", true, "5", std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.output);
    IperfClientReading reading = readIperfClientOutput(row.output, row.errors);
    EXPECT_EQ(reading.succeeded, row.succeeded);
    EXPECT_EQ(reading.text, row.text);
    EXPECT_NEAR(iperfMegabitsPerSecond(reading).value_or(-1), row.megabits.value_or(-1), 1e-6);
  }
}

TEST(Iperf3Output, RecordedReports) {
  const struct {
    const char* name;
    std::optional<double> sent, received;
    std::optional<int64_t> retransmits;
    std::optional<double> jitter;
    std::optional<std::string> error;
  } rows[] = {
      {"iperf3-tcp.json", 5856010557.319967, 5820793486.660934, 3, {}, {}},
      {"iperf3-tcp-ipv6.json", 7578478098.984475, 7537682743.145363, 0, {}, {}},
      {"iperf3-udp.json", 10222736.84463136, 10220437.44395493, {}, 0.485742600898412, {}},
      // The receiver's jitter is nan; the stream sum's figure stands in.
      {"iperf3-udp-nan.json", 10222736.84463136, 10220437.44395493, {}, 0.485742600898412, {}},
      {"iperf3-udp-interrupted.json", 26216.654632298378, 0, std::nullopt, 0,  // ended by SIGTERM
       "interrupt - the client has terminated"},
      {"iperf3-refused.json", {}, {}, {}, {}, "unable to connect to server: Connection refused"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Iperf3Summary summary = parseIperf3Output(recorded(row.name));
    EXPECT_EQ(summary.sentBitsPerSecond, row.sent);
    EXPECT_EQ(summary.receivedBitsPerSecond, row.received);
    EXPECT_EQ(summary.retransmits, row.retransmits);
    EXPECT_EQ(summary.jitterMilliseconds, row.jitter);
    EXPECT_EQ(summary.udp, row.jitter.has_value());
    EXPECT_EQ(summary.error, row.error);
  }
  EXPECT_EQ(parseIperf3Output("iperf3: error - unable to connect").error,
            "Unreadable iperf3 output");
  EXPECT_EQ(parseIperf3Output(R"({"start": {}})").error, "No totals in the iperf3 output");
  // Not-a-number words become null outside strings; inside strings and in longer names they stay.
  EXPECT_EQ(nullNonNumbersInJson(
                R"({"a": -nan, "b":nan,"c": -inf, "d": Infinity, "e": NaN, "f": -nan(0x8000)})"),
            R"({"a": null, "b":null,"c": null, "d": null, "e": null, "f": null})");
  EXPECT_EQ(nullNonNumbersInJson(R"({"nan": "say \"nan\" inf", "x": nanny})"),
            R"({"nan": "say \"nan\" inf", "x": nanny})");
}

TEST(CurlAndStreamPerfOutput, FigureOfTheReportLine) {
  const std::pair<std::string, double> curl[] = {
      {recorded("curl-loopback.txt"), 294875140 / 1048576.0},
      {recorded("curl-refused.txt"), 0},
      {"1048576", 0},
      // A leading blank makes the first part empty.
      {" 2097152 1.0", 2.0},
      {"0.5 junk", 0},
      {"0.5 3145728bytes", 3.0},
  };
  for (const auto& [output, megabytes] : curl) {
    EXPECT_DOUBLE_EQ(VLGetThroughputFromCurlOutput(output), megabytes) << output;
  }
  const struct {
    std::string output;
    double throughput;
    bool logsFailure;
  } streamPerf[] = {
      {recorded("streamperf-over-range.txt"), 120.5, true},
      {recorded("streamperf-crlf.txt"), 87.25, false},
      {"Peak: 5\nno average here", 0, true},
      {"Average Throughput: -3 Mbps", -3, true},
      // Letters go first, so a unit's digits join the figure; quotes and colons go too.
      {"x Average Throughput:'5'0 Mbps\nAverage Throughput: 1", 50, false},
  };
  for (const auto& row : streamPerf) {
    LogCapture capture;
    EXPECT_DOUBLE_EQ(VLGetThroughputForStreamPerfOutput(row.output), row.throughput) << row.output;
    EXPECT_EQ(capture.contains(VLLogLevelError, "Default", "Failing throughput from " + row.output),
              row.logsFailure)
        << row.output;
  }
}

}  // namespace
}  // namespace vl
