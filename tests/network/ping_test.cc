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
  EXPECT_EQ(pingFlavourFromVersionOutput("ping: illegal option -- V\nusage: ping [-AaDdfnoQqRrv]"),
            PingFlavour::kBsdStyle);
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
  static VLPing ping(std::optional<std::string> host, std::optional<std::string> interface) {
    VLPing ping;
    ping.setUrlString(std::move(host));
    ping.setInterface(std::move(interface));
    ping.setCount(2);
    ping.setInterval(0.2);
    return ping;
  }
  static std::string reason(const VLPing& ping) {
    return ping.error() ? ping.error()->userInfo.get("Reason").stringOr("") : "";
  }
  bool logged(VLLogLevel level, const std::string& message) {
    return capture_.contains(level, "Default", message);
  }
  bool ran(const std::string& outputStart = "") {
    for (const CapturedLine& line : capture_.lines()) {
      if (line.message.rfind("Output is \n" + outputStart, 0) == 0) return true;
    }
    return false;
  }

  test::Sandbox sandbox_;  // the peer link's preference is read from its home
  LogCapture capture_;
};

TEST_F(PingTest, DefaultsAndTheInitialRecord) {
  const char* user = std::getenv("USER");
  EXPECT_EQ(VLPing().password(), std::string(user ? user : "") + "\n");
  EXPECT_EQ(VLGetPingStatisticsDescription(VLPing::_initStats()),
            "0 packets transmitted, 0 packets received (100.00% lost), round-trip "
            "min/avg/max/stddev = 0.000/0.000/0.000/0.000 ms");
  for (const auto& [name, number] :
       {std::pair{"BE", 0}, {"BK", 1}, {"VI", 2}, {"VO", 3}, {"vo", -1}, {"", -1}}) {
    EXPECT_EQ(VLPing::_convertAccessClassStringToInt(name), number) << name;
  }
}

TEST_F(PingTest, RealPingsOfTheLoopbacks) {
  VLPing v4 = ping("127.0.0.1", "lo");
  v4.setAccessClass("VO");
  VLPingStatistics s = v4.execute();
  ASSERT_FALSE(v4.error()) << v4.error()->description();
  EXPECT_EQ(s.packetsTransmitted, 2);
  EXPECT_EQ(s.packetsReceived, 2);
  EXPECT_EQ(s.packetLoss, 0.0);
  EXPECT_GT(s.roundTripMin, 0.0);
  EXPECT_TRUE(hasRoundTripStdDev(s));
  EXPECT_TRUE(logged(VLLogLevelNotice, "Got address: 127.0.0.1"));
  EXPECT_TRUE(
      logged(VLLogLevelNotice,
             "Running iputils ping: ping -q -Q 192 -I lo -i 0.200000 -c 2 -s 56 127.0.0.1"));
  EXPECT_TRUE(ran("PING 127.0.0.1"));

  if (test::readFile("/proc/net/if_inet6").find("00000000000000000000000000000001") ==
      std::string::npos) {
    GTEST_SKIP() << "this machine has no IPv6 loopback";
  }
  VLPing v6 = ping("::1", "lo");
  v6.setIsIPV6(true);
  s = v6.execute();
  ASSERT_FALSE(v6.error()) << v6.error()->description();
  EXPECT_EQ(s.packetsReceived, 2);
  EXPECT_GT(s.roundTripMax, 0.0);
  EXPECT_TRUE(logged(VLLogLevelNotice,
                     "Running iputils ping: ping -6 -q -I lo -i 0.200000 -c 2 -s 56 ::1"));
  // The peer-to-peer link's interface replaces the named one; this machine has none.
  v6.setIsPLNK(true);
  v6.execute();
  EXPECT_TRUE(logged(VLLogLevelNotice,
                     "Running iputils ping: ping -6 -q -I plnk0 -i 0.200000 -c 2 -s 56 ::1"));
  EXPECT_EQ(reason(v6), kPingNoStatistics);
}

TEST_F(PingTest, FailuresSetTheErrorAndReturnTheInitialRecord) {
  VLPing noUrl = ping(std::nullopt, "lo");
  VLPing badClass = ping("127.0.0.1", "lo");
  badClass.setAccessClass("XX");
  VLPing noInterface = ping("127.0.0.1", std::nullopt);
  VLPing killed = ping("127.0.0.1", "lo");
  killed.setCount(100);
  killed.setTimeout(0.5);
  const struct {
    VLPing& ping;
    std::string reason;
    bool runs;
  } cases[] = {{noUrl, "No URL specified before -[VLPing execute]", false},
               {badClass, "Invalid access class specified... XX", false},
               {killed, kPingNoStatistics, true},
               {noInterface, kPingNoStatistics, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    capture_.clear();
    VLPingStatistics s = c.ping.execute();
    EXPECT_EQ(reason(c.ping), c.reason);
    EXPECT_EQ(c.ping.error()->domain, "com.brindle.Vorlund");
    EXPECT_EQ(c.ping.error()->code, 1);
    EXPECT_EQ(VLGetPingStatisticsDescription(s),
              VLGetPingStatisticsDescription(VLPing::_initStats()));
    EXPECT_EQ(ran(), c.runs);
  }
  // (Checked on the lines of the last case.) Without an interface the address check fails and IPv6
  // is used; iputils refuses the IPv4 address then, and its complaint is the failed output.
  EXPECT_TRUE(noInterface.isIPV6());
  EXPECT_TRUE(logged(VLLogLevelNotice, "Got address: error"));
  EXPECT_TRUE(logged(VLLogLevelError,
                     "Output of failed ping was ping: 127.0.0.1: Address family for hostname not "
                     "supported\n"));
}

}  // namespace
}  // namespace vl::network
