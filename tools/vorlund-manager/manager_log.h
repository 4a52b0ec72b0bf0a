// The manager's log: every line goes to the project's log (category "Manager") and, for the person
// running the manager in a terminal or under systemd, to standard error. Debug lines reach standard
// error only with --verbose.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "vorlund/foundation/format.h"
#include "vorlund/logging/log.h"

namespace manager {

inline constexpr const char* kLogCategory = "Manager";

// Whether debug lines are echoed to standard error; set once by main before any thread starts.
void setVerbose(bool verbose);
bool isVerbose();

void writeLogLine(VLLogLevel level, const std::string& message);

template <typename... Args>
void log(VLLogLevel level, std::string_view fmt, const Args&... args) {
  writeLogLine(level, vl::format(fmt, args...));
}

}  // namespace manager
