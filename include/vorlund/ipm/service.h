// The service side of the IPM transport: owns the name "com.brindle.Vorlund" on the bus, serves
// the Message method on a thread of its own and hands each request, by its "MessageType", to a
// handler that runs on a worker thread, so a long request never holds up the others.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "vorlund/conversion/ipm_value.h"
#include "vorlund/foundation/error.h"
#include "vorlund/results/execution.h"

namespace vl::ipm {

class Service {
 public:
  // Takes the request dictionary and returns the reply dictionary. Returning an IPM error value
  // (IpmValue::ofError) replies with a D-Bus error carrying its description; so does an exception.
  using Handler = std::function<IpmValue(const IpmValue& request)>;

  // Connects to the selected bus (ipm/bus.h), takes the name and starts serving. handlers maps a
  // "MessageType" to its handler. Requests that are not one a{sv} dictionary of mapped values, lack
  // a string "MessageType" or name a type without handler get a D-Bus error reply, and the service
  // goes on serving. Returns nullptr, with an error, when the bus cannot be reached (kTransport) or
  // another process owns the name (kNameTaken).
  static std::unique_ptr<Service> start(std::map<std::string, Handler> handlers,
                                        Error* error = nullptr);

  // Called once, on the service's own thread, when the bus connection is lost (the bus went away)
  // and serving has ended; running handlers have finished by then. Not called when stop() ends
  // serving.
  using DisconnectHandler = std::function<void()>;
  // As above, and onDisconnect learns when serving ends without stop().
  static std::unique_ptr<Service> start(std::map<std::string, Handler> handlers,
                                        DisconnectHandler onDisconnect, Error* error = nullptr);

  // Stops serving (see stop()).
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Releases the name, replies with an error to requests that still arrive, waits for the
  // handlers that are running to finish and sends their replies, then closes the connection.
  // Blocks as long as the slowest running handler. Safe to call more than once.
  void stop();

  // The number of requests answered so far (with a reply or an error).
  size_t answeredCount() const;

  struct State;

 private:
  explicit Service(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace vl::ipm
