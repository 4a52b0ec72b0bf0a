#include "vorlund/foundation/date_string.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <string>

namespace vl {

std::string formatLocalTime(const Date& date, const char* strftimePattern) {
  double whole = std::floor(date.secondsSince1970);
  time_t seconds = static_cast<time_t>(whole);
  auto micros = static_cast<long>(std::lround((date.secondsSince1970 - whole) * 1e6));
  if (micros >= 1000000) {
    micros -= 1000000;
    ++seconds;
  }
  tm local;
  localtime_r(&seconds, &local);
  // Expand "%f" (microseconds) ourselves; strftime does not know it.
  std::string pattern;
  for (const char* p = strftimePattern; *p; ++p) {
    if (p[0] == '%' && p[1] == 'f') {
      char digits[24];
      std::snprintf(digits, sizeof digits, "%06ld", micros);
      pattern += digits;
      ++p;
    } else if (p[0] == '%' && p[1] == '%') {
      pattern += "%%";
      ++p;
    } else {
      pattern += *p;
    }
  }
  char buffer[256];
  size_t n = strftime(buffer, sizeof buffer, pattern.c_str(), &local);
  return std::string(buffer, n);
}

// Four-digit years, so that a year before 1000 reads back as the 19-character form.
std::string dateString(const Date& date) { return formatLocalTime(date, "%04Y-%m-%d-%H-%M-%S"); }

std::optional<Date> dateFromString(std::string_view text) {
  if (text.size() != 19) return std::nullopt;
  for (size_t i = 0; i < text.size(); ++i) {
    bool dash = i == 4 || i == 7 || i == 10 || i == 13 || i == 16;
    if (dash ? text[i] != '-' : !std::isdigit(static_cast<unsigned char>(text[i]))) {
      return std::nullopt;
    }
  }
  auto number = [&](size_t at, size_t length) { return std::stoi(std::string(text.substr(at, length))); };
  tm local{};
  local.tm_year = number(0, 4) - 1900;
  local.tm_mon = number(5, 2) - 1;
  local.tm_mday = number(8, 2);
  local.tm_hour = number(11, 2);
  local.tm_min = number(14, 2);
  local.tm_sec = number(17, 2);
  local.tm_isdst = -1;
  if (local.tm_mon > 11 || local.tm_mday < 1 || local.tm_mday > 31 || local.tm_hour > 23 ||
      local.tm_min > 59 || local.tm_sec > 60) {
    return std::nullopt;
  }
  time_t seconds = mktime(&local);
  if (seconds == static_cast<time_t>(-1)) return std::nullopt;
  return Date{static_cast<double>(seconds)};
}

}  // namespace vl
