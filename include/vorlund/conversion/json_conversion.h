// JSON text to and from values, as the system's messages and files use it. Failures are logged at
// level 16 ("Framework") and return none, with the error handed to the caller where asked for.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

// The error domain and code for JSON text that is not an array where one is wanted.
inline constexpr const char* kVLJSONConversionErrorDomain = "VLJSONConversionErrorDomain";
inline constexpr int64_t kVLJSONConversionNotAnArrayError = 22;

// Pretty-printed UTF-8 JSON of an array or dictionary. None, with the serialiser's error, when the
// object is of another kind or holds what JSON cannot (dates, data, records, non-finite numbers).
std::optional<vl::Data> VLJSONDataFromObject(const vl::Value& object, vl::Error* error = nullptr);

// The text of UTF-8 JSON data. None for no data (nullptr) and for bytes that are not UTF-8.
std::optional<std::string> VLJSONStringFromJSONData(const vl::Data* jsonData);
std::optional<std::string> VLJSONStringFromJSONData(const vl::Data& jsonData);

// Parses JSON text whose top level is an array or an object. A none value, with the parser's error,
// on malformed text or any other top level.
vl::Value VLObjectFromJSONString(std::string_view string, vl::Error* error = nullptr);

// Parses JSON text whose top level is an array. None, with the parser's error for malformed text
// and with an error of kVLJSONConversionErrorDomain code 22 for any other top level.
std::optional<vl::Array> VLArrayFromJSONString(std::string_view string, vl::Error* error = nullptr);
