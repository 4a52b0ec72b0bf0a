#include "vorlund/devicetools/shell.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <thread>

#include "vorlund/foundation/utf8.h"
#include "vorlund/foundation/background.h"
#include "vorlund/foundation/serial_queue.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/foundation/timer.h"
#include "vorlund/foundation/value.h"
#include "vorlund/logging/log.h"

extern char** environ;

namespace {

constexpr const char* kCategory = "Framework";
constexpr const char* kBashPath = "/bin/bash";
constexpr const char* kTimeoutQueueLabel = "com.brindle.task_timeout";
constexpr int kSigkill = 9;
constexpr int kSigterm = 15;

vl::Array argumentList(const vl::Task& task) {
  vl::Array list;
  for (const std::string& argument : task.arguments()) list.push_back(argument);
  return list;
}

vl::Task::Environment processEnvironment() {
  vl::Task::Environment environment;
  for (char** entry = environ; entry && *entry; ++entry) {
    std::string text(*entry);
    size_t equals = text.find('=');
    if (equals == std::string::npos) continue;
    environment.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  return environment;
}

// The text of a pipe; none for bytes that are not UTF-8, as a failed decoding gives none.
std::optional<std::string> pipeText(const std::shared_ptr<vl::Pipe>& pipe) {
  if (!pipe) return std::string();
  vl::Error error;
  std::optional<std::string> bytes = pipe->readToEndOfFile(&error);
  if (!bytes) {
    VLLog(VLLogLevelError, kCategory, "Caught an exception, returning an empty string... %@",
          error.description());
    return std::string();
  }
  if (!vl::isValidUtf8(*bytes)) return std::nullopt;
  return bytes;
}

vl::Value textValue(const std::optional<std::string>& text) {
  return text ? vl::Value(*text) : vl::Value();
}

bool isEmpty(const std::optional<std::string>& text) { return !text || text->empty(); }

}  // namespace

std::shared_ptr<vl::Task> VLCreateBashCommand(const std::string& command,
                                              vl::TaskInput standardInput) {
  VLLog(VLLogLevelInfo, kCategory, "Creating bash command : %@", command);
  std::shared_ptr<vl::Task> task = vl::Task::make();
  task->setLaunchPath(kBashPath);
  task->setArguments({"-c", command});

  vl::Task::Environment environment =
      task->environment() ? *task->environment() : processEnvironment();
  auto path = environment.find("PATH");
  environment["PATH"] = vl::format(
      "%@:/usr/local/bin", path != environment.end() ? vl::Value(path->second) : vl::Value());
  task->setEnvironment(std::move(environment));

  if (!standardInput.isInherited()) task->setStandardInput(std::move(standardInput));

  vl::Error error;
  std::shared_ptr<vl::Pipe> errorPipe = vl::Pipe::make(&error);
  if (!errorPipe) {
    VLLog(VLLogLevelError, kCategory, "Saw an exception trying to set up NSPipes... %@",
          error.description());
    return task;
  }
  task->setStandardError(std::move(errorPipe));
  std::shared_ptr<vl::Pipe> outputPipe = vl::Pipe::make(&error);
  if (!outputPipe) {
    VLLog(VLLogLevelError, kCategory, "Saw an exception trying to set up NSPipes... %@",
          error.description());
    return task;
  }
  task->setStandardOutput(std::move(outputPipe));
  return task;
}

std::string VLConvertPipeToString(const std::shared_ptr<vl::Pipe>& pipe) {
  return pipeText(pipe).value_or(std::string());
}

bool VLSetNSTaskToTimeoutWithKillSignal(const std::shared_ptr<vl::Task>& task, int signal,
                                        double timeout) {
  if (!task) return false;
  const int32_t pid = task->processIdentifier();
  VLLog(VLLogLevelInfo, kCategory, "Setting timeout of %.1f seconds for %d", timeout, pid);
  if (pid == 0 || !task->isRunning()) {
    VLLog(VLLogLevelError, kCategory, "Task is not running, cannot timeout %@",
          argumentList(*task));
    return false;
  }

  std::unique_ptr<vl::Timer> killTimer;
  std::optional<std::chrono::steady_clock::time_point> deadline;
  // Infinity, not a number or a time-out past the timer's reach waits as 0 does: unbounded.
  if (timeout > 0 && vl::Timer::isInRange(timeout)) {
    deadline = std::chrono::steady_clock::now() +
               std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                   vl::time::scaled(timeout));
    vl::Task* target = task.get();
    killTimer = std::make_unique<vl::Timer>(
        std::make_shared<vl::SerialQueue>(kTimeoutQueueLabel), timeout, timeout, 0,
        [target, pid, signal] {
          if (target->sendSignal(0)) {
            VLLog(VLLogLevelInfo, kCategory, "Killing pid %d with sig [%d]", pid, signal);
            target->sendSignal(signal);
          } else {
            VLLog(VLLogLevelInfo, kCategory, "%d ended before timeout", pid);
          }
        });
  }

  if (deadline) {
    task->waitUntilExit(*deadline);
  } else {
    task->waitUntilExit();
  }
  const int32_t status = task->terminationStatus();
  if (status == kSigkill) {
    VLLog(VLLogLevelError, kCategory, "Had to timeout task %d %@", pid, argumentList(*task));
  } else {
    VLLog(VLLogLevelError, kCategory, "Completed task %d %@", pid, argumentList(*task));
  }
  if (killTimer && !killTimer->isCancelled()) killTimer->cancel();
  // Tested against 9 whatever signal was sent, on purpose: a task ended by 15 counts as completed.
  return status != kSigkill;
}

bool VLSetNSTaskToTimeout(const std::shared_ptr<vl::Task>& task, double timeout) {
  return VLSetNSTaskToTimeoutWithKillSignal(task, kSigkill, timeout);
}

std::shared_ptr<vl::Task> VLExecuteTaskWithKillSignal(const std::string& command,
                                                      vl::TaskInput standardInput, bool wait,
                                                      int signal, double timeout) {
  std::shared_ptr<vl::Task> task = VLCreateBashCommand(command, std::move(standardInput));
  VLLog(VLLogLevelInfo, kCategory, "Launching shell command %@", command);
  vl::Error error;
  if (!task->launch(&error)) {
    VLLog(VLLogLevelError, kCategory, "Saw an exception launching %@...%@", command,
          error.description());
    return task;
  }
  if (wait) {
    VLSetNSTaskToTimeoutWithKillSignal(task, signal, timeout);
    return task;
  }
  // The wait lasts as long as the child runs, so each task gets a thread of its own rather than
  // one of the few threads of the shared pool, where a queue of waits would hold up later kill
  // timers.
  auto bound = [task, signal, timeout] {
    VLSetNSTaskToTimeoutWithKillSignal(task, signal, timeout);
  };
  try {
    std::thread(bound).detach();
  } catch (const std::exception&) {
    vl::background::run(bound);
  }
  return task;
}

std::shared_ptr<vl::Task> VLExecuteTask(const std::string& command, vl::TaskInput standardInput,
                                        bool wait, double timeout) {
  return VLExecuteTaskWithKillSignal(command, std::move(standardInput), wait, kSigkill, timeout);
}

std::string VLExecuteShellCommandWithKillSignal(const std::string& command,
                                                vl::TaskInput standardInput, bool wait, int signal,
                                                double timeout) {
  std::shared_ptr<vl::Task> task =
      VLExecuteTaskWithKillSignal(command, std::move(standardInput), wait, signal, timeout);
  if (!wait) return std::string();
  if (!task->hasLaunched()) {
    // Never ran: report it as the time-out step reports a task that is not running.
    VLSetNSTaskToTimeoutWithKillSignal(task, signal, timeout);
    return std::string();
  }
  const int32_t status = task->terminationStatus();
  VLLog(VLLogLevelInfo, kCategory, "Exit status of %@ was %d", command, status);

  if (status != kSigterm && status != kSigkill && command.find('>') == std::string::npos) {
    // Read only now that the task has ended; it drained the pipes while it ran.
    std::optional<std::string> output = pipeText(task->standardOutput());
    std::optional<std::string> errorText = pipeText(task->standardError());
    if (status != 0) {
      VLLog(VLLogLevelInfo, kCategory, "output with non 0 termination status is %@\n%@",
            textValue(output), textValue(errorText));
    }
    if (isEmpty(errorText)) return output.value_or(std::string());
    if (command.find("curl ") != std::string::npos) return output.value_or(std::string());
    if (!isEmpty(output)) return vl::format("%@\n%@", *output, *errorText);
    return errorText.value_or(std::string());
  }

  if (auto& pipe = task->standardError()) pipe->closeReading();
  if (auto& pipe = task->standardOutput()) pipe->closeReading();
  return std::string();
}

std::string VLExecuteShellCommand(const std::string& command, vl::TaskInput standardInput,
                                  bool wait, double timeout) {
  return VLExecuteShellCommandWithKillSignal(command, std::move(standardInput), wait, kSigkill,
                                             timeout);
}
