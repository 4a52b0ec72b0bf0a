// The bridge's log lines: each goes to the log (VLLog, category "VorlundBridge") and, so that an
// operator watching the program or its unit sees the link come and go, to standard error.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "vorlund/foundation/format.h"
#include "vorlund/logging/log.h"

namespace vl::bridge {

inline constexpr const char* kLogCategory = "VorlundBridge";

template <typename... Args>
void note(VLLogLevel level, std::string_view fmt, const Args&... args) {
  const std::string text = vl::format(fmt, args...);
  VLLogMessage(level, kLogCategory, text);
  std::fprintf(stderr, "VorlundBridge: %s\n", text.c_str());
}

}  // namespace vl::bridge
