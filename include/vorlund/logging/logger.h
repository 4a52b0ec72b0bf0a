// VLLogger: the older, self-contained file logger beside VLLog. It owns per-process log files under
// ~/Library/Logs/Vorlund, appends time-stamped lines, rolls files over by age, watches free space
// when a write fails, and copies the system log of chosen processes into files (log streaming).
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vorlund/foundation/value.h"
#include "vorlund/logging/activity_stream.h"
#include "vorlund/logging/log.h"

namespace vl {

// An open log file for appending, owned by a VLLogger. Writes to one file are serialised on the
// file's mutex.
class LogFile {
 public:
  LogFile(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}
  ~LogFile() { close(); }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  const std::string& path() const { return path_; }
  bool isOpen() const { return fd_ >= 0; }
  std::mutex& mutex() { return mutex_; }

  // Appends bytes at the end of the file. Returns false, with a description of what failed in
  // failure, when the file is closed or the write fails.
  bool append(std::string_view bytes, std::string* failure);
  void close();

 private:
  std::string path_;
  int fd_;
  std::mutex mutex_;
};

}  // namespace vl

// The folder of VLLogger's default files, and of its rolled files when there is no default file.
inline constexpr const char* kVLLoggerDirectory = "~/Library/Logs/Vorlund";
// The logger's preferences; "Time-To-Live" (seconds) bounds the age of the files rollover keeps.
inline constexpr const char* kVLLoggerPreferencesPath =
    "~/Library/Preferences/com.brindle.Vorlund.logger.plist";
inline constexpr const char* kVLLoggerTimeToLiveKey = "Time-To-Live";
inline constexpr double kVLLoggerDefaultTimeToLive = 1209600;  // 14 days
// The pause after a fatal VLLogOld line, so that the line is on disk before the process ends.
inline constexpr double kVLLogFatalPause = 1;
// The stream options: live entries, debug entries and process output (activity_stream.h).
inline constexpr uint32_t kVLLogStreamOptions = 261;

class VLLogger : public vl::ActivityStreamDelegate {
 public:
  // The one logger of the process, created on first use; it lives until the process ends.
  static VLLogger& sharedLogger();

  // Level 1, no open files, then resetLogFile(), no streams. The log streams use journald
  // (vl::makeJournalActivityStream) unless setActivityStreamFactory says otherwise.
  VLLogger();
  // Stops the stream and closes every open file.
  ~VLLogger() override;
  VLLogger(const VLLogger&) = delete;
  VLLogger& operator=(const VLLogger&) = delete;

  // Whether the process was started by the service manager: its parent is named "warden", or is
  // process 1, or (on Linux) is named "systemd", the per-user service manager.
  bool isWardenProcess() const;
  // The rule of isWardenProcess over a given parent.
  static bool isWardenParent(std::string_view parentName, int parentId);

  // Chooses the default file: none (standard output) for a process started by hand; otherwise
  // ~/Library/Logs/Vorlund/vorlund_tether_<user>_messaging.log for "vorlund_tether" and
  // <process>_<yyyy-MM-dd-HH-mm-ss>.log for any other process, created at once.
  void resetLogFile();

  // The open file for path in owner's open files, opening it (and creating it with its folders)
  // when needed. A file that cannot be created is reported to syslog ("Failed to create file %s");
  // returns nullptr when it cannot be opened. A file closed by rollover is opened again.
  static std::shared_ptr<vl::LogFile> createFile(const std::string& path, VLLogger& owner);

  // Appends "<time> > <message>\n" to file, or to the default file, or to standard output when
  // there is neither (or the file cannot be opened). A failed write is reported to syslog, asks for
  // a diagnostic archive and is retried (without limit) while the file system holding /var has at
  // least the line's length plus 1000 bytes free; otherwise throws the VLException "File System
  // free space too small", after which the process is expected to end.
  void logMessage(const std::string& message,
                  const std::optional<std::string>& file = std::nullopt);

  // Starts a new default file "<process, spaces as _>-<time in logTimeFormat>.log" beside the old
  // one (created on the next write) and deletes this process's files in that folder whose creation
  // date is more than the time-to-live away from now. The creation date is the file's birth time
  // where the file system records one, else its modification time. Never fails.
  void rollover();

  // Streams the system log of the processes "Vorlund" into the default file. Returns false when
  // there is no default file (the process logs to standard output).
  bool createLogStreamForCurrentProcess();
  // Copies the system log of processes into path. One stream serves every file: adding a file
  // restarts it with the union of all process lists. Returns false when path is already streaming.
  bool streamOSLogToFile(const std::string& path, const std::vector<std::string>& processes);
  // Stops copying into path (the stream keeps running for the other files). Returns false when
  // path was not streaming.
  // The name reads "Steam", not "Stream", on purpose: it is the established name of this call.
  bool stopSteamToFile(const std::string& path);

  // The stream delegate. activityStream always returns true (keep streaming).
  bool activityStream(vl::ActivityStream& stream,
                      const std::vector<vl::ActivityEvent>& events) override;
  void streamDidStart(vl::ActivityStream& stream) override;
  void streamDidFail(vl::ActivityStream& stream, const vl::Error& error) override;
  void streamDidStop(vl::ActivityStream& stream) override;

  // The factory of the streams that streamOSLogToFile starts.
  void setActivityStreamFactory(vl::ActivityStreamFactory factory);

  VLLogLevel logLevel() const { return logLevel_; }
  void setLogLevel(VLLogLevel level) { logLevel_ = level; }
  // "yyyy-MM-dd HH:mm:ss.SSSSSS", local time.
  const std::string& logTimeFormat() const { return logTimeFormat_; }
  // The date in logTimeFormat.
  std::string timestamp(const vl::Date& date);
  std::optional<std::string> logFile() const;
  // Path to open file, including files that rollover closed.
  std::map<std::string, std::shared_ptr<vl::LogFile>> openFiles() const;
  // Path to the process names streamed into it.
  vl::Dictionary logStreams() const;

 private:
  std::optional<std::string> findStreamPath(vl::ActivityStream& stream);

  // Guards logFile_ and openFiles_.
  mutable std::mutex stateMutex_;
  std::optional<std::string> logFile_;
  std::map<std::string, std::shared_ptr<vl::LogFile>> openFiles_;

  std::atomic<VLLogLevel> logLevel_{1};
  const std::string logTimeFormat_ = "yyyy-MM-dd HH:mm:ss.SSSSSS";
  // Serialises uses of the time format. Taken after streamsMutex_ and after a file's mutex.
  std::mutex formatterMutex_;
  // Serialises writes when there is no file.
  std::mutex stdoutMutex_;

  // Guards logStreams_, currentStream_ and the factory. Recursive: a stream may report to its
  // delegate from within a call made under it.
  mutable std::recursive_mutex streamsMutex_;
  vl::Dictionary logStreams_;
  std::shared_ptr<vl::ActivityStream> currentStream_;
  vl::ActivityStreamFactory streamFactory_;
};

// Writes message through the shared VLLogger to file (or its default target when none). Levels 0
// to 15 above the logger's level are dropped; levels 16 and up, and negative ones, always written.
// After a level 17 line it pauses one (scaled) second. Throws what logMessage throws.
void VLLogOld(VLLogLevel level, const std::optional<std::string>& file, const std::string& message);
void VLSetLogLevel(VLLogLevel level);
void VLResetLogFile();
void VLCreateLogForCurrentProcess();
