// An in-process crash reporter for devices where no system crash handler records crashes: once
// installed, a fatal signal (SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS) writes a
// report "<name>_yyyy-MM-dd-HHmmss.ips" into the Faultbin folder of the process's user, with the
// signal, the executable and the crashing thread's stack under a "Thread 0 Crashed:" line, exactly
// where the crash scanner reads reports. The process then dies of the same signal as it would have
// without the handler (its exit status and any core dump are unchanged).
//
// Where systemd-coredump is the kernel's core handler, the journal collector already turns every
// crash into a report, so the handler is not installed unless asked: one crash, one report.
//
// The handler runs on an alternate signal stack (so a stack overflow of the installing thread is
// reported too; other threads' overflows end without a report) and does only
// async-signal-safe work: everything it needs (folder, name, time zone offset) is prepared at
// installation. A report is written under a hidden temporary name and then linked to its final
// name, so a scan never reads half a report; a name already taken gets "-2", "-3", ... after the
// date.
#pragma once

#include <string>

namespace vl {

struct CrashReportHandlerOptions {
  // Install even where systemd-coredump handles core dumps (tests, or a device that wants both).
  bool evenWithSystemdCoredump = false;
  // The report's process name; the kernel's name of the process (/proc/self/comm) when empty.
  std::string processName;
};

// Installs the handler for this process (once; a second call only updates what it prepared).
// False, with the reason in *why, when it is left to systemd-coredump or the Faultbin folder
// cannot be made; the process's signal handling is then unchanged.
bool installCrashReportHandler(const CrashReportHandlerOptions& options = {},
                               std::string* why = nullptr);

// True when the kernel hands core dumps to systemd-coredump (/proc/sys/kernel/core_pattern).
bool systemdCoredumpHandlesCrashes();

}  // namespace vl
