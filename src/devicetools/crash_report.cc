#include "vorlund/devicetools/crash_report.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "vorlund/foundation/json.h"
#include "vorlund/foundation/regex.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kCategory = "Framework";
constexpr size_t kReadBufferSize = 16 * 1024;

const vl::Regex& dateExpression() {
  static const vl::Regex expression =
      *vl::Regex::compile(kVLFaultbinDatePattern, vl::RegexOptions{.caseless = true});
  return expression;
}

int digits(std::string_view text, size_t offset, size_t count) {
  int value = 0;
  for (size_t i = offset; i < offset + count; ++i) value = value * 10 + (text[i] - '0');
  return value;
}

// "yyyy-MM-dd-HHmmss" in local time. A field out of its range, or a day the month does not have,
// makes the date unreadable rather than rolling over into the next month.
std::optional<vl::Date> readFaultbinDate(std::string_view text) {
  if (text.size() != 17) return std::nullopt;
  for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9, 11, 12, 13, 14, 15, 16}) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
  }
  std::tm fields{};
  fields.tm_year = digits(text, 0, 4) - 1900;
  fields.tm_mon = digits(text, 5, 2) - 1;
  fields.tm_mday = digits(text, 8, 2);
  fields.tm_hour = digits(text, 11, 2);
  fields.tm_min = digits(text, 13, 2);
  fields.tm_sec = digits(text, 15, 2);
  fields.tm_isdst = -1;
  if (fields.tm_mon < 0 || fields.tm_mon > 11 || fields.tm_mday < 1 || fields.tm_hour > 23 ||
      fields.tm_min > 59 || fields.tm_sec > 59) {
    return std::nullopt;
  }
  const int month = fields.tm_mon;
  const int day = fields.tm_mday;
  const std::time_t seconds = std::mktime(&fields);
  if (fields.tm_mon != month || fields.tm_mday != day) return std::nullopt;
  return vl::Date{static_cast<double>(seconds)};
}

// Hands each piece of the stream to visit (see kVLCrashReportPieceLength) until visit returns true
// (then true) or the stream ends (false). read(buffer, size) returns the bytes it read, 0 at the
// end, or -1; an error ends the stream as the end of the file would.
template <typename Read, typename Visit>
bool forEachPiece(Read&& read, Visit&& visit) {
  char buffer[kReadBufferSize];
  size_t begin = 0;
  size_t end = 0;
  bool atEnd = false;
  for (;;) {
    const size_t available = end - begin;
    const char* start = buffer + begin;
    size_t length;
    if (const void* feed =
            std::memchr(start, '\n', std::min(available, kVLCrashReportPieceLength))) {
      length = static_cast<size_t>(static_cast<const char*>(feed) - start) + 1;
    } else if (available >= kVLCrashReportPieceLength) {
      length = kVLCrashReportPieceLength;
    } else if (!atEnd) {
      std::memmove(buffer, start, available);
      begin = 0;
      end = available;
      ssize_t n = read(buffer + end, kReadBufferSize - end);
      if (n <= 0) {
        atEnd = true;
      } else {
        end += static_cast<size_t>(n);
      }
      continue;
    } else if (available == 0) {
      return false;
    } else {
      length = available;
    }
    if (visit(std::string_view(start, length))) return true;
    begin += length;
  }
}

auto textReader(std::string_view text) {
  return [text](char* into, size_t size) mutable -> ssize_t {
    size_t n = std::min(size, text.size());
    std::memcpy(into, text.data(), n);
    text.remove_prefix(n);
    return static_cast<ssize_t>(n);
  };
}

bool isCrashedThreadPiece(std::string_view piece) {
  return piece.starts_with("Thread ") && piece.find("Crashed") != std::string_view::npos;
}

std::string_view withoutLineFeed(std::string_view piece) {
  if (piece.ends_with('\n')) piece.remove_suffix(1);
  return piece;
}

class ReportFile {
 public:
  explicit ReportFile(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~ReportFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  ReportFile(const ReportFile&) = delete;
  ReportFile& operator=(const ReportFile&) = delete;

  bool isOpen() const { return fd_ >= 0; }
  auto reader() {
    return [fd = fd_](char* into, size_t size) -> ssize_t {
      ssize_t n;
      do {
        n = ::read(fd, into, size);
      } while (n < 0 && errno == EINTR);
      return n;
    };
  }

 private:
  int fd_;
};

std::string textOf(const vl::Value& value) {
  if (const std::string* text = value.asString()) return *text;
  return value.description();
}

}  // namespace

namespace vl {

FaultbinFileName parseFaultbinFileName(std::string_view name) {
  FaultbinFileName parsed;
  std::pair<size_t, size_t> range;
  if (!getRangeForDateInString(name, &range)) return parsed;
  parsed.time = readFaultbinDate(name.substr(range.first, range.second));
  if (parsed.time && range.first > 0) parsed.process = std::string(name.substr(0, range.first - 1));
  return parsed;
}

std::optional<std::string> findCrashedThreadLine(std::string_view report) {
  std::optional<std::string> line;
  forEachPiece(textReader(report), [&](std::string_view piece) {
    if (!isCrashedThreadPiece(piece)) return false;
    line = std::string(withoutLineFeed(piece));
    return true;
  });
  return line;
}

bool hasSimulatedCrashNote(std::string_view report) {
  return forEachPiece(textReader(report), [](std::string_view piece) {
    return piece.starts_with(kVLSimulatedCrashNote);
  });
}

std::optional<std::vector<CullerKill>> parseKillReport(std::string_view report, Error* error) {
  size_t feed = report.find('\n');
  std::string_view body =
      feed == std::string_view::npos ? std::string_view() : report.substr(feed + 1);
  std::optional<Value> json = json::parse(body, error);
  if (!json) return std::nullopt;
  std::vector<CullerKill> kills;
  const Dictionary* top = json->asDictionary();
  const Array* processes = top ? top->get("processes").asArray() : nullptr;
  if (!processes) return kills;
  for (const Value& element : *processes) {
    const Dictionary* process = element.asDictionary();
    if (!process) continue;
    const Value* reason = process->find("reason");
    const Value* name = process->find("name");
    if (!reason || !name || name->isNone()) continue;
    kills.push_back({textOf(*name), textOf(*reason)});
  }
  return kills;
}

}  // namespace vl

namespace {

// Whether a piece of the file satisfies found (which logs what it found); false, after logging the
// failure, when the file cannot be opened.
template <typename Found>
bool findPieceInFile(const std::string& path, Found&& found) {
  ReportFile file(path);
  if (!file.isOpen()) {
    VLLog(VLLogLevelError, kCategory, "Could not open file at path %@", path);
    return false;
  }
  return forEachPiece(file.reader(), found);
}

}  // namespace

bool VLFindThreadCrashInFile(const std::string& path) {
  return findPieceInFile(path, [](std::string_view piece) {
    if (!isCrashedThreadPiece(piece)) return false;
    // The piece's own line feed would end the log line twice.
    VLLog(VLLogLevelError, kCategory, "~~~ Found Crash Line: %@",
          std::string(withoutLineFeed(piece)));
    return true;
  });
}

bool VLIsCrashSimulated(const std::string& path) {
  return findPieceInFile(path, [](std::string_view piece) {
    if (!piece.starts_with(kVLSimulatedCrashNote)) return false;
    VLLog(VLLogLevelError, kCategory, "Crash file is SIMULATED");
    return true;
  });
}

bool getRangeForDateInString(std::string_view string, std::pair<size_t, size_t>* range) {
  std::optional<vl::RegexMatch> match = dateExpression().firstMatch(string);
  if (!match) return false;
  if (range) *range = {match->offset(), match->length()};
  return true;
}
