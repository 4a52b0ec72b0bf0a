// The ping summary parser over recorded outputs of iputils, BusyBox, macOS and FreeBSD, and over
// summaries broken in the ways that each error names.
#include "vorlund/network/ping_summary.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/test_support.h"

namespace vl::network {
namespace {

constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

struct Expected {
  int64_t transmitted, received;
  double loss, min, avg, max, stddev;
  const char* failure;  // nullptr when the summary parses whole
};

void expectSummary(const PingSummary& summary, const Expected& e) {
  const VLPingStatistics& s = summary.statistics;
  EXPECT_EQ(summary.failure.value_or(""), e.failure ? e.failure : "");
  EXPECT_EQ(s.packetsTransmitted, e.transmitted);
  EXPECT_EQ(s.packetsReceived, e.received);
  EXPECT_DOUBLE_EQ(s.packetLoss, e.loss);
  EXPECT_DOUBLE_EQ(s.roundTripMin, e.min);
  EXPECT_DOUBLE_EQ(s.roundTripAverage, e.avg);
  EXPECT_DOUBLE_EQ(s.roundTripMax, e.max);
  if (std::isnan(e.stddev)) {
    EXPECT_FALSE(hasRoundTripStdDev(s)) << s.roundTripStdDev;
  } else {
    EXPECT_DOUBLE_EQ(s.roundTripStdDev, e.stddev);
  }
}

std::string recorded(const std::string& name) {
  return test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/network/ping/" + name);
}

TEST(PingSummary, RecordedOutputsOfEveryPing) {
  const struct {
    const char* file;
    Expected expected;
  } cases[] = {
      {"iputils-loopback.txt", {4, 4, 0, 0.036, 0.072, 0.180, 0.062, nullptr}},
      {"iputils-loopback-quiet.txt", {4, 4, 0, 0.014, 0.031, 0.038, 0.010, nullptr}},
      {"iputils-ipv6-loopback.txt", {3, 3, 0, 0.039, 0.078, 0.155, 0.054, nullptr}},
      // "rtt ... ms, ipg/ewma 0.007/0.003 ms": the extra pair is not a fifth time.
      {"iputils-flood-quiet.txt", {50, 50, 0, 0.003, 0.003, 0.019, 0.002, nullptr}},
      {"iputils-duplicates.txt", {3, 2, 33.3333, 0.388, 0.854, 1.318, 0.450, nullptr}},
      {"iputils-unreachable.txt", {3, 0, 100, 0, 0, 0, 0, kPingAllLost}},
      {"iputils-host-unreachable.txt", {5, 0, 100, 0, 0, 0, 0, kPingAllLost}},
      {"iputils-ipv6-unreachable.txt", {5, 0, 100, 0, 0, 0, 0, kPingAllLost}},
      {"iputils-unknown-host.txt", {0, 0, 100, 0, 0, 0, 0, kPingNoStatistics}},
      {"busybox-loopback.txt", {3, 3, 0, 0.041, 0.053, 0.062, kNone, nullptr}},
      {"busybox-loopback-quiet.txt", {3, 3, 0, 0.021, 0.046, 0.060, kNone, nullptr}},
      {"busybox-ipv6-loopback.txt", {3, 3, 0, 0.047, 0.057, 0.062, kNone, nullptr}},
      {"busybox-unreachable.txt", {3, 0, 100, 0, 0, 0, 0, kPingAllLost}},
      {"macos-loopback.txt", {3, 3, 0, 0.045, 0.080, 0.110, 0.027, nullptr}},
      {"macos-ping6-loopback.txt", {3, 3, 0, 0.066, 0.113, 0.137, 0.033, nullptr}},
      {"macos-quiet-partial-loss.txt", {10, 9, 10, 1.721, 3.482, 9.114, 2.087, nullptr}},
      {"macos-request-timeout.txt", {3, 0, 100, 0, 0, 0, 0, kPingAllLost}},
      {"macos-host-unreachable.txt", {2, 1, 50, 4.312, 4.312, 4.312, 0, nullptr}},
      {"freebsd-duplicates.txt", {2, 2, 0, 0.398, 0.848, 1.377, 0.442, nullptr}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    std::string text = recorded(c.file);
    ASSERT_FALSE(text.empty());
    expectSummary(parsePingSummary(text), c.expected);
  }
}

// A recorded summary damaged where each error looks: every error keeps what was read before it.
TEST(PingSummary, BrokenSummariesFailWithTheirReasonAndKeepWhatWasRead) {
  std::string good = recorded("iputils-loopback-quiet.txt");
  auto edited = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
  };
  const struct {
    std::string text;
    Expected expected;
  } cases[] = {
      {edited("statistics ---", "statistics"), {0, 0, 100, 0, 0, 0, 0, kPingNoStatistics}},
      {edited(", 0% packet loss", ""), {0, 0, 100, 0, 0, 0, 0, kPingNoCounts}},
      {edited("4 packets transmitted", "-4 packets transmitted"),
       {0, 0, 100, 0, 0, 0, 0, kPingNoCounts}},
      {edited("rtt min", "rtt"), {4, 4, 0, 0, 0, 0, 0, kPingNoRoundTrip}},
      {edited("/0.010 ms", " ms"), {4, 4, 0, 0, 0, 0, 0, kPingNoRoundTrip}},
      {edited("0.031", "nan"), {4, 4, 0, 0, 0, 0, 0, kPingNoRoundTrip}},
      // Windows line ends and a missing final line feed change nothing.
      {std::string("--- h ping statistics ---\r\n1 packets transmitted, 1 packets received, 0% "
                   "packet loss\r\nround-trip min/avg/max/std-dev = 1.5/2.5/3.5/0.5 ms"),
       {1, 1, 0, 1.5, 2.5, 3.5, 0.5, nullptr}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    expectSummary(parsePingSummary(c.text), c.expected);
  }
}

}  // namespace
}  // namespace vl::network
