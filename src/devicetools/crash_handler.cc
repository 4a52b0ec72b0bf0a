// The in-process crash reporter. Everything the signal handler touches is prepared here, in fixed
// buffers, because a handler may call only async-signal-safe functions: no allocation, no stdio,
// no locale or time-zone lookups. The local time of the report's name comes from the UTC offset
// noted at installation (a daylight-saving change during the run shifts it by an hour at most,
// which only moves the name's date, never the scanner's reading of it).
#include "vorlund/devicetools/crash_handler.h"

#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <mutex>

#include "devicetools/crash_report_writer.h"
#include "vorlund/devicetools/crash_collector.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS};
constexpr int kMaxFrames = 128;

// What the handler writes with; filled at installation, read only by the handler.
struct Prepared {
  char folder[4096];      // resolved Faultbin folder, ending in "/"
  char name[256];         // file-name-safe process name
  char executable[4096];  // /proc/self/exe
  long utcOffset;         // seconds east of UTC at installation
};
Prepared prepared;
std::atomic<bool> installed{false};
std::mutex installLock;

// A tiny append-only text buffer over a fixed array; what does not fit is cut.
class Text {
 public:
  Text(char* data, size_t capacity) : data_(data), capacity_(capacity) { data_[0] = '\0'; }
  Text& add(const char* text) {
    while (*text && size_ + 1 < capacity_) data_[size_++] = *text++;
    data_[size_] = '\0';
    return *this;
  }
  Text& add(uint64_t number, int width = 0) {
    char digits[24];
    int n = 0;
    do {
      digits[n++] = static_cast<char>('0' + number % 10);
      number /= 10;
    } while (number != 0);
    while (n < width) digits[n++] = '0';
    while (n > 0 && size_ + 1 < capacity_) data_[size_++] = digits[--n];
    data_[size_] = '\0';
    return *this;
  }
  const char* c_str() const { return data_; }
  size_t size() const { return size_; }

 private:
  char* data_;
  size_t capacity_;
  size_t size_ = 0;
};

const char* signalName(int signal) {
  switch (signal) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGBUS:
      return "SIGBUS";
    case SIGILL:
      return "SIGILL";
    case SIGFPE:
      return "SIGFPE";
    case SIGABRT:
      return "SIGABRT";
    case SIGTRAP:
      return "SIGTRAP";
    case SIGSYS:
      return "SIGSYS";
    default:
      return "a fatal signal";
  }
}

struct CivilTime {
  uint64_t year, month, day, hour, minute, second;
};

// Days since 1970-01-01 to a civil date (the proleptic Gregorian calendar), without a library.
CivilTime civilTime(int64_t seconds) {
  int64_t days = seconds / 86400;
  int64_t rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  days += 719468;
  const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const int64_t dayOfEra = days - era * 146097;
  const int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
  const int64_t day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
  const int64_t month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
  const int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
  return {static_cast<uint64_t>(year),
          static_cast<uint64_t>(month),
          static_cast<uint64_t>(day),
          static_cast<uint64_t>(rest / 3600),
          static_cast<uint64_t>(rest / 60 % 60),
          static_cast<uint64_t>(rest % 60)};
}

void writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    data += n;
    size -= static_cast<size_t>(n);
  }
}

}  // namespace

namespace vl {

void writeCrashReport(int signal, const siginfo_t* info) {
  if (prepared.folder[0] == '\0') return;
  const time_t now = time(nullptr);
  const CivilTime local = civilTime(static_cast<int64_t>(now) + prepared.utcOffset);
  char dateBuffer[32];
  Text date(dateBuffer, sizeof dateBuffer);
  date.add(local.year, 4).add("-").add(local.month, 2).add("-").add(local.day, 2).add("-");
  date.add(local.hour, 2).add(local.minute, 2).add(local.second, 2);
  char readableBuffer[32];
  Text readable(readableBuffer, sizeof readableBuffer);
  readable.add(local.year, 4).add("-").add(local.month, 2).add("-").add(local.day, 2).add(" ");
  readable.add(local.hour, 2).add(":").add(local.minute, 2).add(":").add(local.second, 2);

  char temporaryBuffer[4500];
  Text temporary(temporaryBuffer, sizeof temporaryBuffer);
  temporary.add(prepared.folder).add(".crash-").add(static_cast<uint64_t>(getpid())).add(".tmp");
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return;

  char headerBuffer[9000];
  Text header(headerBuffer, sizeof headerBuffer);
  header.add("Process:         ").add(prepared.name).add(" [").add(static_cast<uint64_t>(getpid()));
  header.add("]\nPath:            ").add(prepared.executable);
  header.add("\nUser ID:         ").add(static_cast<uint64_t>(getuid()));
  header.add("\nDate/Time:       ").add(readable.c_str());
  header.add("\nException Type:  ").add(signalName(signal));
  if (info && info->si_code > 0 && signal != SIGABRT) {
    header.add(" at 0x");
    uintptr_t address = reinterpret_cast<uintptr_t>(info->si_addr);
    char hex[2 * sizeof address + 1];
    for (size_t i = 0; i < 2 * sizeof address; ++i) {
      hex[i] = "0123456789abcdef"[(address >> (4 * (2 * sizeof address - 1 - i))) & 0xf];
    }
    hex[2 * sizeof address] = '\0';
    header.add(hex);
  }
  header.add("\nReported By:     the process's own crash handler\n\nThread 0 Crashed: tid ");
  header.add(static_cast<uint64_t>(syscall(SYS_gettid))).add("\n");
  writeAll(fd, header.c_str(), header.size());
  void* frames[kMaxFrames];
  const int count = backtrace(frames, kMaxFrames);
  backtrace_symbols_fd(frames, count, fd);
  fsync(fd);
  close(fd);

  // Linking never replaces a report already there (another crash in the same second).
  for (uint64_t attempt = 1; attempt < 100; ++attempt) {
    char finalBuffer[4600];
    Text final(finalBuffer, sizeof finalBuffer);
    final.add(prepared.folder).add(prepared.name).add("_").add(date.c_str());
    if (attempt > 1) final.add("-").add(attempt);
    final.add(".ips");
    if (link(temporary.c_str(), final.c_str()) == 0 || errno != EEXIST) break;
  }
  unlink(temporary.c_str());
}

}  // namespace vl

namespace {

void onFatalSignal(int signal, siginfo_t* info, void*) {
  const int savedErrno = errno;
  vl::writeCrashReport(signal, info);
  errno = savedErrno;
  // SA_RESETHAND restored the default action; the signal is blocked while this runs, so the
  // re-raised one ends the process as soon as the handler returns. A fault re-executes the
  // faulting instruction and ends it the same way.
  raise(signal);
}

std::string kernelProcessName() {
  std::optional<std::string> comm = vl::paths::readFile("/proc/self/comm");
  std::string name = comm.value_or("");
  while (!name.empty() && name.back() == '\n') name.pop_back();
  return name.empty() ? vl::process::name() : name;
}

bool copyInto(char* buffer, size_t capacity, const std::string& text) {
  if (text.size() + 1 > capacity) return false;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return true;
}

}  // namespace

namespace vl {

bool systemdCoredumpHandlesCrashes() {
  std::optional<std::string> pattern = paths::readFile("/proc/sys/kernel/core_pattern");
  return pattern && pattern->starts_with("|") &&
         pattern->find("systemd-coredump") != std::string::npos;
}

bool installCrashReportHandler(const CrashReportHandlerOptions& options, std::string* why) {
  if (!options.evenWithSystemdCoredump && systemdCoredumpHandlesCrashes()) {
    if (why) *why = "systemd-coredump reports this device's crashes";
    return false;
  }
  std::string folder = paths::resolve(faultbinFolderForUid(getuid()));
  if (!folder.ends_with('/')) folder += '/';
  if (!paths::createDirectories(folder)) {
    if (why) *why = "cannot create " + folder + ": " + std::strerror(errno);
    return false;
  }
  std::string name = faultbinFileNameForProcess(options.processName.empty() ? kernelProcessName()
                                                                            : options.processName);
  char executable[4096] = {};
  ssize_t length = readlink("/proc/self/exe", executable, sizeof executable - 1);
  if (length < 0) length = 0;
  executable[length] = '\0';
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);

  std::lock_guard lock(installLock);
  // The handler may run on another thread while the buffers change; it then reads a mix of two
  // installations, each of which names a real folder and process.
  if (!copyInto(prepared.folder, sizeof prepared.folder, folder) ||
      !copyInto(prepared.name, sizeof prepared.name, name)) {
    if (why) *why = "the Faultbin folder or process name is too long";
    return false;
  }
  copyInto(prepared.executable, sizeof prepared.executable, executable);
  prepared.utcOffset = local.tm_gmtoff;
  if (installed.exchange(true)) return true;

  // The first backtrace loads the unwinder, which allocates: never in the handler.
  void* frames[2];
  backtrace(frames, 2);
  // A stack overflow leaves no stack to run the handler on.
  static char alternateStack[64 * 1024];
  stack_t stack{};
  stack.ss_sp = alternateStack;
  stack.ss_size = sizeof alternateStack;
  sigaltstack(&stack, nullptr);

  struct sigaction action {};
  action.sa_sigaction = onFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_RESETHAND | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (int signal : kFatalSignals) sigaction(signal, &action, nullptr);
  return true;
}

}  // namespace vl
