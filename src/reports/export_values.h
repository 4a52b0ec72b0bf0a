// Values as the reports module's JSON shows them, shared by the query output and the JSON export:
// dates as the library's date strings (as results files and timelines write them), data as base64,
// UUIDs as strings, numbers that are not finite as null, records as their dictionaries.
#pragma once

#include <nlohmann/json.hpp>

#include "vorlund/foundation/value.h"

namespace vl::reports {

nlohmann::ordered_json exportJson(const Value& value);

}  // namespace vl::reports
