// VLLog: the one logging entry point of every process that links Vorlund. A line "[category]
// message" goes to the rolling log files under ~/Library/Logs/Vorlund and to the OS log (journald,
// or syslog where journald is absent; none where neither listens).
//
// Levels 0 (info), 1 (notice) and 2 (debug) are written asynchronously; 16 (error) and 17 (fatal)
// synchronously: they are on disk when the call returns. Any other level is dropped without a word.
// Logging never throws.
#pragma once

#include <string>
#include <string_view>

#include "vorlund/foundation/format.h"

namespace vl {
class ToolkitLogger;
}

typedef long VLLogLevel;
inline constexpr VLLogLevel VLLogLevelInfo = 0;
inline constexpr VLLogLevel VLLogLevelNotice = 1;
inline constexpr VLLogLevel VLLogLevelDebug = 2;
inline constexpr VLLogLevel VLLogLevelError = 16;
inline constexpr VLLogLevel VLLogLevelFatal = 17;

// Writes an already formatted message. category may be nullptr (printed "Default").
void VLLogMessage(VLLogLevel level, const char* category, const std::string& message);

// True when a line of this level would be written anywhere (a sink of the shared logger takes it,
// or a LogCapture is live). False for the levels that are dropped.
bool VLLogLevelWanted(VLLogLevel level);

// VLLog(level, category, format, args...): formats with vl::format and logs the result. A line
// that nothing would take is not even formatted: debug lines cost next to nothing where only the
// log files, without verbose logging, listen.
template <typename... Args>
void VLLog(VLLogLevel level, const char* category, std::string_view fmt, const Args&... args) {
  if (!VLLogLevelWanted(level)) return;
  VLLogMessage(level, category, vl::format(fmt, args...));
}

// Turns on debug lines in the log files. Only effective before the shared logger is first created,
// so a process calls it first thing. Logs "Verbose Logging Enabled" at level 2.
void VLEnableVerboseLogging();

// The shared toolkit logger (logging/toolkit_logger.h) that VLLog writes through, created on the
// first call: a rolling file sink under ~/Library/Logs/Vorlund and the OS-log sink. It lives until
// the process ends; lines still queued when the process exits are written out first. A child made
// by fork() without exec should not log: the background writer does not exist in it.
vl::ToolkitLogger& VLGetSharedZEPLogger();
