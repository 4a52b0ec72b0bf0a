// The interface that reaches a host and the default route, checked against what `ip` says.
#include "vorlund/network/routes.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/child_process.h"

namespace vl::network {
namespace {

TEST(Routes, TheInterfaceThatReachesAHostAndTheDefaultRoute) {
  EXPECT_EQ(interfaceForIPv4Host("127.0.0.1").value_or(""), "lo");
  EXPECT_EQ(interfaceForIPv4Host("localhost").value_or(""), "lo");
  EXPECT_FALSE(interfaceForIPv4Host("no-such-host.invalid"));
  EXPECT_FALSE(interfaceForIPv4Host("::1"));

  auto shown = test::runChild({"ip", "-4", "route", "show", "default"});
  if (shown.exitStatus != 0) GTEST_SKIP() << "no ip here: " << shown.err;
  std::optional<DefaultRoute> route = defaultRoute();
  if (shown.out.empty()) {
    EXPECT_FALSE(route);
    return;
  }
  // "default via GATEWAY dev NAME ..."
  std::istringstream words(shown.out);
  std::string defaultWord, via, gateway, dev, name;
  words >> defaultWord >> via >> gateway >> dev >> name;
  if (via != "via" || dev != "dev") GTEST_SKIP() << "a default route without a gateway";
  ASSERT_TRUE(route);
  EXPECT_EQ(route->gateway, gateway);
  EXPECT_EQ(route->interface, name);
  // An address off every local network goes the default way.
  EXPECT_EQ(interfaceForIPv4Host("198.51.100.7").value_or(""), name);
}

}  // namespace
}  // namespace vl::network
