// VLPing against the machine's real ping (iputils here), the command lines of every kind of ping
// built without that ping installed, and the interface that reaches a host, checked against `ip`.
#include "vorlund/network/ping.h"

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/test_support.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/network/ping_command.h"
#include "vorlund/network/ping_summary.h"
#include "vorlund/network/routes.h"

namespace vl::network {
namespace {

TEST(PingCommand, EveryFlavourSpellsTheOptionsItsOwnWay) {
  using F = PingFlavour;
  PingOptions defaults{.host = "example.com"};
  PingOptions all{.host = "::1", .ipv6 = true, .trafficClass = 3, .interface = "lo", .flood = true};
  PingOptions v4{
      .host = "10.0.0.1", .trafficClass = 1, .interface = "wlan0", .interval = 0.25, .count = 3};
  PingOptions hostile{.host = "h; rm -rf ~", .interface = "it's"};
  const struct {
    F flavour;
    const PingOptions& options;
    const char* command;
  } cases[] = {
      {F::kBsdStyle, defaults, "ping -q -i 1.000000 -c 10 -s 56 example.com"},
      {F::kBsdStyle, all, "ping6 -q -k 3 -I lo -f -c 10 -s 56 ::1"},
      {F::kBsdStyle, v4, "ping -q -k 1 -b wlan0 -i 0.250000 -c 3 -s 56 10.0.0.1"},
      {F::kIputils, all, "ping -6 -q -Q 192 -I lo -f -c 10 -s 56 ::1"},
      {F::kIputils, v4, "ping -q -Q 32 -I wlan0 -i 0.250000 -c 3 -s 56 10.0.0.1"},
      {F::kBusyBox, all, "ping -6 -q -I lo -A -c 10 -s 56 ::1"},
      {F::kBusyBox, v4, "ping -q -I wlan0 -i 0.250000 -c 3 -s 56 10.0.0.1"},
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
  EXPECT_EQ(pingFlavourFromVersionOutput("BusyBox v1.35.0 multi-call binary."),
            PingFlavour::kBusyBox);
  EXPECT_EQ(detectedPingFlavour(), PingFlavour::kIputils);  // Debian's ping on this machine
}

TEST(Routes, TheInterfaceThatReachesAHostAndTheDefaultRoute) {
  EXPECT_EQ(interfaceForIPv4Host("localhost").value_or(""), "lo");
  EXPECT_FALSE(interfaceForIPv4Host("no-such-host.invalid"));
  // "default via GATEWAY dev NAME ...", or nothing
  auto shown = test::runChild({"ip", "-4", "route", "show", "default"});
  if (shown.exitStatus != 0) GTEST_SKIP() << "no ip here: " << shown.err;
  std::optional<DefaultRoute> route = defaultRoute();
  EXPECT_EQ(route ? "default via " + route->gateway + " dev " + route->interface : "",
            shown.out.substr(0, shown.out.find(" ", shown.out.find(" dev ") + 5)));
  // An address off every local network goes the default way.
  if (route) {
    EXPECT_EQ(interfaceForIPv4Host("198.51.100.7").value_or(""), route->interface);
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

  test::Sandbox sandbox_;  // the peer link's preference is read from its home
  LogCapture capture_;
};

TEST_F(PingTest, RealPingsOfTheLoopbacks) {
  for (const auto& [name, number] : {std::pair{"BE", 0}, {"BK", 1}, {"VI", 2}, {"vo", -1}}) {
    EXPECT_EQ(VLPing::_convertAccessClassStringToInt(name), number) << name;
  }
  VLPing v4 = ping("127.0.0.1", "lo");
  v4.setAccessClass("VO");
  VLPingStatistics s = v4.execute();
  ASSERT_FALSE(v4.error()) << v4.error()->description();
  EXPECT_EQ(s.packetsReceived, 2);
  EXPECT_TRUE(
      logged(VLLogLevelNotice,
             "Running iputils ping: ping -q -Q 192 -I lo -i 0.200000 -c 2 -s 56 127.0.0.1"));

  if (test::readFile("/proc/net/if_inet6").find("00000000000000000000000000000001") ==
      std::string::npos) {
    GTEST_SKIP() << "this machine has no IPv6 loopback";
  }
  VLPing v6 = ping("::1", "lo");
  v6.setIsIPV6(true);
  s = v6.execute();
  ASSERT_FALSE(v6.error()) << v6.error()->description();
  EXPECT_EQ(s.packetsReceived, 2);
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
  const std::string initial = VLGetPingStatisticsDescription(VLPing::_initStats());
  EXPECT_EQ(initial,
            "0 packets transmitted, 0 packets received (100.00% lost), round-trip "
            "min/avg/max/stddev = 0.000/0.000/0.000/0.000 ms");
  const std::pair<VLPing&, std::string> cases[] = {
      {noUrl, "No URL specified before -[VLPing execute]"},
      {badClass, "Invalid access class specified... XX"},
      {killed, kPingNoStatistics},
      {noInterface, kPingNoStatistics}};
  for (const auto& [ping, expected] : cases) {
    EXPECT_EQ(VLGetPingStatisticsDescription(ping.execute()), initial) << expected;
    EXPECT_EQ(reason(ping), expected);
    EXPECT_EQ(ping.error()->domain, "com.brindle.Vorlund");
  }
  // Without an interface the address check fails and IPv6 is used; iputils refuses the IPv4
  // address then, and its complaint is the failed output.
  EXPECT_TRUE(noInterface.isIPV6());
  EXPECT_TRUE(logged(VLLogLevelNotice, "Got address: error"));
  EXPECT_TRUE(logged(VLLogLevelError,
                     "Output of failed ping was ping: 127.0.0.1: Address family for hostname not "
                     "supported\n"));
}

}  // namespace
}  // namespace vl::network
