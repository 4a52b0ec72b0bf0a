#include "vorlund/devicetools/evidence.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "devicetools/shell_quote.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/devicetools/diagnostic_archiver.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/error.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kCategory = "Framework";
constexpr const char* kStartedFromUIPreference = "StartedFromUI";
constexpr const char* kMemoryReportDatePattern = "%Y-%m-%d-%H%M%S";  // yyyy-MM-dd-HHmmss
constexpr const char* kMemoryReportTemplate =
    "(echo '=== UNAME ===' ; uname -a ; echo '=== OSBUILDINFO ===' ; osbuildinfo ; echo '=== "
    "UPTIME ===' ; uptime ; echo '=== RUNTIME ===' ; ps -ax -o etime,command -c  | grep %@ ; echo "
    "'=== CULLER_RANK ===' ; culler_rank ; echo '=== ARENALIST ===' ; arenalist -v %@ ; echo '=== "
    "HEAP ===' ; heap -guessNonObjects -sumObjectFields %@ ; echo '=== LTOP ===' ; ltop ; echo "
    "'=== "
    "SAMPLE ==='; sample %@; echo '=== LEAKS ==='; leaks %@) > %@/%@_%@_ExceededMemoryLimit.txt";

vl::Error fileError(int code, const std::string& what) {
  return vl::Error::withDescription("NSPOSIXErrorDomain", code,
                                    vl::format("%s: %s", what, std::strerror(code)));
}

bool isDirectory(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Creates the folder with its parents when missing; none on success.
std::optional<vl::Error> ensureDirectory(const std::string& path) {
  if (isDirectory(path)) return std::nullopt;
  if (vl::paths::createDirectories(path)) return std::nullopt;
  return fileError(errno, vl::format("Could not create the folder %s", path));
}

// The text read as an integer the way the platform's strings do: leading blanks, a sign, digits;
// 0 when it does not start with a number.
long long leadingInteger(const std::string& text) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  long long value = 0;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    if (value > (LLONG_MAX - 9) / 10) break;
    value = value * 10 + (text[i] - '0');
  }
  return negative ? -value : value;
}

// Serialises the stack snapshots of concurrent memory warnings, with their time stamps.
std::mutex& snapshotMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

void VLSaveLogAsPriority(const std::string& path) {
  if (VLGetPreferences().get(kStartedFromUIPreference).boolOr(false)) {
    VLLog(VLLogLevelInfo, kCategory,
          "Test started from the UI, not moving logs.  Would have moved %@", path);
    return;
  }
  VLLog(VLLogLevelInfo, kCategory, "Saving file as a priority log...%@", path);
  const std::string folder = vl::paths::expandTilde(kVLPriorityLogsDirectory);
  if (std::optional<vl::Error> error = ensureDirectory(folder)) {
    VLLog(VLLogLevelError, kCategory, "Unable to save priority log %@...%@", path,
          error->description());
    return;
  }
  std::error_code failure;
  std::filesystem::copy_file(path, vl::paths::join(folder, vl::paths::lastComponent(path)),
                             std::filesystem::copy_options::none, failure);
  if (failure) {
    vl::Error error =
        vl::Error::withDescription("NSPOSIXErrorDomain", failure.value(),
                                   vl::format("Could not copy %s: %s", path, failure.message()));
    // The error comes first here, the path second.
    VLLog(VLLogLevelError, kCategory, "Saw an error copying priority log file %@...%@",
          error.description(), path);
  }
}

void VLSaveMemoryWarning(const std::string& process, const std::string& directory) {
  if (std::optional<vl::Error> error = ensureDirectory(directory)) {
    VLLog(VLLogLevelError, kCategory, "Saw an error while creating %@.  Cant save the log... %@",
          directory, error->description());
    return;
  }
  const std::string name =
      leadingInteger(process) == static_cast<long long>(::getpid()) ? vl::process::name() : process;

  std::string report;
  {
    std::lock_guard lock(snapshotMutex());
    const std::string date = vl::formatLocalTime(vl::Date::now(), kMemoryReportDatePattern);
    // The running-time line is looked up by the directory, as the report has always done.
    report = vl::format(kMemoryReportTemplate, directory, process, process, process, process,
                        directory, name, date);
    VLExecuteShellCommand(
        vl::format("cd %@; fbthreadgrab",
                   vl::devicetools::shellQuoted(vl::paths::resolve(kVLFaultbinDirectory))),
        {}, true, kVLThreadGrabTimeout);
  }
  VLExecuteShellCommand(report, {}, true, kVLMemoryReportTimeout);
}

std::optional<std::string> VLTriggerLogCollect(const vl::Date& start, const std::string& label) {
  VLLog(VLLogLevelNotice, kCategory, "Triggering log collect for: '%@'", label);
  const std::string folder = vl::paths::resolve(kVLLogCollectDirectory);
  if (ensureDirectory(folder)) {
    VLLog(VLLogLevelError, kCategory, "Failed to create log collect directory. Cannot continue");
    return std::nullopt;
  }
  const std::string path =
      vl::paths::join(folder, vl::format("start%@-end%@.logarchive", vl::dateString(start),
                                         vl::dateString(vl::Date::now())));
  try {
    vl::diagnosticArchiver()->createLogArchive(
        path, INT64_MAX, static_cast<int64_t>(start.secondsSince1970), 1, [](const char* warning) {
          VLLog(VLLogLevelError, kCategory, "Got warning while creating log archive: '%s'",
                warning);
        });
  } catch (const std::exception& e) {
    VLLog(VLLogLevelError, kCategory, "Got warning while creating log archive: '%s'", e.what());
  }
  return path;
}
