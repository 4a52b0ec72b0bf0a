#include "vorlund/hostlink/gateway.h"

#include <gtest/gtest.h>

#include "support/test_support.h"
#include "vorlund/catalogue/preferences.h"

namespace {

TEST(Gateway, PortComesFromThePreferenceThenTheEnvironment) {
  struct Case {
    vl::Value preference;
    std::optional<std::string> environment;
    int port;
  };
  const Case cases[] = {
      {vl::Value(), std::nullopt, 3001},
      {vl::Value(4000), "5000", 4000},
      {vl::Value("4001"), std::nullopt, 4001},
      {vl::Value(), "5000", 5000},
      {vl::Value("30o1"), "5000", 5000},
      {vl::Value(70000), "0", 3001},
      {vl::Value(-2), "99999", 3001},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.preference.description() + " / " + c.environment.value_or("unset"));
    vl::test::Sandbox sandbox;
    vl::test::ScopedEnv environment("VORLUND_GATEWAY_PORT", c.environment);
    if (!c.preference.isNone()) VLSavePreference(c.preference, "GatewayPort");
    EXPECT_EQ(vl::gatewayPort(), c.port);
  }
}

}  // namespace
