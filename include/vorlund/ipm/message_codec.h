// IPM values in sd-bus messages. The mapping: double d, int64 x, uint64 t, bool b, string s, data
// ay, file descriptor h, array av, dictionary a{sv}; a date is the one-field struct (x) of
// nanoseconds since 1970. Null, error and UUID values have no D-Bus form and are refused.
#pragma once

#include <systemd/sd-bus.h>

#include <optional>

#include "vorlund/conversion/ipm_value.h"
#include "vorlund/foundation/error.h"

namespace vl::ipm {

// Appends value to message as a D-Bus value of the mapped type (a dictionary as a{sv}, and so on).
// Returns false, with a kInvalidMessage error naming the first value that has no D-Bus form (or a
// kTransport error when sd-bus refuses the append), and leaves the message unusable for sending.
bool appendValue(sd_bus_message* message, const IpmValue& value, Error* error = nullptr);

// Appends a dictionary as the message's a{sv} argument. Returns false, with an error, when
// dictionary is not a dictionary or one of its values has no D-Bus form.
bool appendDictionary(sd_bus_message* message, const IpmValue& dictionary, Error* error = nullptr);

// Reads the value of the next argument of message, which must be of type `signature` among the
// mapped types. Descriptors are duplicated, so the value owns its own. None, with a
// kInvalidMessage error, for any type outside the mapping or a message that ends early.
std::optional<IpmValue> readValue(sd_bus_message* message, Error* error = nullptr);

// Reads the message's next argument as an a{sv} dictionary (the variants' contents must follow
// the mapping, nested at any depth). None, with a kInvalidMessage error, otherwise.
std::optional<IpmValue> readDictionary(sd_bus_message* message, Error* error = nullptr);

}  // namespace vl::ipm
