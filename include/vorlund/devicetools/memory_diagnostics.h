// Memory diagnostics for memory-performance test cases: a fixed set of memory tool outputs for a
// process, kept in a folder tree that names the run, the process, the hardware and the software
// build, and two small queries (a process's memory limit and its dirty malloc pages).
//
// The tools are called as written (their absolute paths) when they exist there, and by name when
// they are found on PATH instead (so a test or a device with them elsewhere can provide them).
// Where a tool is missing, its file is still written under its own name with the nearest Linux
// equivalent, read from the real /proc of the process (the cgroup files under the device root):
//   nimbusdebug   memory pressure (/proc/pressure/memory)
//   culler_rank   the processes ranked by OOM score, with resident size and cgroup limit
//   vm_stat       /proc/vmstat, then /proc/meminfo
//   kmemtally     /proc/slabinfo, or the slab and kernel lines of /proc/meminfo when unreadable
//   heap          /proc/PID/smaps_rollup, then /proc/PID/status
//   arenalist     /proc/PID/smaps
//   memory graph  a core dump by gcore when it is on PATH, else /proc/PID/maps
//   portscope     the open descriptors with their targets (/proc/PID/fd)
// A per-process file of a process that is not running holds one line saying so. Every tool runs
// through the shell runner without standard input, waiting, with a time-out of 10 seconds; tool
// failures are not detected: a missing file is the symptom.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

// "/var/root/Library/Logs/Vorlund/RingPerfTest/START/PROCESS/MODEL/BUILD-SpawnID-START/SERIAL"
// under the device root, where START is the current run's start time as "yyyyMMdd.hhmmss" on a
// 12-hour clock without a marker (13:05:09 is "010509", on purpose). MODEL, BUILD and SERIAL come
// from deviceinfo with every character other than letters, digits and "._,+-" made "_" (the tool
// commands take the paths unquoted); an unknown one is empty. The process name is used as given:
// a process or test-case name with blanks or shell characters breaks the commands' redirections,
// as the commands are written.
std::string VLGetPerfPathForProcess(const std::string& process);

// Each set below writes into the test-case folder "PERFPATH/EE_TESTCASE" (EE: the environment
// index, two digits), created with its parents when missing; a failure to create it is logged at
// level 0 ("Error creating directory at PATH: REASON") and the tools run anyway.

// The heap objects at the start: ["FOLDER/heap_object_start_PROCESS.log"].
std::vector<std::string> VLDumpInitialLogSetForMemoryPerfForEnv(const std::string& testCase,
                                                                const std::string& process,
                                                                int environment);

// The eight files of one iteration, in this order, under the base name
// "FOLDER/II_TESTCASE_BUILD_yyyyMMdd-HH-mm-ss" (II: the iteration, two digits; the time is now):
// BASE_nimbusdebug.log, BASE_culler_rank.log, BASE_vm_stat.log, BASE_kmemtally.log,
// BASE_heap_PROCESS.log, BASE_arenalist_PROCESS.log, BASE_memory_graph_PROCESS.memgraph and
// BASE_portscope_PROCESS.log. All eight commands are built before the first runs (portscope gets
// the process identifier, -1 when the process is not running); the paths are returned whether or
// not each tool succeeded.
std::vector<std::string> VLDumpLogsForMemoryPerfForTestCaseForFolder(const std::string& testCase,
                                                                     int iteration,
                                                                     const std::string& process,
                                                                     int environment);

// The set at the end of a run, the counterpart of the initial set, so that the two compare: the
// heap objects as the initial set takes them, into "FOLDER/heap_object_end_PROCESS.log", and the
// memory graph (leaks, as in the eight-file set) into "FOLDER/memory_graph_end_PROCESS.memgraph".
// Returns those two paths in that order, whether or not each tool succeeded.
std::vector<std::string> VLDumpFinalLogSetForMemoryPerf(const std::string& testCase,
                                                        const std::string& process,
                                                        int environment);

// The process's memory limit in megabytes: the figure directly before the flags and the name on
// the process's line of "culler_rank"; without culler_rank, the limit of the process's cgroup
// (memory.max, else memory.high, else the version-1 memory.limit_in_bytes). 0.0 when there is no
// match, no limit or no such process, logged at level 1 "Unable to find match for process NAME.
// Match: (null), Error: ERROR".
double VLGetCurrentMemoryLimitForProcess(const std::string& process);

// The dirty small-malloc size in kilobytes of a process (a name, or an identifier in digits):
// the third size column of the last "MALLOC_SMALL (empty)" line of arenalist, with its unit letter.
// The tool's one-liner ends its text with a line feed, and a text whose last character is not
// "K" or "M" is invalid, so the usual output is reported invalid: on purpose, do not trim. 0.0
// when the text is empty or shorter than 2 characters (level 16 "arenalist returned an empty
// result for NAME") or invalid (level 16 "arenalist returned invalid result for NAME").
// Without arenalist: the process's dirty anonymous memory from /proc/PID/smaps; 0.0 with the
// empty-result line when the process is not running.
double VLGetCurrentyDirtyPageSize(const std::string& process);

namespace vl::devicetools {

// The start time of the current run comes from the results layer above, which installs its source
// at start-up; an empty function removes it. Without one, the time of the first perf path asked
// for in this process stands in.
void setRunStartTimeSource(std::function<Date()> source);

}  // namespace vl::devicetools

namespace vl {

// Parsers behind the queries: pure functions over the tools' and the kernel's text.

// The figure of the memory-limit line pattern "([0-9]+\.?[0-9]*)MB[NY0-9 -]*NAME\n" on the first
// matching line, with name put in as it is. As memoryFromMemoryTable (process_table.h).
std::optional<double> memoryLimitFromMemoryTable(std::string_view output, const std::string& name,
                                                 std::string* matched = nullptr,
                                                 Error* error = nullptr);

enum class DirtyPageText { kSize, kEmpty, kInvalid };
// Reads the dirty-page text as VLGetCurrentyDirtyPageSize does; *kilobytes is set for kSize.
DirtyPageText dirtyPageSizeFromText(std::string_view text, double* kilobytes);

// The dirty anonymous memory in kilobytes of a smaps text: Private_Dirty and Shared_Dirty of the
// mappings without a file ("", "[heap]" and named anonymous "[anon:...]" mappings).
double dirtyAnonymousKilobytesFromSmaps(std::string_view smaps);

// The cgroup memory-limit files of a process's /proc/PID/cgroup text, in the order to try them:
// /sys/fs/cgroup/PATH/memory.max and memory.high (the unified hierarchy, also under
// /sys/fs/cgroup/unified), then /sys/fs/cgroup/memory/PATH/memory.limit_in_bytes.
std::vector<std::string> cgroupMemoryLimitFiles(std::string_view cgroup);
// A limit file's value in megabytes; none for "max", the version-1 "no limit" figure or a text that
// is not a number of bytes.
std::optional<double> cgroupLimitMegabytes(std::string_view text);

}  // namespace vl
