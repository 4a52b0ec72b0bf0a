#include "vorlund/ipm/bus.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "vorlund/foundation/format.h"

namespace vl::ipm {

Error ipmError(IpmErrorCode code, std::string description) {
  return Error::withDescription(kIpmErrorDomain, static_cast<int64_t>(code),
                                std::move(description));
}

BusKind selectedBus() {
  if (const char* choice = std::getenv("VORLUND_BUS")) {
    std::string_view c(choice);
    if (c == "session") return BusKind::kSession;
    if (c == "system") return BusKind::kSystem;
  }
  const char* session = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  return session && *session ? BusKind::kSession : BusKind::kSystem;
}

std::string errnoText(int negativeErrno) { return std::strerror(-negativeErrno); }

ScopedBus openBus(Error* error) {
  BusKind kind = selectedBus();
  sd_bus* raw = nullptr;
  int r = kind == BusKind::kSession ? sd_bus_open_user(&raw) : sd_bus_open_system(&raw);
  ScopedBus bus(raw);
  if (r < 0) {
    setError(error, ipmError(IpmErrorCode::kTransport,
                             vl::format("Unable to connect to the %s bus: %s",
                                        kind == BusKind::kSession ? "session" : "system",
                                        errnoText(r).c_str())));
    return nullptr;
  }
  return bus;
}

}  // namespace vl::ipm
