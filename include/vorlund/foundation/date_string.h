// The library's date string, "yyyy-MM-dd-HH-mm-ss" in local time, used inside results, statistics,
// issues and the timeline, and its inverse. Thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "vorlund/foundation/value.h"

namespace vl {

// "2026-01-31-08-15-02" for the date in local time.
std::string dateString(const Date& date);
// The date of such a string in local time, or none when it is not one.
std::optional<Date> dateFromString(std::string_view text);

// Any strftime-style pattern of a date in local time, with "%f" for six digits of microseconds.
std::string formatLocalTime(const Date& date, const char* strftimePattern);

}  // namespace vl
