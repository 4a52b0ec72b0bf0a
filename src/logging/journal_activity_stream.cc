// The activity stream over the systemd journal: a thread follows the entries whose _COMM is one of
// the filter processes and hands them to the delegate in batches.
#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>

#include "vorlund/logging/activity_stream.h"

namespace vl {

namespace {

constexpr size_t kMaximumBatch = 256;
constexpr int kDebugPriority = 7;

struct JournalCloser {
  void operator()(sd_journal* j) const { sd_journal_close(j); }
};
using ScopedJournal = std::unique_ptr<sd_journal, JournalCloser>;

std::optional<std::string> field(sd_journal* j, const char* name) {
  const void* data = nullptr;
  size_t length = 0;
  if (sd_journal_get_data(j, name, &data, &length) < 0) return std::nullopt;
  std::string_view entry(static_cast<const char*>(data), length);
  size_t equals = entry.find('=');
  if (equals == std::string_view::npos) return std::nullopt;
  return std::string(entry.substr(equals + 1));
}

Error journalError(const char* what, int negativeErrno) {
  return Error::withDescription("com.brindle.Vorlund", -negativeErrno,
                                std::string(what) + ": " + std::strerror(-negativeErrno));
}

class JournalActivityStream final : public ActivityStream {
 public:
  explicit JournalActivityStream(std::optional<std::string> directory)
      : directory_(std::move(directory)), wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  ~JournalActivityStream() override {
    stop();
    if (thread_.joinable()) thread_.join();
    if (wakeFd_ >= 0) ::close(wakeFd_);
  }

  void setFilterProcesses(std::vector<std::string> processes) override {
    std::lock_guard lock(mutex_);
    processes_ = std::move(processes);
  }
  void setOptions(uint32_t options) override {
    std::lock_guard lock(mutex_);
    options_ = options;
  }
  void setDelegate(ActivityStreamDelegate* delegate) override {
    std::lock_guard lock(mutex_);
    delegate_ = delegate;
  }

  void start() override {
    std::lock_guard lock(mutex_);
    if (thread_.joinable() || stopRequested_) return;
    thread_ = std::thread([this, processes = processes_, options = options_, delegate = delegate_] {
      run(processes, options, delegate);
    });
  }

  void stop() override {
    stopRequested_ = true;
    if (wakeFd_ >= 0) {
      uint64_t one = 1;
      [[maybe_unused]] ssize_t ignored = ::write(wakeFd_, &one, sizeof one);
    }
  }

 private:
  void run(const std::vector<std::string>& processes, uint32_t options,
           ActivityStreamDelegate* delegate) {
    sd_journal* raw = nullptr;
    int r = directory_ ? sd_journal_open_directory(&raw, directory_->c_str(), 0)
                       : sd_journal_open(&raw, SD_JOURNAL_LOCAL_ONLY);
    if (r < 0) {
      if (delegate) delegate->streamDidFail(*this, journalError("cannot open the journal", r));
      return;
    }
    ScopedJournal journal(raw);
    for (const std::string& process : processes) {
      std::string match = "_COMM=" + process.substr(0, kProcessNameLength);
      sd_journal_add_match(raw, match.data(), match.size());
    }
    if (options & kActivityStreamOptionLive) {
      sd_journal_seek_tail(raw);
      sd_journal_previous(raw);
    } else {
      sd_journal_seek_head(raw);
    }
    if (delegate) delegate->streamDidStart(*this);

    while (!stopRequested_) {
      std::vector<ActivityEvent> batch;
      // With no process to follow nothing is delivered; the stream just waits to be stopped.
      while (!processes.empty() && batch.size() < kMaximumBatch && (r = sd_journal_next(raw)) > 0) {
        if (auto event = readEvent(raw, options)) batch.push_back(std::move(*event));
      }
      if (r < 0) {
        if (delegate) delegate->streamDidFail(*this, journalError("cannot read the journal", r));
        return;
      }
      if (!batch.empty()) {
        if (stopRequested_) break;
        if (delegate && !delegate->activityStream(*this, batch)) break;
        if (batch.size() == kMaximumBatch) continue;
      }
      if (!waitForChange(raw)) break;
    }
    if (delegate) delegate->streamDidStop(*this);
  }

  std::optional<ActivityEvent> readEvent(sd_journal* j, uint32_t options) {
    if (auto priority = field(j, "PRIORITY"); priority &&
                                              std::atoi(priority->c_str()) >= kDebugPriority &&
                                              !(options & kActivityStreamOptionDebug)) {
      return std::nullopt;
    }
    std::string transport = field(j, "_TRANSPORT").value_or("");
    ActivityEvent event;
    if (transport == "stdout") {
      if (!(options & kActivityStreamOptionOutput)) return std::nullopt;
    } else {
      event.isLogMessage = true;
      event.category = field(j, "SYSLOG_IDENTIFIER");
    }
    uint64_t usec = 0;
    if (sd_journal_get_realtime_usec(j, &usec) >= 0) {
      event.timestamp = Date{static_cast<double>(usec) / 1e6};
    }
    event.processName = field(j, "_COMM").value_or("");
    event.executable = field(j, "_EXE");
    event.commandLine = field(j, "_CMDLINE");
    event.message = field(j, "MESSAGE");
    return event;
  }

  // Waits for new entries or stop(). Returns false when the journal cannot be waited on.
  bool waitForChange(sd_journal* j) {
    int fd = sd_journal_get_fd(j);
    int events = sd_journal_get_events(j);
    if (fd < 0 || events < 0) return false;
    uint64_t timeoutUsec = 0;
    int timeoutMs = -1;
    if (sd_journal_get_timeout(j, &timeoutUsec) >= 0 && timeoutUsec != UINT64_MAX) {
      timespec now{};
      clock_gettime(CLOCK_MONOTONIC, &now);
      uint64_t nowUsec = static_cast<uint64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
      timeoutMs =
          timeoutUsec > nowUsec ? static_cast<int>((timeoutUsec - nowUsec + 999) / 1000) : 0;
    }
    pollfd fds[2] = {{fd, static_cast<short>(events), 0}, {wakeFd_, POLLIN, 0}};
    if (::poll(fds, 2, timeoutMs) < 0 && errno != EINTR) return false;
    sd_journal_process(j);
    return true;
  }

  const std::optional<std::string> directory_;
  const int wakeFd_;
  std::mutex mutex_;
  std::vector<std::string> processes_;
  uint32_t options_ = 0;
  ActivityStreamDelegate* delegate_ = nullptr;
  std::atomic<bool> stopRequested_{false};
  std::thread thread_;
};

}  // namespace

bool isEventFromProcess(const ActivityEvent& event, std::string_view name) {
  if (event.processName == name) return true;
  if (name.size() <= kProcessNameLength || name.substr(0, kProcessNameLength) != event.processName) {
    return false;
  }
  auto fileName = [](std::string_view path) {
    size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
  };
  if (event.executable && fileName(*event.executable) == name) return true;
  if (!event.commandLine) return false;
  std::string_view line = *event.commandLine;
  return fileName(line.substr(0, line.find(' '))) == name;
}

std::shared_ptr<ActivityStream> makeJournalActivityStream(std::optional<std::string> directory) {
  return std::make_shared<JournalActivityStream>(std::move(directory));
}

}  // namespace vl
