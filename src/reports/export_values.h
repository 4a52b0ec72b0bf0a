// Values as the reports module's JSON shows them, shared by the query output and the JSON export:
// dates as the library's date strings (as results files and timelines write them), data as base64,
// UUIDs as strings, numbers that are not finite as null, records as their dictionaries.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "vorlund/foundation/value.h"

namespace vl::reports {

nlohmann::ordered_json exportJson(const Value& value);

// The shortest decimal text that reads back as the same double ("0.1", "2.5", "1e+20").
std::string shortestNumber(double value);

}  // namespace vl::reports
