// Readers of the files found in the Faultbin folders: the date and process in a report's name, the
// crashed-thread and simulated-crash lines of a report, and the JSON body of a kill report. The
// text forms are pure functions (the crash scanner and the fuzz targets share them); the two VL
// functions read a file and log what they find under "Framework".
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

// Reports are read in pieces the way a line reader with a 1024-byte buffer returns them: a piece
// ends after a line feed or after 1023 bytes, whichever comes first, so a longer line is several
// pieces and only its first piece begins where the line does.
inline constexpr size_t kVLCrashReportPieceLength = 1023;
// The note of a simulated crash, two blanks after the colon (48 characters).
inline constexpr std::string_view kVLSimulatedCrashNote =
    "Exception Note:  SIMULATED (this is NOT a crash)";
// The date in a report's name, read in local time with the format "yyyy-MM-dd-HHmmss".
inline constexpr const char* kVLFaultbinDatePattern = "\\d{4}-\\d{2}-\\d{2}-\\d{6}";

namespace vl {

// What a report's name says. time is none when the name holds no readable date (process is then
// empty); otherwise process is what stands before the date less the one separator character before
// it, empty when nothing does (a name that begins with its date has no separator, so no process).
struct FaultbinFileName {
  std::optional<Date> time;
  std::string process;
};
FaultbinFileName parseFaultbinFileName(std::string_view name);

// The first piece that begins with "Thread " and holds "Crashed", without its line feed; none when
// no piece does.
std::optional<std::string> findCrashedThreadLine(std::string_view report);
// Whether a piece begins with kVLSimulatedCrashNote.
bool hasSimulatedCrashNote(std::string_view report);

// One process a kill report names with a reason.
struct CullerKill {
  std::string name;
  std::string reason;
};
// A kill report is one header line, then JSON (a bare value is accepted too). Returns the elements
// of its "processes" array that carry a "reason", in order; elements without a "name" are left out
// (an issue needs a process), and a name or reason that is not text is taken by its description.
// A body that is JSON but holds no such array yields an empty list. None, with error, when the
// text after the header is not JSON (a report without a line feed has no body at all).
std::optional<std::vector<CullerKill>> parseKillReport(std::string_view report,
                                                       Error* error = nullptr);

}  // namespace vl

// Whether the file holds a crashed-thread line (see findCrashedThreadLine); logs the line at level
// 16 ("~~~ Found Crash Line: ..."). False, after logging "Could not open file at path ...", when
// the file cannot be opened; a read error ends the file early.
bool VLFindThreadCrashInFile(const std::string& path);
// Whether the file carries the simulated-crash note; logs "Crash file is SIMULATED" at level 16.
// False, after logging the same open failure, when the file cannot be opened.
bool VLIsCrashSimulated(const std::string& path);
// The first match of kVLFaultbinDatePattern (case-insensitive) in string: true with its byte offset
// and length in range, or false with range untouched.
bool getRangeForDateInString(std::string_view string, std::pair<size_t, size_t>* range);
