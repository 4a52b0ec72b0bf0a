#include "vorlund/logging/logger.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/error.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_hooks.h"

namespace {

constexpr const char* kCategory = "Framework";
constexpr const char* kTetherProcess = "vorlund_tether";
constexpr const char* kStreamedProcess = "Vorlund";
// The strftime form of logTimeFormat.
constexpr const char* kTimePattern = "%Y-%m-%d %H:%M:%S.%f";
// A failed write is retried while at least this much more than the line is free.
constexpr uint64_t kFreeSpaceMargin = 1000;
constexpr const char* kFreeSpaceException = "File System free space too small";

// Writes one line to the system log at the critical priority.
void syslogCritical(const std::string& text) { ::syslog(LOG_CRIT, "%s", text.c_str()); }

void printToStandardOutput(const std::string& line) {
  std::fputs(line.c_str(), stdout);
  std::fflush(stdout);
}

// The attributes of the file system holding path, or of the nearest existing folder above it when
// path does not exist (yet). Empty when none can be read.
vl::Dictionary fileSystemAttributes(std::string path) {
  struct statvfs fs {};
  while (::statvfs(path.c_str(), &fs) != 0) {
    if (path.empty() || path == "/") return {};
    path = vl::paths::deletingLastComponent(path);
    if (path.empty()) path = "/";
  }
  vl::Dictionary attributes;
  attributes.set("NSFileSystemSize", static_cast<uint64_t>(fs.f_blocks) * fs.f_frsize);
  attributes.set("NSFileSystemFreeSize", static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize);
  attributes.set("NSFileSystemNodes", static_cast<uint64_t>(fs.f_files));
  attributes.set("NSFileSystemFreeNodes", static_cast<uint64_t>(fs.f_favail));
  attributes.set("NSFileSystemNumber", static_cast<uint64_t>(fs.f_fsid));
  return attributes;
}

// The creation date of a file: its birth time where the file system records one, else its
// modification time. None when the file cannot be read.
std::optional<vl::Date> creationDate(const std::string& path) {
  struct statx stx {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &stx) != 0) {
    return std::nullopt;
  }
  const statx_timestamp& t = (stx.stx_mask & STATX_BTIME) ? stx.stx_btime : stx.stx_mtime;
  return vl::Date{static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9};
}

double timeToLive() {
  auto preferences = vl::plist::readDictionary(vl::paths::expandTilde(kVLLoggerPreferencesPath));
  if (preferences) {
    const vl::Value* ttl = preferences->find(kVLLoggerTimeToLiveKey);
    if (ttl && ttl->isNumber()) return ttl->asNumber()->doubleValue();
  }
  return kVLLoggerDefaultTimeToLive;
}

std::string joined(const std::vector<std::string>& names, const char* separator) {
  std::string text;
  for (const std::string& name : names) {
    if (!text.empty()) text += separator;
    text += name;
  }
  return text;
}

std::vector<std::string> namesOf(const vl::Value& value) {
  std::vector<std::string> names;
  if (const vl::Array* array = value.asArray()) {
    for (const vl::Value& item : *array) names.push_back(item.stringOr(""));
  }
  return names;
}

}  // namespace

namespace vl {

bool LogFile::append(std::string_view bytes, std::string* failure) {
  auto fail = [&](const std::string& what) {
    if (failure) *failure = what;
    return false;
  };
  if (fd_ < 0) return fail("*** file handle of " + path_ + " is closed");
  if (::lseek(fd_, 0, SEEK_END) < 0) {
    return fail("*** cannot seek to the end of " + path_ + ": " + std::strerror(errno));
  }
  while (!bytes.empty()) {
    ssize_t written = ::write(fd_, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return fail("*** cannot write to " + path_ + ": " + std::strerror(errno));
    }
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

void LogFile::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

}  // namespace vl

VLLogger& VLLogger::sharedLogger() {
  static VLLogger* shared = nullptr;
  static std::once_flag once;
  std::call_once(once, [] { shared = new VLLogger(); });
  return *shared;
}

VLLogger::VLLogger() : streamFactory_([] { return vl::makeJournalActivityStream(); }) {
  resetLogFile();
}

VLLogger::~VLLogger() {
  std::shared_ptr<vl::ActivityStream> stream;
  {
    std::lock_guard lock(streamsMutex_);
    stream = std::move(currentStream_);
  }
  if (stream) {
    stream->stop();
    // The last reference goes here, outside the lock, so the stream's thread can finish.
    stream.reset();
  }
  std::lock_guard lock(stateMutex_);
  for (auto& [path, file] : openFiles_) file->close();
}

bool VLLogger::isWardenParent(std::string_view parentName, int parentId) {
  if (parentName == "warden" || parentName == "systemd") return true;
  return parentId == 1;
}

bool VLLogger::isWardenProcess() const {
  return isWardenParent(vl::process::parentName(), vl::process::parentId());
}

void VLLogger::resetLogFile() {
  std::optional<std::string> file;
  if (isWardenProcess()) {
    std::string directory = vl::paths::expandTilde(kVLLoggerDirectory);
    std::string name = vl::process::name();
    std::string fileName =
        name == kTetherProcess
            ? vl::format("vorlund_tether_%@_messaging.log", vl::process::userName())
            : vl::format("%@_%@.log", name, vl::dateString(vl::Date::now()));
    file = vl::paths::join(directory, fileName);
  }
  {
    std::lock_guard lock(stateMutex_);
    logFile_ = file;
  }
  if (file) createFile(*file, *this);
}

std::shared_ptr<vl::LogFile> VLLogger::createFile(const std::string& path, VLLogger& owner) {
  std::lock_guard lock(owner.stateMutex_);
  auto it = owner.openFiles_.find(path);
  struct stat st {};
  bool exists = ::stat(path.c_str(), &st) == 0;
  if (exists && it != owner.openFiles_.end() && it->second->isOpen()) return it->second;
  if (!exists) {
    std::string folder = vl::paths::deletingLastComponent(path);
    if (!folder.empty()) vl::paths::createDirectories(folder);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
      syslogCritical(vl::format("Failed to create file %s", path));
    } else {
      ::close(fd);
    }
  }
  int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    owner.openFiles_.erase(path);
    return nullptr;
  }
  auto file = std::make_shared<vl::LogFile>(path, fd);
  owner.openFiles_[path] = file;
  return file;
}

std::string VLLogger::timestamp(const vl::Date& date) {
  std::lock_guard lock(formatterMutex_);
  return vl::formatLocalTime(date, kTimePattern);
}

void VLLogger::logMessage(const std::string& message, const std::optional<std::string>& file) {
  // Retried until the write succeeds or the file system is too full to go on.
  for (;;) {
    std::shared_ptr<vl::LogFile> handle;
    if (file) {
      handle = createFile(*file, *this);
    } else if (auto defaultFile = logFile()) {
      handle = createFile(*defaultFile, *this);
    }
    std::unique_lock lock(handle ? handle->mutex() : stdoutMutex_);
    // Closed by rollover meanwhile: write to the file that is current now.
    if (handle && !handle->isOpen()) continue;
    std::string line = vl::format("%@ > %@\n", timestamp(vl::Date::now()), message);
    if (!handle) {
      printToStandardOutput(vl::format("%s", line));
      return;
    }
    std::string failure;
    if (handle->append(line, &failure)) return;

    syslogCritical(vl::format("Caught exception trying to write to file: %s", failure));
    vl::logging::requestDiagnosticArchive();
    vl::Dictionary attributes = fileSystemAttributes(vl::paths::resolve("/var"));
    uint64_t freeSize = attributes.get("NSFileSystemFreeSize").asNumber()
                            ? attributes.get("NSFileSystemFreeSize").asNumber()->uint64Value()
                            : 0;
    if (freeSize >= line.size() + kFreeSpaceMargin) continue;

    syslogCritical(vl::format("%s", message));
    syslogCritical(vl::format("File system size down to %lld...were screwed",
                              static_cast<long long>(freeSize)));
    throw VLException(kFreeSpaceException,
                      vl::format("%@ is unable to proceed since the free space on the file system "
                                 "is %@",
                                 vl::process::name(), attributes));
  }
}

void VLLogger::rollover() {
  try {
    std::optional<std::string> oldFile = logFile();
    std::string directory = oldFile ? vl::paths::deletingLastComponent(*oldFile)
                                    : vl::paths::expandTilde(kVLLoggerDirectory);
    std::string processName = vl::process::name();
    std::string fileName = processName;
    std::replace(fileName.begin(), fileName.end(), ' ', '_');
    // The time holds a space, colons and microseconds; the name is kept as it is.
    std::string newFile =
        vl::paths::join(directory, vl::format("%@-%@.log", fileName, timestamp(vl::Date::now())));
    {
      std::lock_guard lock(stateMutex_);
      if (oldFile) {
        // The entry stays; createFile opens the file again if it is written to later.
        if (auto it = openFiles_.find(*oldFile); it != openFiles_.end()) {
          std::lock_guard fileLock(it->second->mutex());
          it->second->close();
        }
      }
      logFile_ = newFile;
    }

    double ttl = timeToLive();
    struct Entry {
      std::string path;
      vl::Date created;
    };
    std::vector<Entry> entries;
    std::error_code error;
    for (const auto& item : std::filesystem::directory_iterator(directory, error)) {
      std::string name = item.path().filename().string();
      if (name.find(processName) == std::string::npos) continue;
      if (auto created = creationDate(item.path().string())) {
        entries.push_back({item.path().string(), *created});
      }
    }
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return a.created < b.created; });
    double now = vl::Date::now().secondsSince1970;
    for (const Entry& entry : entries) {
      if (std::fabs(now - entry.created.secondsSince1970) > ttl) {
        std::filesystem::remove_all(entry.path, error);
      }
    }
  } catch (const std::exception&) {
    // A folder that cannot be listed leaves nothing to delete.
  }
}

bool VLLogger::createLogStreamForCurrentProcess() {
  std::optional<std::string> file = logFile();
  if (!file) return false;
  return streamOSLogToFile(*file, {kStreamedProcess});
}

bool VLLogger::streamOSLogToFile(const std::string& path,
                                 const std::vector<std::string>& processes) {
  // Declared before the lock so that a replaced stream is released after it.
  std::shared_ptr<vl::ActivityStream> replaced;
  std::lock_guard lock(streamsMutex_);
  VLLog(VLLogLevelNotice, kCategory,
        "Attempting to start log stream at '%@' with process list [%@]", path,
        joined(processes, ", "));
  if (logStreams_.contains(path)) {
    VLLog(VLLogLevelError, kCategory,
          "Log already streaming to '%@', cannot start redundant stream", path);
    return false;
  }
  if (currentStream_) {
    VLLog(VLLogLevelNotice, kCategory, "Invalidating current stream to modify stream parameters");
    currentStream_->stop();
    replaced = std::move(currentStream_);
  }
  currentStream_ = streamFactory_ ? streamFactory_() : nullptr;
  if (!currentStream_) return false;

  std::vector<std::string> all = processes;
  for (const vl::Value& streamed : logStreams_.values()) {
    for (const std::string& name : namesOf(streamed)) {
      if (std::find(all.begin(), all.end(), name) == all.end()) all.push_back(name);
    }
  }
  currentStream_->setFilterProcesses(all);
  currentStream_->setOptions(kVLLogStreamOptions);
  currentStream_->setDelegate(this);
  currentStream_->start();

  vl::Array names;
  for (const std::string& name : processes) names.push_back(name);
  logStreams_.set(path, names);
  return true;
}

bool VLLogger::stopSteamToFile(const std::string& path) {
  std::lock_guard lock(streamsMutex_);
  VLLog(VLLogLevelNotice, kCategory, "Attempting to stop log stream at '%@'", path);
  if (logStreams_.contains(path)) {
    {
      std::lock_guard stateLock(stateMutex_);
      openFiles_.erase(path);
    }
    logStreams_.erase(path);
    return true;
  }
  VLLog(VLLogLevelError, kCategory, "No log streaming to '%@', cannot stop nonexistent stream",
        path);
  return false;
}

bool VLLogger::activityStream(vl::ActivityStream& /*stream*/,
                              const std::vector<vl::ActivityEvent>& events) {
  for (const vl::ActivityEvent& event : events) {
    if (!event.timestamp || !event.message) {
      vl::logging::recordStatisticIssue(
          "Received activity stream event without date and/or message");
      continue;
    }
    std::lock_guard lock(streamsMutex_);
    std::string time = timestamp(*event.timestamp);
    vl::Value category = event.category ? vl::Value(*event.category) : vl::Value();
    std::string line =
        event.isLogMessage
            ? vl::format("%@ (%@.%@) > %@\n", time, event.processName, category, *event.message)
            : vl::format("%@ (%@) > %@\n", time, event.processName, *event.message);
    for (size_t i = 0; i < logStreams_.size(); ++i) {
      auto [path, streamed] = logStreams_.entry(i);
      std::vector<std::string> names = namesOf(streamed);
      if (std::none_of(names.begin(), names.end(), [&](const std::string& name) {
            return vl::isEventFromProcess(event, name);
          })) {
        continue;
      }
      std::shared_ptr<vl::LogFile> file = createFile(path, *this);
      if (!file) {
        printToStandardOutput(vl::format("%s", line));
        return true;
      }
      std::lock_guard fileLock(file->mutex());
      // A failed copy is dropped: the stream goes on with the next event.
      file->append(line, nullptr);
    }
  }
  return true;
}

std::optional<std::string> VLLogger::findStreamPath(vl::ActivityStream& stream) {
  // The table holds process lists, so no entry is ever the stream and the callbacks below find
  // nothing to report. This is kept as it is.
  for (size_t i = 0; i < logStreams_.size(); ++i) {
    auto [path, value] = logStreams_.entry(i);
    const vl::RecordPtr* record = value.asRecord();
    if (record && *record && (*record)->isEqual(stream)) return path;
  }
  return std::nullopt;
}

void VLLogger::streamDidStart(vl::ActivityStream& stream) {
  std::lock_guard lock(streamsMutex_);
  if (auto path = findStreamPath(stream)) {
    VLLog(VLLogLevelError, kCategory, "Log stream for '%@' started", *path);
    logStreams_.erase(*path);
  }
}

void VLLogger::streamDidFail(vl::ActivityStream& stream, const vl::Error& error) {
  std::lock_guard lock(streamsMutex_);
  if (auto path = findStreamPath(stream)) {
    VLLog(VLLogLevelError, kCategory, "Log stream for '%@' failed with error: %@", *path, error);
    logStreams_.erase(*path);
  }
}

void VLLogger::streamDidStop(vl::ActivityStream& stream) {
  std::lock_guard lock(streamsMutex_);
  if (auto path = findStreamPath(stream)) {
    VLLog(VLLogLevelError, kCategory, "Log stream for '%@' stopped", *path);
    logStreams_.erase(*path);
  }
}

void VLLogger::setActivityStreamFactory(vl::ActivityStreamFactory factory) {
  std::lock_guard lock(streamsMutex_);
  streamFactory_ = std::move(factory);
}

std::optional<std::string> VLLogger::logFile() const {
  std::lock_guard lock(stateMutex_);
  return logFile_;
}

std::map<std::string, std::shared_ptr<vl::LogFile>> VLLogger::openFiles() const {
  std::lock_guard lock(stateMutex_);
  return openFiles_;
}

vl::Dictionary VLLogger::logStreams() const {
  std::lock_guard lock(streamsMutex_);
  return logStreams_;
}

void VLLogOld(VLLogLevel level, const std::optional<std::string>& file,
              const std::string& message) {
  VLLogger& logger = VLLogger::sharedLogger();
  if (level >= 0 && level < VLLogLevelError && logger.logLevel() < level) return;
  logger.logMessage(message, file);
  if (level == VLLogLevelFatal) vl::time::sleepFor(kVLLogFatalPause);
}

void VLSetLogLevel(VLLogLevel level) { VLLogger::sharedLogger().setLogLevel(level); }

void VLResetLogFile() { VLLogger::sharedLogger().resetLogFile(); }

void VLCreateLogForCurrentProcess() { VLLogger::sharedLogger().createLogStreamForCurrentProcess(); }
