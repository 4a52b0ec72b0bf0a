// The D-Bus side of the stress service: its name, object and method, the choice of bus, and owning
// handles over sd-bus connections, messages and slots. Clients (ipm/client.h) and the service
// (ipm/service.h) both stand on this file.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string>

#include "vorlund/foundation/error.h"

namespace vl::ipm {

inline constexpr const char* kServiceName = "com.brindle.Vorlund";
inline constexpr const char* kObjectPath = "/com/brindle/Vorlund";
inline constexpr const char* kInterfaceName = "com.brindle.Vorlund";
inline constexpr const char* kMethodName = "Message";
// The method's argument and reply: one dictionary of variants.
inline constexpr const char* kMessageSignature = "a{sv}";

// The D-Bus error names the service replies with.
inline constexpr const char* kErrorInvalidMessage = "com.brindle.Vorlund.Error.InvalidMessage";
inline constexpr const char* kErrorUnsupportedMessage =
    "com.brindle.Vorlund.Error.UnsupportedMessage";
inline constexpr const char* kErrorFailed = "com.brindle.Vorlund.Error.Failed";

// The domain of the errors this module reports, and their codes. Codes cross process boundaries
// in error replies and logs: never renumber.
inline constexpr const char* kIpmErrorDomain = "com.brindle.Vorlund.IPM";
enum class IpmErrorCode : int64_t {
  kNotRunning = 1,      // no process owns the service name
  kTransport = 2,       // the bus could not be reached or the call failed on the way
  kInvalidMessage = 3,  // a message that does not fit the IPM mapping
  kTimedOut = 4,        // no reply within the caller's time-out
  kRemote = 5,          // the service answered with an error
  kNameTaken = 6,       // another process already owns the service name
};
// The description of kNotRunning, to the letter.
inline constexpr const char* kNotRunningDescription = "the stress service is not running";

Error ipmError(IpmErrorCode code, std::string description);

enum class BusKind { kSession, kSystem };

// $VORLUND_BUS ("session" or "system") when set to one of those; otherwise the session bus when
// $DBUS_SESSION_BUS_ADDRESS is set, else the system bus.
BusKind selectedBus();

struct BusDeleter {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageDeleter {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
struct SlotDeleter {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using ScopedBus = std::unique_ptr<sd_bus, BusDeleter>;
using ScopedMessage = std::unique_ptr<sd_bus_message, MessageDeleter>;
using ScopedSlot = std::unique_ptr<sd_bus_slot, SlotDeleter>;

// A new private connection to the selected bus (an sd-bus connection belongs to one thread at a
// time). nullptr, with a kTransport error naming the bus and the reason, when it cannot be opened.
ScopedBus openBus(Error* error = nullptr);

// The text of a negative errno value returned by sd-bus.
std::string errnoText(int negativeErrno);

}  // namespace vl::ipm
