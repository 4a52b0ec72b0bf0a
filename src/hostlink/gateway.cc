#include "vorlund/hostlink/gateway.h"

#include <cstdlib>
#include <string>

#include "vorlund/catalogue/preferences.h"

namespace vl {

namespace {

// A port number from a preference value or environment text, or 0. Text must be only digits, so
// "30o1" is passed over rather than read as 30.
int portFrom(const Value& value) {
  long port = 0;
  if (const std::string* text = value.asString()) {
    if (text->empty() || text->size() > 5) return 0;
    for (char c : *text) {
      if (c < '0' || c > '9') return 0;
    }
    port = std::stol(*text);
  } else if (value.isNumber()) {
    port = static_cast<long>(value.int64Or(0));
  }
  return port >= 1 && port <= 65535 ? static_cast<int>(port) : 0;
}

}  // namespace

int gatewayPort() {
  if (int port = portFrom(VLGetPreferences().get("GatewayPort"))) return port;
  if (const char* environment = std::getenv("VORLUND_GATEWAY_PORT")) {
    if (int port = portFrom(Value(std::string(environment)))) return port;
  }
  return kDefaultGatewayPort;
}

}  // namespace vl
