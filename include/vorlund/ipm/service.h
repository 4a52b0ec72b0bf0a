// The service side of the IPM transport: owns the name "com.brindle.Vorlund" on the bus, serves
// the Message method on a thread of its own and hands each request, by its "MessageType", to a
// handler that runs on a worker thread, so a long request never holds up the others.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "vorlund/conversion/ipm_value.h"
#include "vorlund/foundation/error.h"
#include "vorlund/results/execution.h"

namespace vl::ipm {

// The handler under this key answers every message that has no handler of its own type, and the
// messages without a "MessageType" (a reply that carries only the "UUID" it answers).
inline constexpr const char* kOtherMessages = "*";

// How a service serves; the defaults suit a service on the session bus.
struct ServiceOptions {
  // At most this many handlers run at once; later requests wait in arrival order.
  size_t workers = 8;
  // When set, only callers whose effective user is root, or whose effective or supplementary groups
  // hold this group, are served; the others get org.freedesktop.DBus.Error.AccessDenied. The
  // caller's credentials come from the bus.
  std::optional<gid_t> allowedGroup;
  // Called once, on the service's own thread, when the bus connection is lost (the bus went away)
  // and serving has ended; running handlers have finished by then. Not called when stop() ends
  // serving.
  std::function<void()> onDisconnect;
};

class Service {
 public:
  // Takes the request dictionary and returns the reply dictionary. Returning an IPM error value
  // (IpmValue::ofError) replies with a D-Bus error carrying its description; so does an exception.
  using Handler = std::function<IpmValue(const IpmValue& request)>;

  // Connects to the selected bus (ipm/bus.h), takes the name and starts serving. handlers maps a
  // "MessageType" to its handler (kOtherMessages: to the rest). Requests that are not one a{sv}
  // dictionary of mapped values, or that no handler takes (no string "MessageType", or a type
  // without handler when there is no kOtherMessages handler), get a D-Bus error reply, and the
  // service goes on serving. Returns nullptr, with an error, when the bus cannot be reached
  // (kTransport) or another process owns the name (kNameTaken).
  static std::unique_ptr<Service> start(std::map<std::string, Handler> handlers,
                                        Error* error = nullptr);

  // As above, with options (ServiceOptions) or only its onDisconnect.
  static std::unique_ptr<Service> start(std::map<std::string, Handler> handlers,
                                        ServiceOptions options, Error* error = nullptr);
  using DisconnectHandler = std::function<void()>;
  static std::unique_ptr<Service> start(std::map<std::string, Handler> handlers,
                                        DisconnectHandler onDisconnect, Error* error = nullptr);

  // Stops serving (see stop()); after a bounded stop that gave up, it leaves the running handlers
  // to the ending process instead of waiting for them.
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Releases the name, replies with an error to requests that still arrive or still wait for a
  // worker, waits for the handlers that are running to finish and sends their replies, then closes
  // the connection. Blocks as long as the slowest running handler. Safe to call more than once.
  void stop();
  // The same, waiting at most bound for the running handlers. Returns true when serving ended;
  // false when a handler still runs after bound: the service then stays stopping, and the process
  // is expected to end (the destructor does not wait for it).
  bool stop(std::chrono::milliseconds bound);

  // The number of requests answered so far (with a reply or an error).
  size_t answeredCount() const;

  struct State;

 private:
  explicit Service(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace vl::ipm
