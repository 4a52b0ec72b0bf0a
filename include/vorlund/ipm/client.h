// The client side of the stress service: one IPM dictionary sent to "com.brindle.Vorlund" over
// D-Bus, one dictionary back. Safe from any thread; each call uses a connection of its own.
#pragma once

#include <chrono>
#include <optional>

#include "vorlund/conversion/ipm_value.h"
#include "vorlund/foundation/error.h"

namespace vl::ipm {

// A time-out that never ends: the call waits for the reply however long the service takes, and
// ends early only when the service leaves the bus.
inline constexpr std::chrono::microseconds kNoTimeout = std::chrono::microseconds::max();

// Sends message (a dictionary) to the service's Message method and returns the reply dictionary.
// The bus may start the service on demand when it has an activation file for it. Returns none,
// with an error of kIpmErrorDomain, when:
//   - no process owns the name and the bus cannot start one: kNotRunning, "the stress service is
//     not running", at once;
//   - no reply arrives within timeout: kTimedOut (a zero or negative time-out means the bus's
//     default of 25 seconds);
//   - the service replies with an error or leaves the bus before replying: kRemote, with the
//     D-Bus error name under "DBusErrorName";
//   - message or reply does not fit the IPM mapping: kInvalidMessage;
//   - the bus cannot be reached: kTransport.
std::optional<IpmValue> sendMessage(const IpmValue& message, std::chrono::microseconds timeout,
                                    Error* error = nullptr);

}  // namespace vl::ipm
