// The waiter watches the child through a pidfd (poll says when it has exited, without reaping it)
// together with the reading ends of its output pipes, which it drains while the child runs. The end
// is reaped under the task's lock, the same lock sendSignal() takes, so that no signal is ever sent
// to a process identifier after it has been released to the system. The child leads a process
// group of its own, and as long as it is not reaped that group's identifier cannot be reused: this
// is why a waiter with an output deadline keeps the child unreaped until its group is dealt with.
#include "vorlund/devicetools/task.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "vorlund/foundation/format.h"

extern char** environ;

namespace vl {

namespace {

using Clock = std::chrono::steady_clock;

// How often a waiter without a pidfd (an old kernel) looks at the child.
constexpr int kPollFallbackMilliseconds = 10;
// After the group is killed at the output deadline, how long its pipes are given to reach their
// end (the kernel closes a killed process's descriptors as it dies).
constexpr auto kGroupKillGrace = std::chrono::milliseconds(200);

int millisecondsUntil(Clock::time_point deadline) {
  auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, 60'000));
}

int openPidFd(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  errno = ENOSYS;
  return -1;
#endif
}

// Owns posix_spawn's file actions and attributes.
struct SpawnSetup {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
  }
  ~SpawnSetup() {
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
  }
};

bool childHasExited(pid_t pid) {
  siginfo_t info{};
  if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
    return errno != EINTR;
  }
  return info.si_pid == pid;
}

}  // namespace

std::shared_ptr<Task> Task::make() { return std::shared_ptr<Task>(new Task()); }

Task::~Task() {
  std::lock_guard lock(mutex_);
  if (launched_ && !collected_) {
    ::kill(-pid_, SIGKILL);
    collectLocked(true);
  }
  if (pidFd_ >= 0) ::close(pidFd_);
}

bool Task::launch(Error* error) {
  std::lock_guard lock(mutex_);
  if (launched_) {
    setError(error, Error::withReason("The task has already been launched"));
    return false;
  }
  SpawnSetup setup;
  auto redirect = [&](int fd, int target, const char* name) {
    if (fd < 0) {
      setError(error, Error::withReason(vl::format("The %s of the task is closed", name)));
      return false;
    }
    posix_spawn_file_actions_adddup2(&setup.actions, fd, target);
    return true;
  };
  if (auto& pipe = standardInput_.pipe()) {
    if (!redirect(pipe->readingDescriptor(), STDIN_FILENO, "standard input")) return false;
  } else if (auto& handle = standardInput_.fileHandle()) {
    if (!redirect(handle->fileDescriptor(), STDIN_FILENO, "standard input")) return false;
  }
  if (standardOutput_ &&
      !redirect(standardOutput_->writingDescriptor(), STDOUT_FILENO, "standard output")) {
    return false;
  }
  if (standardError_ &&
      !redirect(standardError_->writingDescriptor(), STDERR_FILENO, "standard error")) {
    return false;
  }

  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&setup.attributes, &all);
  posix_spawnattr_setsigmask(&setup.attributes, &none);
  posix_spawnattr_setpgroup(&setup.attributes, 0);
  posix_spawnattr_setflags(&setup.attributes,
                           POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);

  std::vector<char*> argv;
  argv.push_back(launchPath_.data());
  for (std::string& argument : arguments_) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::vector<std::string> entries;
  std::vector<char*> envp;
  if (environment_) {
    for (const auto& [name, value] : *environment_) entries.push_back(name + "=" + value);
    for (std::string& entry : entries) envp.push_back(entry.data());
    envp.push_back(nullptr);
  }

  pid_t pid = 0;
  int result = ::posix_spawn(&pid, launchPath_.c_str(), &setup.actions, &setup.attributes,
                             argv.data(), environment_ ? envp.data() : environ);
  if (result != 0) {
    setError(error, Error::withReason(
                        vl::format("Could not launch %s: %s", launchPath_, std::strerror(result))));
    return false;
  }
  pid_ = pid;
  pidFd_ = openPidFd(pid);
  launched_ = true;
  // The child holds its own copies now; ours would keep its input open and its output unended.
  if (auto& pipe = standardInput_.pipe()) pipe->closeReading();
  if (standardOutput_) standardOutput_->closeWriting();
  if (standardError_) standardError_->closeWriting();
  return true;
}

bool Task::hasLaunched() const {
  std::lock_guard lock(mutex_);
  return launched_;
}

int32_t Task::processIdentifier() const {
  std::lock_guard lock(mutex_);
  return static_cast<int32_t>(pid_);
}

bool Task::isRunning() const {
  std::lock_guard lock(mutex_);
  return launched_ && !collected_;
}

int32_t Task::terminationStatus() const {
  std::lock_guard lock(mutex_);
  return status_;
}

bool Task::wasSignalled() const {
  std::lock_guard lock(mutex_);
  return signalled_;
}

bool Task::sendSignal(int sig) {
  std::lock_guard lock(mutex_);
  if (!launched_ || collected_) return false;
  return ::kill(-pid_, sig) == 0;
}

void Task::collectLocked(bool block) {
  int status = 0;
  pid_t r;
  do {
    r = ::waitpid(pid_, &status, block ? 0 : WNOHANG);
  } while (r < 0 && errno == EINTR);
  if (r == 0) return;
  collected_ = true;
  if (r == pid_ && WIFSIGNALED(status)) {
    signalled_ = true;
    status_ = WTERMSIG(status);
  } else if (r == pid_ && WIFEXITED(status)) {
    status_ = WEXITSTATUS(status);
  }
  if (pidFd_ >= 0) {
    ::close(pidFd_);
    pidFd_ = -1;
  }
  ended_.notify_all();
}

void Task::waitUntilExit() { waitFor(std::nullopt); }

void Task::waitUntilExit(Clock::time_point outputDeadline) { waitFor(outputDeadline); }

void Task::waitFor(std::optional<Clock::time_point> outputDeadline) {
  std::unique_lock lock(mutex_);
  if (!launched_ || collected_) return;
  if (waiting_) {
    ended_.wait(lock, [this] { return collected_; });
    return;
  }
  waiting_ = true;
  const pid_t pid = pid_;
  const int pidFd = pidFd_;
  std::vector<std::shared_ptr<Pipe>> pipes;
  for (const auto& pipe : {standardOutput_, standardError_}) {
    if (pipe && (pipes.empty() || pipes.front() != pipe)) pipes.push_back(pipe);
  }
  lock.unlock();

  // Drains the pipes that poll found ready; keeps those that have not reached their end.
  auto drain = [&pipes](const std::vector<pollfd>& watched, size_t first) {
    std::vector<std::shared_ptr<Pipe>> keep;
    for (size_t i = 0; i < pipes.size(); ++i) {
      if (watched[first + i].revents == 0 || pipes[i]->drainAvailable()) keep.push_back(pipes[i]);
    }
    pipes.swap(keep);
  };
  auto watchedPipes = [&pipes](std::vector<pollfd>& watched) {
    std::vector<std::shared_ptr<Pipe>> open;
    for (const auto& pipe : pipes) {
      int fd = pipe->readingDescriptor();
      if (fd < 0) continue;
      watched.push_back({fd, POLLIN, 0});
      open.push_back(pipe);
    }
    pipes.swap(open);
  };

  // The pidfd stays open until the end is collected, and only this waiter collects it.
  for (;;) {
    std::vector<pollfd> watched;
    watched.push_back({pidFd, POLLIN, 0});
    watchedPipes(watched);
    int ready = ::poll(watched.data() + (pidFd < 0 ? 1 : 0), watched.size() - (pidFd < 0 ? 1 : 0),
                       pidFd < 0 ? kPollFallbackMilliseconds : -1);
    if (ready < 0 && errno != EINTR) {
      // Nothing to watch with: fall back on looking at the child now and then.
      ::poll(nullptr, 0, kPollFallbackMilliseconds);
    }
    drain(watched, 1);
    const bool exited = (pidFd >= 0 && ready >= 0)
                            ? (watched[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0
                            : childHasExited(pid);
    if (exited) break;
  }

  if (outputDeadline) {
    // Whatever the child left running in its group may hold the pipes open: they are read until
    // the deadline, and then the rest of the group is killed.
    auto readUntil = [&](Clock::time_point until) {
      while (!pipes.empty() && Clock::now() < until) {
        std::vector<pollfd> watched;
        watchedPipes(watched);
        if (watched.empty()) break;
        int ready = ::poll(watched.data(), watched.size(), millisecondsUntil(until));
        if (ready < 0 && errno != EINTR) break;
        drain(watched, 0);
      }
    };
    readUntil(*outputDeadline);
    if (!pipes.empty()) {
      lock.lock();
      ::kill(-pid, SIGKILL);
      lock.unlock();
      readUntil(Clock::now() + kGroupKillGrace);
      // A writer outside the group (one that left it) is not waited for.
      for (const auto& pipe : pipes) pipe->endReading();
    }
  }

  lock.lock();
  if (!collected_) collectLocked(true);
  waiting_ = false;
}

}  // namespace vl
