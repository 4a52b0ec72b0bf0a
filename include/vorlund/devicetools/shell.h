// The shell runner: the one way a device tool runs an external program. A command runs as
// "/bin/bash -c COMMAND" with its output captured in pipes, its run time bounded by a kill timer
// that signals it again every interval until it ends, and its output turned into one string. Every
// step logs under the category "Framework".
#pragma once

#include <memory>
#include <string>

#include "vorlund/devicetools/pipe.h"
#include "vorlund/devicetools/task.h"

// A configured, not yet launched task: "/bin/bash" with the two arguments "-c" and the command as
// given (nothing is quoted or escaped), this process's environment with ":/usr/local/bin" added to
// PATH, the given standard input (inherited when none), and a new pipe for standard error and one
// for standard output. When a pipe cannot be made (too many open files) the failure is logged and
// the task is returned as far as it was configured, without that pipe.
std::shared_ptr<vl::Task> VLCreateBashCommand(const std::string& command,
                                              vl::TaskInput standardInput = {});

// The pipe's whole content as UTF-8 text, read to end of file (it blocks until every writer has
// closed its end); the reading end is closed afterwards. The empty string when the pipe is absent,
// the read fails (logged) or the bytes are not valid UTF-8.
std::string VLConvertPipeToString(const std::shared_ptr<vl::Pipe>& pipe);

// Bounds a launched task's run time and waits for it to end (blocking the calling thread). When
// timeout > 0 a kill timer first fires timeout seconds after the call (the deadline) and then every
// timeout seconds until the task has ended: each firing sends signal to the task's process group
// while any of it is alive, so a task that survives the signal receives it again every interval.
// The output is bounded by the same deadline: what the command left running in its group (a
// background job holding the pipes open) is killed once the task has ended and the deadline has
// passed, and the pipes then hold what arrived by then (Task::waitUntilExit). A timeout of 0 or
// less, not a number, infinite or too long for a timer (vl::Timer::isInRange) waits as long as
// the task runs, and reading its output waits for every writer. Returns true when the task ended
// with a termination status other than 9, false when it was ended by signal 9 or was not running
// (logged).
bool VLSetNSTaskToTimeoutWithKillSignal(const std::shared_ptr<vl::Task>& task, int signal,
                                        double timeout);
// The same with signal 9 (SIGKILL).
bool VLSetNSTaskToTimeout(const std::shared_ptr<vl::Task>& task, double timeout);

// Builds the command with VLCreateBashCommand and launches it. With wait set, bounds and waits for
// it as VLSetNSTaskToTimeoutWithKillSignal does and returns the ended task; otherwise the bounding
// and waiting happen on a background thread of their own and the running task is returned at once.
// A task that cannot be launched is logged and returned unlaunched.
std::shared_ptr<vl::Task> VLExecuteTaskWithKillSignal(const std::string& command,
                                                      vl::TaskInput standardInput, bool wait,
                                                      int signal, double timeout);
// The same with signal 9.
std::shared_ptr<vl::Task> VLExecuteTask(const std::string& command, vl::TaskInput standardInput,
                                        bool wait, double timeout);

// Runs the command as VLExecuteTaskWithKillSignal does and returns its output text:
// - without wait: the empty string (the output is not read);
// - a task ended with status 9 or 15 (killed), or a command containing ">" anywhere: the empty
//   string;
// - otherwise the standard output when standard error is empty or the command contains "curl "
//   (which writes its progress on standard error); the standard output, a line feed and the
//   standard error when both have text; the standard error alone when the output is empty.
// A non-zero exit status is logged but is not a failure: the text is returned all the same. The
// pipes are read to their end after the task has ended; the task drains them while it runs, so a
// command with more output than a pipe holds does not stall. With a timeout, that read ends at the
// deadline (see VLSetNSTaskToTimeoutWithKillSignal).
std::string VLExecuteShellCommandWithKillSignal(const std::string& command,
                                                vl::TaskInput standardInput, bool wait, int signal,
                                                double timeout);
// The same with signal 9.
std::string VLExecuteShellCommand(const std::string& command, vl::TaskInput standardInput,
                                  bool wait, double timeout);
