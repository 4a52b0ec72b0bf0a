#include "vorlund/logging/log.h"

#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/sinks/systemd_sink.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "logging/log_capture_registry.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"
#include "vorlund/logging/rolling_file_sink.h"
#include "vorlund/logging/toolkit_logger.h"

namespace {

constexpr const char* kToolkitLogDirectory = "~/Library/Logs/Vorlund";
constexpr const char* kJournalSocket = "/run/systemd/journal/socket";
constexpr const char* kSyslogSocket = "/dev/log";

std::atomic<bool> verboseLogging{false};

// The OS log: the journal when journald runs, else syslog when a syslog daemon listens, else none.
// Without a listener every syslog() call tries to connect again, which costs far more than writing
// the line to the file.
std::shared_ptr<spdlog::sinks::sink> makeOSLogSink(const std::string& ident) {
  if (::access(kJournalSocket, F_OK) == 0) {
    return std::make_shared<spdlog::sinks::systemd_sink_mt>(ident, false);
  }
  if (::access(kSyslogSocket, F_OK) == 0) {
    return std::make_shared<spdlog::sinks::syslog_sink_mt>(ident, LOG_PID, LOG_USER, false);
  }
  return nullptr;
}

vl::ToolkitLogger* createSharedLogger() {
  auto* logger = new vl::ToolkitLogger();
  std::string name = vl::process::name();
  try {
    vl::RollingFileOptions options;
    options.directory = vl::paths::expandTilde(kToolkitLogDirectory);
    options.baseName = name;
    options.maximumFileSize = vl::kLogFileMaximumSize;
    options.rollingFrequency = vl::kLogFileRollingFrequency;
    // The verbose flag counts only here, when the logger is made.
    logger->addSink(std::make_shared<vl::RollingFileSink>(options),
                    verboseLogging ? vl::kToolkitMaskAll : vl::kToolkitMaskNoDebug);
    if (auto osLog = makeOSLogSink(name)) logger->addSink(std::move(osLog), vl::kToolkitMaskAll);
  } catch (const std::exception&) {
    // A sink that cannot be made is left out; logging goes on through the others.
  }
  // Lines still queued when the process exits are written first; later lines go out synchronously.
  // A child made by fork() has no writer thread to wait for, so it skips this.
  static const pid_t creator = ::getpid();
  std::atexit([] {
    if (::getpid() == creator) VLGetSharedZEPLogger().shutdown();
  });
  return logger;
}

}  // namespace

vl::ToolkitLogger& VLGetSharedZEPLogger() {
  // Never destroyed: lines logged from other objects' destructors at exit still have a logger.
  static vl::ToolkitLogger* shared = nullptr;
  static std::once_flag once;
  std::call_once(once, [] { shared = createSharedLogger(); });
  return *shared;
}

namespace {

struct LevelRoute {
  int flag;  // 0: the level is dropped
  bool asynchronous;
};

LevelRoute routeForLevel(VLLogLevel level) {
  switch (level) {
    case VLLogLevelInfo:
    case VLLogLevelNotice:
      return {vl::kToolkitFlagInfo, true};
    case VLLogLevelDebug:
      return {vl::kToolkitFlagDebug, true};
    case VLLogLevelError:
    case VLLogLevelFatal:
      return {vl::kToolkitFlagError, false};
    default:
      return {0, false};
  }
}

}  // namespace

bool VLLogLevelWanted(VLLogLevel level) {
  LevelRoute route = routeForLevel(level);
  if (route.flag == 0) return false;
  try {
    return vl::logCapturesActive() || VLGetSharedZEPLogger().wants(route.flag);
  } catch (...) {
    return false;
  }
}

void VLLogMessage(VLLogLevel level, const char* category, const std::string& message) {
  LevelRoute route = routeForLevel(level);
  if (route.flag == 0) return;
  try {
    vl::ToolkitLogger& logger = VLGetSharedZEPLogger();
    vl::recordInLogCaptures(level, category, message);
    if (!logger.wants(route.flag)) return;
    const std::string_view name = category ? category : "Default";
    std::string line;
    line.reserve(name.size() + message.size() + 3);
    line.append("[").append(name).append("] ").append(message);
    logger.log(route.asynchronous, route.flag, std::move(line));
  } catch (...) {
    // Logging never throws.
  }
}

void VLEnableVerboseLogging() {
  verboseLogging = true;
  VLLog(VLLogLevelDebug, "Framework", "Verbose Logging Enabled");
}
