// The ping summary parser over recorded outputs of iputils, BusyBox, macOS and FreeBSD, and over
// summaries broken in the ways that each error names.
#include "vorlund/network/ping_summary.h"

#include <gtest/gtest.h>

#include <cmath>

#include "support/test_support.h"

namespace vl::network {
namespace {

struct Expected {
  double transmitted, received, loss, min, avg, max, stddev;
  const char* failure;  // nullptr when the summary parses whole
};

void expectSummary(const std::string& text, const Expected& e) {
  PingSummary summary = parsePingSummary(text);
  const VLPingStatistics& s = summary.statistics;
  EXPECT_EQ(summary.failure.value_or(""), e.failure ? e.failure : "");
  EXPECT_EQ((std::vector<double>{double(s.packetsTransmitted), double(s.packetsReceived),
                                 s.packetLoss, s.roundTripMin, s.roundTripAverage, s.roundTripMax}),
            (std::vector<double>{e.transmitted, e.received, e.loss, e.min, e.avg, e.max}));
  EXPECT_EQ(hasRoundTripStdDev(s), !std::isnan(e.stddev));
  if (hasRoundTripStdDev(s)) {
    EXPECT_DOUBLE_EQ(s.roundTripStdDev, e.stddev);
  }
}

std::string recorded(const std::string& name) {
  return test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/network/ping/" + name);
}

TEST(PingSummary, RecordedOutputsOfEveryPingAndBrokenSummaries) {
  // A recorded summary damaged where each error looks: every error keeps what was read before it.
  const std::string good = recorded("iputils-loopback-quiet.txt");
  auto edited = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
  };
  const std::pair<std::string, Expected> cases[] = {
      {recorded("iputils-loopback.txt"), {4, 4, 0, 0.036, 0.072, 0.180, 0.062, nullptr}},
      {recorded("iputils-ipv6-loopback.txt"), {3, 3, 0, 0.039, 0.078, 0.155, 0.054, nullptr}},
      // "rtt ... ms, ipg/ewma 0.007/0.003 ms": the extra pair is not a fifth time.
      {recorded("iputils-flood-quiet.txt"), {50, 50, 0, 0.003, 0.003, 0.019, 0.002, nullptr}},
      {recorded("iputils-duplicates.txt"), {3, 2, 33.3333, 0.388, 0.854, 1.318, 0.450, nullptr}},
      {recorded("iputils-unreachable.txt"), {3, 0, 100, 0, 0, 0, 0, kPingAllLost}},
      {recorded("iputils-ipv6-unreachable.txt"), {5, 0, 100, 0, 0, 0, 0, kPingAllLost}},
      {recorded("iputils-host-unreachable.txt"), {5, 0, 100, 0, 0, 0, 0, kPingAllLost}},
      {recorded("iputils-unknown-host.txt"), {0, 0, 100, 0, 0, 0, 0, kPingNoStatistics}},
      {recorded("busybox-loopback-quiet.txt"), {3, 3, 0, 0.021, 0.046, 0.060, NAN, nullptr}},
      {recorded("busybox-ipv6-loopback.txt"), {3, 3, 0, 0.047, 0.057, 0.062, NAN, nullptr}},
      {recorded("busybox-unreachable.txt"), {3, 0, 100, 0, 0, 0, 0, kPingAllLost}},
      {recorded("macos-loopback.txt"), {3, 3, 0, 0.045, 0.080, 0.110, 0.027, nullptr}},
      {recorded("macos-ping6-loopback.txt"), {3, 3, 0, 0.066, 0.113, 0.137, 0.033, nullptr}},
      {recorded("macos-quiet-partial-loss.txt"), {10, 9, 10, 1.721, 3.482, 9.114, 2.087, nullptr}},
      {recorded("macos-request-timeout.txt"), {3, 0, 100, 0, 0, 0, 0, kPingAllLost}},
      {recorded("macos-host-unreachable.txt"), {2, 1, 50, 4.312, 4.312, 4.312, 0, nullptr}},
      {recorded("freebsd-duplicates.txt"), {2, 2, 0, 0.398, 0.848, 1.377, 0.442, nullptr}},
      {good, {4, 4, 0, 0.014, 0.031, 0.038, 0.010, nullptr}},
      {edited("statistics ---", "statistics"), {0, 0, 100, 0, 0, 0, 0, kPingNoStatistics}},
      {edited(", 0% packet loss", ""), {0, 0, 100, 0, 0, 0, 0, kPingNoCounts}},
      {edited("4 packets transmitted", "-4 packets transmitted"),
       {0, 0, 100, 0, 0, 0, 0, kPingNoCounts}},
      {edited("rtt min", "rtt"), {4, 4, 0, 0, 0, 0, 0, kPingNoRoundTrip}},
      {edited("/0.010 ms", " ms"), {4, 4, 0, 0, 0, 0, 0, kPingNoRoundTrip}},
      {edited("0.031", "nan"), {4, 4, 0, 0, 0, 0, 0, kPingNoRoundTrip}},
      // Windows line ends and a missing final line feed change nothing.
      {"--- h ping statistics ---\r\n1 packets transmitted, 1 packets received, 0% packet "
       "loss\r\nround-trip min/avg/max/std-dev = 1.5/2.5/3.5/0.5 ms",
       {1, 1, 0, 1.5, 2.5, 3.5, 0.5, nullptr}},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text.substr(0, 80));
    expectSummary(text, expected);
  }
}

}  // namespace
}  // namespace vl::network
