// Values to and from JSON text (nlohmann-json), keeping dictionary order.
//
// Strict conversion accepts what JSON can hold: dictionaries, arrays, strings, finite numbers and
// booleans (and none as null inside collections). Display conversion, for people and tools, writes
// everything: dates as ISO 8601 strings, data as base64, UUIDs as strings, records as their
// dictionary form with the class name under "$class".
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

namespace vl::json {

// The error domain of JSON conversion failures raised here.
inline constexpr const char* kErrorDomain = "VLJSONErrorDomain";

// Parses JSON text. Integers become 'q' numbers (or 'Q' above the int64 range), other numbers 'd',
// true/false 'B', null none. None, with error, on malformed text.
std::optional<Value> parse(std::string_view text, Error* error = nullptr);

// Writes strict JSON; pretty with an indent of two spaces when pretty is set. None, with error, when
// the value holds something JSON cannot, or its top level is not an array or dictionary and
// requireContainer is set.
std::optional<std::string> serialize(const Value& value, bool pretty, bool requireContainer = true,
                                     Error* error = nullptr);

// Writes any value as pretty JSON for display. Never fails.
std::string displayString(const Value& value);

}  // namespace vl::json
