// The smaller evidence savers beside the diagnostic-archive trigger: a log copied into the
// priority-logs folder, a memory-warning report for a process, and an archive of the system log for
// a span of time. Failures are logged under "Framework" and never reach the caller otherwise.
#pragma once

#include <optional>
#include <string>

#include "vorlund/foundation/value.h"

// The folder of priority logs ("~" expands with $HOME).
inline constexpr const char* kVLPriorityLogsDirectory = "~/Library/Logs/PriorityLogs";
// Where log archives are cut, and the stack-snapshot folder (both under $VORLUND_ROOT).
inline constexpr const char* kVLLogCollectDirectory = "/var/root/Library/Logs/Vorlund/LogCollect";
inline constexpr const char* kVLFaultbinDirectory = "/var/mobile/Library/Logs/Faultbin";
// Bounds, in seconds (scaled), of the stack snapshot and of the memory report.
inline constexpr double kVLThreadGrabTimeout = 30;
inline constexpr double kVLMemoryReportTimeout = 60;

// Copies the log file into the priority-logs folder under its own name, creating the folder when
// missing. Does nothing when the preference "StartedFromUI" is true. A file of that name already in
// the folder makes the copy fail (logged).
void VLSaveLogAsPriority(const std::string& path);

// Saves a memory-warning report on a process, given as its identifier in decimal or its name, into
// directory (created when missing): a stack snapshot of the system ("fbthreadgrab" in the Faultbin
// folder), then the output of uname, osbuildinfo, uptime, ps, culler_rank, arenalist, heap, ltop,
// sample and leaks written to DIRECTORY/NAME_DATE_ExceededMemoryLimit.txt, where NAME is this
// process's name when the process is this one and the process text otherwise, and DATE is
// "yyyy-MM-dd-HHmmss". The directory and process texts go into the shell command as they are.
void VLSaveMemoryWarning(const std::string& process, const std::string& directory);

// Cuts an archive of the system log from start until now at
// LogCollect/start<start>-end<now>.logarchive (dates in the library's date-string form) and
// returns its path, whether or not the archiver succeeded (its warnings are logged); none when the
// folder cannot be made.
std::optional<std::string> VLTriggerLogCollect(const vl::Date& start, const std::string& label);
