// VLPing against the machine's real ping (iputils here), and the command lines of every kind of
// ping, built without that ping installed.
#include "vorlund/network/ping.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/test_support.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/network/ping_command.h"
#include "vorlund/network/ping_summary.h"

namespace vl::network {
namespace {

TEST(PingCommand, EveryFlavourSpellsTheOptionsItsOwnWay) {
  using F = PingFlavour;
  PingOptions defaults{.host = "example.com"};
  PingOptions everything{.host = "fe80::1",
                         .ipv6 = true,
                         .trafficClass = 3,
                         .interface = "wlan0",
                         .flood = true,
                         .count = 5,
                         .size = 100};
  PingOptions ipv4Interface{
      .host = "10.0.0.1", .trafficClass = 1, .interface = "wlan0", .interval = 0.25, .count = 3};
  PingOptions hostile{.host = "h; rm -rf ~", .interface = "it's"};
  const struct {
    F flavour;
    const PingOptions& options;
    const char* command;
  } cases[] = {
      {F::kBsdStyle, defaults, "ping -q -i 1.000000 -c 10 -s 56 example.com"},
      {F::kBsdStyle, everything, "ping6 -q -k 3 -I wlan0 -f -c 5 -s 100 fe80::1"},
      {F::kBsdStyle, ipv4Interface, "ping -q -k 1 -b wlan0 -i 0.250000 -c 3 -s 56 10.0.0.1"},
      {F::kIputils, defaults, "ping -q -i 1.000000 -c 10 -s 56 example.com"},
      {F::kIputils, everything, "ping -6 -q -Q 192 -I wlan0 -f -c 5 -s 100 fe80::1"},
      {F::kIputils, ipv4Interface, "ping -q -Q 32 -I wlan0 -i 0.250000 -c 3 -s 56 10.0.0.1"},
      {F::kBusyBox, everything, "ping -6 -q -I wlan0 -A -c 5 -s 100 fe80::1"},
      {F::kBusyBox, ipv4Interface, "ping -q -I wlan0 -i 0.250000 -c 3 -s 56 10.0.0.1"},
      {F::kIputils, hostile, "ping -q -I 'it'\\''s' -i 1.000000 -c 10 -s 56 'h; rm -rf ~'"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(pingCommand(c.flavour, c.options), c.command) << pingFlavourName(c.flavour);
  }
  EXPECT_EQ(trafficClassTypeOfService(0), 0);
  EXPECT_EQ(trafficClassTypeOfService(2), 0xA0);
  EXPECT_EQ(trafficClassTypeOfService(4), -1);
}

TEST(PingCommand, FlavourFromTheVersionProbe) {
  EXPECT_EQ(pingFlavourFromVersionOutput("ping from iputils 20221126\nlibcap: yes, IDN: yes\n"),
            PingFlavour::kIputils);
  EXPECT_EQ(pingFlavourFromVersionOutput("ping: invalid option -- 'V'\nBusyBox v1.35.0 (Debian "
                                         "1:1.35.0-4+deb12u1+b1) multi-call binary.\n"),
            PingFlavour::kBusyBox);
  EXPECT_EQ(pingFlavourFromVersionOutput("ping: illegal option -- V\nusage: ping [-AaDdfnoQqRrv]"),
            PingFlavour::kBsdStyle);
  EXPECT_EQ(pingFlavourFromVersionOutput(""), PingFlavour::kBsdStyle);
  // The machine the tests run on has Debian's ping.
  EXPECT_EQ(detectedPingFlavour(), PingFlavour::kIputils);
}

// BusyBox's ping takes the command built for it, as root or where unprivileged pings are allowed.
TEST(PingCommand, BusyBoxRunsTheCommandsBuiltForIt) {
  std::string probe = VLExecuteShellCommand("busybox ping -V", {}, true, 10);
  if (probe.find("BusyBox") == std::string::npos) GTEST_SKIP() << "no busybox here";
  EXPECT_EQ(pingFlavourFromVersionOutput(probe), PingFlavour::kBusyBox);
  for (bool flood : {false, true}) {
    PingOptions options{
        .host = "127.0.0.1", .trafficClass = 3, .interface = "lo", .flood = flood, .count = 2};
    options.interval = 0.2;
    std::string output = VLExecuteShellCommand(
        "busybox " + pingCommand(PingFlavour::kBusyBox, options), {}, true, 10);
    if (output.find("permission denied") != std::string::npos) GTEST_SKIP() << output;
    PingSummary summary = parsePingSummary(output);
    EXPECT_FALSE(summary.failure) << output;
    EXPECT_EQ(summary.statistics.packetsReceived, 2) << output;
    EXPECT_FALSE(hasRoundTripStdDev(summary.statistics));
  }
}

class PingTest : public ::testing::Test {
 protected:
  bool logged(VLLogLevel level, const std::string& message) {
    return capture_.contains(level, "Default", message);
  }
  bool loggedPrefix(const std::string& prefix) {
    for (const CapturedLine& line : capture_.lines()) {
      if (line.message.rfind(prefix, 0) == 0) return true;
    }
    return false;
  }

  test::Sandbox sandbox_;
  LogCapture capture_;
};

TEST_F(PingTest, DefaultsAndTheInitialRecord) {
  VLPing ping;
  EXPECT_FALSE(ping.urlString());
  EXPECT_EQ(ping.timeout(), -1.0);
  EXPECT_EQ(ping.count(), 10);
  EXPECT_EQ(ping.size(), 56);
  EXPECT_EQ(ping.interval(), 1.0);
  EXPECT_FALSE(ping.isIPV6() || ping.isFloodPing() || ping.isPLNK());
  const char* user = std::getenv("USER");
  EXPECT_EQ(ping.password(), std::string(user ? user : "") + "\n");
  EXPECT_EQ(VLGetPingStatisticsDescription(VLPing::_initStats()),
            "0 packets transmitted, 0 packets received (100.00% lost), round-trip "
            "min/avg/max/stddev = 0.000/0.000/0.000/0.000 ms");
  const std::pair<const char*, int> classes[] = {{"BE", 0}, {"BK", 1},  {"VI", 2},
                                                 {"VO", 3}, {"vo", -1}, {"", -1}};
  for (const auto& [name, number] : classes) {
    EXPECT_EQ(VLPing::_convertAccessClassStringToInt(name), number) << name;
  }
}

TEST_F(PingTest, BadSettingsFailBeforeAnythingRuns) {
  VLPing ping;
  VLPingStatistics none = ping.execute();
  ASSERT_TRUE(ping.error());
  EXPECT_EQ(ping.error()->domain, "com.brindle.Vorlund");
  EXPECT_EQ(ping.error()->code, 1);
  EXPECT_EQ(ping.error()->userInfo.get("Reason").stringOr(""),
            "No URL specified before -[VLPing execute]");
  EXPECT_EQ(none.packetLoss, 100.0);

  ping.setUrlString("127.0.0.1");
  ping.setInterface("lo");
  ping.setAccessClass("XX");
  ping.execute();
  ASSERT_TRUE(ping.error());
  EXPECT_EQ(ping.error()->userInfo.get("Reason").stringOr(""),
            "Invalid access class specified... XX");
  EXPECT_FALSE(loggedPrefix("Output is"));
}

TEST_F(PingTest, RealPingOfTheIPv4Loopback) {
  VLPing ping;
  ping.setUrlString("127.0.0.1");
  ping.setInterface("lo");
  ping.setAccessClass("VO");
  ping.setCount(3);
  ping.setInterval(0.2);
  ASSERT_TRUE(ping.hasIPV4Address());
  VLPingStatistics s = ping.execute();
  ASSERT_FALSE(ping.error()) << ping.error()->description();
  EXPECT_FALSE(ping.isIPV6());
  EXPECT_EQ(s.packetsTransmitted, 3);
  EXPECT_EQ(s.packetsReceived, 3);
  EXPECT_EQ(s.packetLoss, 0.0);
  EXPECT_GT(s.roundTripMin, 0.0);
  EXPECT_LE(s.roundTripMin, s.roundTripAverage);
  EXPECT_LE(s.roundTripAverage, s.roundTripMax);
  EXPECT_TRUE(hasRoundTripStdDev(s));
  EXPECT_TRUE(logged(VLLogLevelNotice, "Got address: 127.0.0.1"));
  EXPECT_TRUE(
      logged(VLLogLevelNotice,
             "Running iputils ping: ping -q -Q 192 -I lo -i 0.200000 -c 3 -s 56 127.0.0.1"));
  EXPECT_TRUE(loggedPrefix("Output is \nPING 127.0.0.1"));
}

TEST_F(PingTest, RealPingOfTheIPv6LoopbackAndThePeerLink) {
  if (test::readFile("/proc/net/if_inet6").find("00000000000000000000000000000001") ==
      std::string::npos) {
    GTEST_SKIP() << "this machine has no IPv6 loopback";
  }
  VLPing ping;
  ping.setUrlString("::1");
  ping.setInterface("lo");
  ping.setIsIPV6(true);
  ping.setCount(2);
  ping.setInterval(0.2);
  VLPingStatistics s = ping.execute();
  ASSERT_FALSE(ping.error()) << ping.error()->description();
  EXPECT_EQ(s.packetsReceived, 2);
  EXPECT_GT(s.roundTripMax, 0.0);
  EXPECT_TRUE(logged(VLLogLevelNotice,
                     "Running iputils ping: ping -6 -q -I lo -i 0.200000 -c 2 -s 56 ::1"));

  // The peer-to-peer link's interface replaces the named one; this machine has none.
  ping.setIsPLNK(true);
  ping.execute();
  EXPECT_TRUE(logged(VLLogLevelNotice,
                     "Running iputils ping: ping -6 -q -I plnk0 -i 0.200000 -c 2 -s 56 ::1"));
  ASSERT_TRUE(ping.error());
  EXPECT_EQ(ping.error()->userInfo.get("Reason").stringOr(""), kPingNoStatistics);
}

TEST_F(PingTest, NoInterfaceMeansIPv6AndAFailedRunHasNoStatistics) {
  VLPing ping;
  ping.setUrlString("127.0.0.1");
  ping.setCount(1);
  EXPECT_FALSE(ping.hasIPV4Address());
  ping.execute();
  EXPECT_TRUE(ping.isIPV6());
  EXPECT_TRUE(logged(VLLogLevelNotice, "Got address: error"));
  ASSERT_TRUE(ping.error());
  EXPECT_EQ(ping.error()->userInfo.get("Reason").stringOr(""), kPingNoStatistics);
  // iputils refuses an IPv4 address with -6; its complaint is the failed output.
  EXPECT_TRUE(logged(VLLogLevelError,
                     "Output of failed ping was ping: 127.0.0.1: Address "
                     "family for hostname not supported\n"));
}

TEST_F(PingTest, ARunKilledAtItsTimeoutHasNoStatistics) {
  VLPing ping;
  ping.setUrlString("127.0.0.1");
  ping.setInterface("lo");
  ping.setCount(100);
  ping.setInterval(0.2);
  ping.setTimeout(0.5);
  VLPingStatistics s = ping.execute();
  ASSERT_TRUE(ping.error());
  EXPECT_EQ(ping.error()->userInfo.get("Reason").stringOr(""), kPingNoStatistics);
  EXPECT_EQ(s.packetsTransmitted, 0);
}

}  // namespace
}  // namespace vl::network
