// The writing half of the in-process crash reporter (vorlund/devicetools/crash_handler.h), apart
// from the signal handler so that it also runs in a process that goes on living: the tests check
// the report that way, since a process that dies of its signal keeps no record of what ran.
#pragma once

#include <signal.h>

namespace vl {

// Writes the report of a fatal signal into the folder installCrashReportHandler prepared, under
// the name and with the contents the handler gives it. Async-signal-safe; does nothing when the
// handler was never installed or the folder cannot be written.
void writeCrashReport(int signal, const siginfo_t* info);

}  // namespace vl
