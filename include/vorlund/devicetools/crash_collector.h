// Turns the journal's crashes and memory kills into report files in the Faultbin folders, where the
// crash scanner finds them. systemd-coredump entries become "<comm>_yyyy-MM-dd-HHmmss.ips" reports
// with a "Thread N Crashed:" line; kernel OOM kills and systemd-oomd kills become kill reports
// "CullerEvent_yyyy-MM-dd-HHmmss.ips" (a header line, then JSON with a "processes" array).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vorlund/devicetools/journal_source.h"
#include "vorlund/foundation/error.h"

namespace vl {

// MESSAGE_ID of systemd-coredump's entries.
inline constexpr const char* kCoredumpMessageId = "fc2e22bc6ee647b6b90729ab34a250b1";

// The Faultbin folder (a device path, resolve it with vl::paths) of a process run by uid: root's
// for 0, the mobile user's for everyone else.
std::string faultbinFolderForUid(uint32_t uid);

// A process name fit for the front of a report's file name: no folder separators or control
// characters, and a date inside the name (which would be read as the report's date) gets
// underscores for its hyphens. "unknown" for an empty name.
std::string faultbinFileNameForProcess(std::string_view name);

struct FaultbinReport {
  std::string folder;    // device path of the Faultbin folder, ending in "/"
  std::string fileName;  // "<name>_yyyy-MM-dd-HHmmss.ips"
  std::string contents;
};

// Converts journal entries, oldest first, into reports; pure, it touches no file. Entries that are
// neither a crash nor a kill are passed over. The kernel logs one OOM kill as an "oom-kill:" line
// followed by a "Killed process" line: the two become one report. An "oom-kill:" line that ends a
// batch is held back (see resumeCursor) unless the input is final, so that its pair is read next
// time.
struct FaultbinConversion {
  std::vector<FaultbinReport> reports;
  // The cursor of the last entry fully used, to store; none when no entry was.
  std::optional<std::string> resumeCursor;
};
FaultbinConversion convertJournalEntries(const std::vector<JournalEntry>& entries, bool final);

// "yyyy-MM-dd-HHmmss" in local time, the date the scanner reads in file names.
std::string faultbinDateString(double secondsSince1970);

// Writes report into its folder under $VORLUND_ROOT, atomically (a temporary file linked to its
// name, which never replaces a file). A name already taken by other contents gets "-2", "-3", ...
// after the date ("Foo_2026-01-02-030405-2.ips"): the scanner still reads "Foo" and the date, and
// the extension stays "ips". A file of the same name and the same contents is the report written
// before; it is not written again. Returns the full path of the report's file, and sets
// *alreadyThere for such a file; none, with error, when the folder or file cannot be written.
std::optional<std::string> writeFaultbinReport(const FaultbinReport& report, bool* alreadyThere,
                                               Error* error = nullptr);

// Where the collector keeps its journal cursor (a device path).
inline constexpr const char* kVLCrashCollectorCursorPath =
    "/var/root/Library/Vorlund/faultbin-journal.cursor";

struct CrashCollectorSummary {
  size_t entriesRead = 0;
  std::vector<std::string> written;       // full paths of the files written now
  std::vector<std::string> alreadyThere;  // full paths of reports found written before
};

// Reads the entries after the stored cursor, writes their reports, then stores the new cursor
// (write-then-rename). A crash between writing and storing rereads the same entries next time,
// whose reports are then found already there: no entry becomes two files, none is missed.
class CrashCollector {
 public:
  explicit CrashCollector(std::shared_ptr<JournalSource> source,
                          std::string cursorPath = std::string());

  // One pass over everything new. None, with error, when the journal cannot be read or a report
  // cannot be written; the cursor then stays where the last whole batch left it. Logs a summary
  // line under "Framework" at level 0.
  std::optional<CrashCollectorSummary> collect(Error* error = nullptr);

  // The stored cursor; none before the first pass (the collector then starts at the oldest entry).
  std::optional<std::string> storedCursor() const;

  // The matches that select what the collector reads.
  static JournalMatches journalMatches();

 private:
  std::shared_ptr<JournalSource> source_;
  std::string cursorPath_;
};

}  // namespace vl
