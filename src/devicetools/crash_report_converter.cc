// Journal entries to Faultbin reports: systemd-coredump's crash entries to crash reports, the
// kernel's and systemd-oomd's kill messages to kill reports. Pure: text in, reports out.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string_view>

#include "vorlund/devicetools/crash_collector.h"
#include "vorlund/devicetools/crash_scanner.h"
#include "vorlund/foundation/paths.h"

namespace vl {

namespace {

constexpr std::string_view kKilledProcess = "Killed process ";
constexpr std::string_view kOomKill = "oom-kill:";
constexpr std::string_view kStackTraceOf = "Stack trace of thread ";
constexpr const char* kOomdName = "systemd-oomd";

std::optional<uint64_t> number(std::string_view text) {
  if (text.empty() || text.size() > 19) return std::nullopt;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  return value;
}

std::string_view trimmed(std::string_view text) {
  size_t start = text.find_first_not_of(" \t");
  if (start == std::string_view::npos) return {};
  size_t end = text.find_last_not_of(" \t\r");
  return text.substr(start, end - start + 1);
}

std::vector<std::string_view> lines(std::string_view text) {
  std::vector<std::string_view> result;
  while (!text.empty()) {
    size_t newline = text.find('\n');
    result.push_back(text.substr(0, newline));
    text = newline == std::string_view::npos ? std::string_view() : text.substr(newline + 1);
  }
  return result;
}

// A value fit for one header line: a line break in a process's name must not start a line of
// its own, which could pass for a crashed-thread line.
std::string oneLine(std::string_view value) {
  std::string line;
  for (char c : value) line.push_back(static_cast<unsigned char>(c) < 0x20 ? '?' : c);
  return line;
}

// The latest time a report's name can carry: a five-digit year is no date the scanner reads.
constexpr uint64_t kLatestReportUsec = 253402214400ULL * 1000000;  // 9999-12-31 00:00:00 UTC

// The entry's time in microseconds since 1970: the given field, else when the journal received it;
// none when neither is a time a report can be named with.
std::optional<uint64_t> entryTime(const JournalEntry& entry, std::string_view usecField) {
  // A clock gone wrong on the crashing side still leaves the journal's own time of the entry.
  for (std::string_view field : {usecField, std::string_view("__REALTIME_TIMESTAMP")}) {
    std::optional<uint64_t> usec = number(entry.field(field));
    if (usec && *usec < kLatestReportUsec) return usec;
  }
  return std::nullopt;
}

std::string fileDate(uint64_t usec) {
  return faultbinDateString(static_cast<double>(usec / 1000000));
}

std::string readableDate(uint64_t usec) {
  time_t whole = static_cast<time_t>(usec / 1000000);
  struct tm local {};
  localtime_r(&whole, &local);
  char text[64];
  size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(text + n, sizeof text - n, ".%06u", static_cast<unsigned>(usec % 1000000));
  n = std::strlen(text);
  std::strftime(text + n, sizeof text - n, " %z", &local);
  return text;
}

uint32_t uidOf(std::string_view text) {
  std::optional<uint64_t> uid = number(text);
  return uid && *uid <= UINT32_MAX ? static_cast<uint32_t>(*uid) : 0;
}

// systemd-coredump's MESSAGE: its "Stack trace of thread TID:" sections, the first one being the
// crashing thread's, become "Thread N" sections numbered in order; the whole message follows,
// indented so that none of its lines can pass for a crashed-thread line.
std::string stackSections(std::string_view message) {
  std::string out;
  size_t thread = 0;
  bool inStack = false;
  for (std::string_view line : lines(message)) {
    std::string_view text = trimmed(line);
    std::string_view tid = text.substr(std::min(text.size(), kStackTraceOf.size()));
    if (!tid.empty() && tid.back() == ':') tid.remove_suffix(1);
    if (text.substr(0, kStackTraceOf.size()) == kStackTraceOf && number(tid)) {
      out += thread == 0 ? "Thread 0 Crashed:" : "\nThread " + std::to_string(thread) + ":";
      out += " tid " + std::string(tid) + "\n";
      ++thread;
      inStack = true;
    } else if (inStack && !text.empty() && text.front() == '#') {
      out += std::string(text) + "\n";
    } else {
      inStack = false;
    }
  }
  // Without a stack (no debugger on the device, or storage of cores turned off) the dump still
  // says the process crashed.
  if (thread == 0) out += "Thread 0 Crashed: no stack trace recorded\n";
  out += "\nJournal Message:\n";
  for (std::string_view line : lines(message)) out += "    " + std::string(line) + "\n";
  return out;
}

std::optional<FaultbinReport> coredumpReport(const JournalEntry& entry) {
  std::string name = entry.field("COREDUMP_COMM");
  std::string executable = entry.field("COREDUMP_EXE");
  if (name.empty()) name = paths::lastComponent(executable);
  std::optional<uint64_t> usec = entryTime(entry, "COREDUMP_TIMESTAMP");
  if (name.empty() || !usec) return std::nullopt;
  std::string signal = entry.field("COREDUMP_SIGNAL_NAME");
  if (signal.empty()) signal = "signal " + entry.field("COREDUMP_SIGNAL");
  uint32_t uid = uidOf(entry.field("COREDUMP_UID"));

  std::string text;
  text += "Process:         " + oneLine(name) + " [" + oneLine(entry.field("COREDUMP_PID")) + "]\n";
  text += "Path:            " + oneLine(executable) + "\n";
  text += "User ID:         " + std::to_string(uid) + "\n";
  text += "Date/Time:       " + readableDate(*usec) + "\n";
  text += "Exception Type:  " + oneLine(signal) + "\n";
  text += "Journal Cursor:  " + oneLine(entry.cursor) + "\n\n";
  text += stackSections(entry.field("MESSAGE"));
  return FaultbinReport{faultbinFolderForUid(uid),
                        faultbinFileNameForProcess(name) + "_" + fileDate(*usec) + ".ips", text};
}

// One killed process of a kill report, as the kernel or systemd-oomd told it.
struct Kill {
  std::string name;
  uint64_t pid = 0;
  uint32_t uid = 0;
  std::string reason;
  std::string killedBy;
  nlohmann::json details = nlohmann::json::object();
};

FaultbinReport killReport(const Kill& kill, uint64_t usec, const std::string& cursor) {
  nlohmann::json header = {
      {"kind", "CullerEvent"}, {"source", kill.killedBy}, {"date", readableDate(usec)}};
  nlohmann::json process = {{"name", kill.name},
                            {"pid", kill.pid},
                            {"uid", kill.uid},
                            {"reason", kill.reason},
                            {"killedBy", kill.killedBy}};
  process.update(kill.details);
  nlohmann::json body = {{"date", readableDate(usec)},
                         {"journalCursor", cursor},
                         {"processes", nlohmann::json::array({process})}};
  // Names and messages may hold bytes that are not UTF-8; they are written as U+FFFD.
  constexpr auto kReplace = nlohmann::json::error_handler_t::replace;
  std::string text =
      header.dump(-1, ' ', false, kReplace) + "\n" + body.dump(2, ' ', false, kReplace) + "\n";
  return FaultbinReport{faultbinFolderForUid(kill.uid), "CullerEvent_" + fileDate(usec) + ".ips",
                        text};
}

// "oom-kill:constraint=CONSTRAINT_MEMCG,nodemask=(null),...,task=NAME,pid=PID,uid=UID".
std::optional<nlohmann::json> oomKillLine(std::string_view message) {
  if (message.substr(0, kOomKill.size()) != kOomKill) return std::nullopt;
  nlohmann::json fields = nlohmann::json::object();
  std::string_view rest = message.substr(kOomKill.size());
  while (!rest.empty()) {
    size_t comma = rest.find(',');
    std::string_view pair = rest.substr(0, comma);
    size_t equals = pair.find('=');
    if (equals != std::string_view::npos) {
      fields[std::string(pair.substr(0, equals))] = std::string(pair.substr(equals + 1));
    }
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
  }
  if (!fields.contains("pid")) return std::nullopt;
  return fields;
}

// "[Memory cgroup ]Out of memory: Killed process PID (COMM) total-vm:NkB, anon-rss:NkB,
// file-rss:NkB, shmem-rss:NkB, UID:N pgtables:NkB oom_score_adj:N".
std::optional<Kill> killedProcessLine(std::string_view message) {
  size_t at = message.find(kKilledProcess);
  if (at == std::string_view::npos) return std::nullopt;
  std::string_view rest = message.substr(at + kKilledProcess.size());
  size_t open = rest.find(" (");
  std::optional<uint64_t> pid = number(rest.substr(0, open));
  if (open == std::string_view::npos || !pid) return std::nullopt;
  // The name may hold blanks and parentheses itself; the figures start after its last ")".
  size_t figures = rest.find(") total-vm:");
  size_t close = figures != std::string_view::npos ? figures : rest.rfind(')');
  if (close == std::string_view::npos || close < open + 2) return std::nullopt;
  Kill kill;
  kill.pid = *pid;
  kill.name = std::string(rest.substr(open + 2, close - open - 2));
  kill.killedBy = "kernel";
  std::string_view tail = rest.substr(close + 1);
  uint64_t rssKB = 0;
  for (std::string_view key : {"anon-rss:", "file-rss:", "shmem-rss:"}) {
    size_t k = tail.find(key);
    if (k == std::string_view::npos) continue;
    std::string_view value = tail.substr(k + key.size());
    value = value.substr(0, value.find("kB"));
    if (std::optional<uint64_t> kb = number(value)) rssKB += *kb;
  }
  if (size_t u = tail.find("UID:"); u != std::string_view::npos) {
    std::string_view value = tail.substr(u + 4);
    kill.uid = uidOf(value.substr(0, value.find(' ')));
  }
  kill.details["rssKB"] = rssKB;
  kill.reason = "rss " + std::to_string(rssKB / 1024) + " MB";
  return kill;
}

// Joins the "oom-kill:" line's facts (constraint, uid) into the kill its "Killed process" line
// told; either may be missing.
Kill kernelKill(std::optional<Kill> killed, const std::optional<nlohmann::json>& oomKill) {
  Kill kill = killed.value_or(Kill{});
  kill.killedBy = "kernel";
  std::string constraint;
  if (oomKill) {
    auto text = [&](const char* key) {
      return oomKill->contains(key) ? (*oomKill)[key].get<std::string>() : std::string();
    };
    constraint = text("constraint");
    if (kill.name.empty()) kill.name = text("task");
    if (!killed) {
      kill.pid = number(text("pid")).value_or(0);
      kill.uid = uidOf(text("uid"));
    }
    if (!constraint.empty()) kill.details["constraint"] = constraint;
    if (!text("task_memcg").empty()) kill.details["memoryCgroup"] = text("task_memcg");
  }
  std::string reason = "oom-kill:";
  if (!constraint.empty()) reason += " constraint " + constraint + (killed ? "," : "");
  if (killed) reason += " " + kill.reason;
  kill.reason = reason;
  return kill;
}

// "Killed /SLICE/UNIT due to memory pressure for ... being 82.31% > 50.00% for > 20s ..." or
// "Killed /SLICE/UNIT due to memory used (N) / total (N) and swap used ... being more than 90.00%".
std::optional<Kill> oomdKill(std::string_view message) {
  constexpr std::string_view kKilled = "Killed ";
  constexpr std::string_view kDueTo = " due to ";
  size_t due = message.find(kDueTo);
  if (message.substr(0, kKilled.size()) != kKilled || due == std::string_view::npos) {
    return std::nullopt;
  }
  std::string cgroup(message.substr(kKilled.size(), due - kKilled.size()));
  Kill kill;
  kill.name = paths::lastComponent(cgroup);
  kill.killedBy = kOomdName;
  kill.reason = "oomd: " + std::string(trimmed(message.substr(due + kDueTo.size())));
  kill.details["cgroup"] = cgroup;
  // oomd kills a whole cgroup and names no process id; the user's slice tells whose it was.
  if (size_t user = cgroup.find("/user-"); user != std::string::npos) {
    std::string_view id = std::string_view(cgroup).substr(user + 6);
    kill.uid = uidOf(id.substr(0, id.find(".slice")));
  }
  return kill;
}

}  // namespace

std::string faultbinFileNameForProcess(std::string_view name) {
  std::string safe;
  for (char c : name) safe.push_back(c == '/' || static_cast<unsigned char>(c) < 0x20 ? '_' : c);
  constexpr std::string_view kDateShape = "dddd-dd-dd-dddddd";
  for (size_t at = 0; at + kDateShape.size() <= safe.size(); ++at) {
    bool isDate = true;
    for (size_t k = 0; isDate && k < kDateShape.size(); ++k) {
      char c = safe[at + k];
      isDate = kDateShape[k] == 'd' ? (c >= '0' && c <= '9') : c == '-';
    }
    if (!isDate) continue;
    for (size_t k = 0; k < kDateShape.size(); ++k) {
      if (kDateShape[k] == '-') safe[at + k] = '_';
    }
  }
  return safe.empty() ? "unknown" : safe;
}

std::string faultbinFolderForUid(uint32_t uid) {
  // The first folder of the scanner's table: root's for root, the mobile user's for any other.
  return faultbinDeviceFoldersForUser(uid == 0 ? "root" : "mobile").front();
}

std::string faultbinDateString(double secondsSince1970) {
  time_t whole = static_cast<time_t>(secondsSince1970);
  struct tm local {};
  localtime_r(&whole, &local);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d-%H%M%S", &local);
  return text;
}

FaultbinConversion convertJournalEntries(const std::vector<JournalEntry>& entries, bool final) {
  FaultbinConversion conversion;
  // The "oom-kill:" line waiting for its "Killed process" line.
  std::optional<nlohmann::json> pending;
  size_t pendingIndex = 0;
  auto releasePending = [&] {
    if (!pending) return;
    const JournalEntry& entry = entries[pendingIndex];
    if (std::optional<uint64_t> usec = entryTime(entry, "")) {
      conversion.reports.push_back(
          killReport(kernelKill(std::nullopt, pending), *usec, entry.cursor));
    }
    pending.reset();
  };

  for (size_t n = 0; n < entries.size(); ++n) {
    const JournalEntry& entry = entries[n];
    std::string message = entry.field("MESSAGE");
    if (entry.field("MESSAGE_ID") == kCoredumpMessageId) {
      if (auto report = coredumpReport(entry)) conversion.reports.push_back(std::move(*report));
    } else if (entry.field("_TRANSPORT") == "kernel") {
      if (auto oomKill = oomKillLine(message)) {
        releasePending();
        pending = std::move(oomKill);
        pendingIndex = n;
      } else if (auto killed = killedProcessLine(message)) {
        bool paired = pending && (*pending)["pid"] == std::to_string(killed->pid);
        if (!paired) releasePending();
        std::optional<uint64_t> usec = entryTime(entry, "");
        if (usec) {
          conversion.reports.push_back(
              killReport(kernelKill(std::move(killed), pending), *usec, entry.cursor));
        }
        pending.reset();
      }
    } else if (entry.field("_COMM") == kOomdName || entry.field("SYSLOG_IDENTIFIER") == kOomdName) {
      std::optional<uint64_t> usec = entryTime(entry, "");
      if (auto kill = oomdKill(message); kill && usec) {
        conversion.reports.push_back(killReport(*kill, *usec, entry.cursor));
      }
    }
  }
  if (pending && !final) {
    // Whatever came after the held line is read again next time; its reports are then found
    // already written.
    if (pendingIndex > 0) conversion.resumeCursor = entries[pendingIndex - 1].cursor;
  } else {
    releasePending();
    if (!entries.empty()) conversion.resumeCursor = entries.back().cursor;
  }
  return conversion;
}

}  // namespace vl
