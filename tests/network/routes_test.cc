// The interface that reaches a host and the default route, checked against what `ip` says.
#include "vorlund/network/routes.h"

#include <gtest/gtest.h>

#include "support/child_process.h"

namespace vl::network {
namespace {

TEST(Routes, TheInterfaceThatReachesAHostAndTheDefaultRoute) {
  EXPECT_EQ(interfaceForIPv4Host("localhost").value_or(""), "lo");
  EXPECT_FALSE(interfaceForIPv4Host("no-such-host.invalid"));
  EXPECT_FALSE(interfaceForIPv4Host("::1"));

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

}  // namespace
}  // namespace vl::network
