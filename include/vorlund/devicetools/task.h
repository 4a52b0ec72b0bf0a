// A child process owned by this process: what to run (launch path, arguments, environment, standard
// streams), launched with posix_spawn, and how it ended (collected with waitpid). A child still
// running when the last owner of its task lets go is killed and reaped, so a task never leaves a
// zombie, and every descriptor the task opens is close-on-exec.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vorlund/conversion/file_handle.h"
#include "vorlund/devicetools/pipe.h"
#include "vorlund/foundation/error.h"

namespace vl {

// What a child reads as standard input: this process's own (the default), the reading end of a
// pipe, or a file handle.
class TaskInput {
 public:
  TaskInput() = default;
  TaskInput(std::nullptr_t) {}
  TaskInput(std::shared_ptr<Pipe> pipe) : pipe_(std::move(pipe)) {}
  TaskInput(std::shared_ptr<FileHandle> handle) : handle_(std::move(handle)) {}

  bool isInherited() const { return !pipe_ && !handle_; }
  const std::shared_ptr<Pipe>& pipe() const { return pipe_; }
  const std::shared_ptr<FileHandle>& fileHandle() const { return handle_; }

 private:
  std::shared_ptr<Pipe> pipe_;
  std::shared_ptr<FileHandle> handle_;
};

class Task {
 public:
  using Environment = std::map<std::string, std::string>;

  static std::shared_ptr<Task> make();
  // Kills (SIGKILL) the process group of a child that is still running and reaps the child.
  ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  // The program to run; it is also the child's argv[0].
  const std::string& launchPath() const { return launchPath_; }
  void setLaunchPath(std::string path) { launchPath_ = std::move(path); }
  // The arguments after argv[0].
  const std::vector<std::string>& arguments() const { return arguments_; }
  void setArguments(std::vector<std::string> arguments) { arguments_ = std::move(arguments); }
  // The child's environment; none gives it this process's environment as it is at launch.
  const std::optional<Environment>& environment() const { return environment_; }
  void setEnvironment(std::optional<Environment> environment) {
    environment_ = std::move(environment);
  }
  const TaskInput& standardInput() const { return standardInput_; }
  void setStandardInput(TaskInput input) { standardInput_ = std::move(input); }
  // A pipe receives the stream; none leaves the child this process's own.
  const std::shared_ptr<Pipe>& standardOutput() const { return standardOutput_; }
  void setStandardOutput(std::shared_ptr<Pipe> pipe) { standardOutput_ = std::move(pipe); }
  const std::shared_ptr<Pipe>& standardError() const { return standardError_; }
  void setStandardError(std::shared_ptr<Pipe> pipe) { standardError_ = std::move(pipe); }

  // Starts the child, as the leader of a process group of its own, with every signal at its
  // default action and none blocked. The child's ends of
  // the pipes are closed in this process once it runs. Returns false, with error (domain
  // "com.brindle.Vorlund", code 1, "Reason"), when the task was launched before, a stream is
  // closed, or the launch path cannot be executed; the task then stays unlaunched.
  bool launch(Error* error = nullptr);
  bool hasLaunched() const;
  // The child's process identifier; 0 before launch.
  int32_t processIdentifier() const;
  // Launched and its end not yet collected by waitUntilExit().
  bool isRunning() const;
  // Blocks until the child has exited and collects its end; meanwhile it drains the output pipes so
  // that the child never stalls on a full pipe. Several threads may wait at once. Returns at once
  // for a task that was never launched or has ended.
  void waitUntilExit();
  // The same, and bounds the wait for the output: what the child started in its process group (a
  // command's background job) may hold the output pipes open after the child has exited. They are
  // drained until their end or until outputDeadline; past it whatever is left of the group is
  // killed (SIGKILL) and a pipe still open is ended (Pipe::endReading), so that reading it returns
  // what arrived without waiting. The child's own run is not bounded here: that is the kill
  // timer's job. The child is reaped last, so that its group's identifier is not reused before the
  // kill.
  void waitUntilExit(std::chrono::steady_clock::time_point outputDeadline);
  // The exit code, or for a child ended by a signal the signal number; 0 until the end is
  // collected.
  int32_t terminationStatus() const;
  // Whether the child was ended by a signal.
  bool wasSignalled() const;
  // Sends sig (0 only probes) to the child's process group (the child and whatever it started that
  // stayed in the group) while the child's end has not been collected, so that a signal never
  // reaches a stranger that reused the identifier. Returns false when the task is not running or
  // kill() fails (no process of the group is left).
  bool sendSignal(int sig);

 private:
  Task() = default;
  void collectLocked(bool block);
  void waitFor(std::optional<std::chrono::steady_clock::time_point> outputDeadline);

  std::string launchPath_;
  std::vector<std::string> arguments_;
  std::optional<Environment> environment_;
  TaskInput standardInput_;
  std::shared_ptr<Pipe> standardOutput_;
  std::shared_ptr<Pipe> standardError_;

  mutable std::mutex mutex_;
  std::condition_variable ended_;
  pid_t pid_ = 0;
  int pidFd_ = -1;
  bool launched_ = false;
  bool collected_ = false;
  bool waiting_ = false;
  int32_t status_ = 0;
  bool signalled_ = false;
};

}  // namespace vl
