// Writing Faultbin reports without ever replacing or half-writing a file, and the collector that
// carries the journal cursor from pass to pass.
#include "vorlund/devicetools/crash_collector.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vorlund/foundation/paths.h"
#include "vorlund/logging/log.h"

namespace vl {

namespace {

constexpr const char* kCategory = "Framework";
constexpr const char* kErrorDomain = "com.brindle.Vorlund.faultbin";
// Entries read per batch; the cursor is stored after each one.
constexpr size_t kBatchSize = 512;
// Names tried for one report before giving up ("-2" ... "-99").
constexpr int kMaximumSuffix = 99;

Error systemError(const std::string& what) {
  return Error::withDescription(kErrorDomain, errno, what + ": " + std::strerror(errno));
}

struct ScopedFd {
  int fd;
  ~ScopedFd() {
    if (fd >= 0) ::close(fd);
  }
};

// Writes bytes to a fresh temporary file in folder and links it to path, which fails when path
// exists: a reader sees the whole file or none. False with errno set on failure (EEXIST: taken).
bool linkNewFile(const std::string& folder, const std::string& path, const std::string& bytes) {
  std::string temporary = paths::join(folder, ".report-XXXXXX");
  ScopedFd file{::mkostemp(temporary.data(), O_CLOEXEC)};
  if (file.fd < 0) return false;
  bool ok = true;
  for (size_t done = 0; ok && done < bytes.size();) {
    ssize_t n = ::write(file.fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<size_t>(n);
  }
  ok = ok && ::fsync(file.fd) == 0 && ::fchmod(file.fd, 0644) == 0 &&
       ::link(temporary.c_str(), path.c_str()) == 0;
  int saved = errno;
  ::unlink(temporary.c_str());
  errno = saved;
  return ok;
}

std::string suffixedName(const std::string& fileName, int suffix) {
  if (suffix == 1) return fileName;
  size_t dot = fileName.rfind('.');
  return fileName.substr(0, dot) + "-" + std::to_string(suffix) + fileName.substr(dot);
}

}  // namespace

std::optional<std::string> writeFaultbinReport(const FaultbinReport& report, bool* alreadyThere,
                                               Error* error) {
  if (alreadyThere) *alreadyThere = false;
  std::string folder = paths::resolve(report.folder);
  if (!paths::createDirectories(folder)) {
    setError(error, systemError("cannot create " + folder));
    return std::nullopt;
  }
  for (int suffix = 1; suffix <= kMaximumSuffix; ++suffix) {
    std::string path = paths::join(folder, suffixedName(report.fileName, suffix));
    if (linkNewFile(folder, path, report.contents)) return path;
    if (errno != EEXIST) {
      setError(error, systemError("cannot write " + path));
      return std::nullopt;
    }
    if (paths::readFile(path) == report.contents) {
      if (alreadyThere) *alreadyThere = true;
      return path;
    }
  }
  setError(error, Error::withDescription(kErrorDomain, EEXIST,
                                         "too many reports named like " + report.fileName));
  return std::nullopt;
}

CrashCollector::CrashCollector(std::shared_ptr<JournalSource> source, std::string cursorPath)
    : source_(std::move(source)),
      cursorPath_(cursorPath.empty() ? paths::resolve(kVLCrashCollectorCursorPath)
                                     : std::move(cursorPath)) {}

JournalMatches CrashCollector::journalMatches() {
  return {{"MESSAGE_ID", kCoredumpMessageId},
          {"_TRANSPORT", "kernel"},
          {"_COMM", "systemd-oomd"},
          {"SYSLOG_IDENTIFIER", "systemd-oomd"}};
}

std::optional<std::string> CrashCollector::storedCursor() const {
  std::optional<std::string> text = paths::readFile(cursorPath_);
  if (!text) return std::nullopt;
  while (!text->empty() && (text->back() == '\n' || text->back() == '\r')) text->pop_back();
  if (text->empty()) return std::nullopt;
  return text;
}

std::optional<CrashCollectorSummary> CrashCollector::collect(Error* error) {
  CrashCollectorSummary summary;
  std::optional<std::string> cursor = storedCursor();
  auto fail = [&](const Error& e) -> std::optional<CrashCollectorSummary> {
    VLLog(VLLogLevelError, kCategory, "Faultbin collector stopped: %@", e.localizedDescription());
    setError(error, e);
    return std::nullopt;
  };
  for (;;) {
    Error readError;
    auto entries = source_->entriesAfter(cursor, journalMatches(), kBatchSize, &readError);
    if (!entries) return fail(readError);
    summary.entriesRead += entries->size();
    bool lastBatch = entries->size() < kBatchSize;
    // The last batch is not final: an entry still to come may complete a kill.
    FaultbinConversion conversion = convertJournalEntries(*entries, false);
    for (const FaultbinReport& report : conversion.reports) {
      bool existed = false;
      Error writeError;
      std::optional<std::string> path = writeFaultbinReport(report, &existed, &writeError);
      if (!path) return fail(writeError);
      (existed ? summary.alreadyThere : summary.written).push_back(*path);
    }
    bool moved = conversion.resumeCursor && conversion.resumeCursor != cursor;
    if (moved) {
      if (!paths::createDirectories(paths::deletingLastComponent(cursorPath_)) ||
          !paths::writeFileAtomically(cursorPath_, *conversion.resumeCursor + "\n")) {
        return fail(systemError("cannot store the journal cursor in " + cursorPath_));
      }
      cursor = conversion.resumeCursor;
    }
    if (lastBatch || !moved) break;
  }
  VLLog(VLLogLevelInfo, kCategory,
        "Faultbin collector read %zu journal entries: %zu reports written, %zu already there",
        summary.entriesRead, summary.written.size(), summary.alreadyThere.size());
  return summary;
}

}  // namespace vl
