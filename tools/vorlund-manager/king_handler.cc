#include "king_handler.h"

#include <sys/mman.h>
#include <unistd.h>

#include <csignal>

#include "manager_log.h"
#include "vorlund/conversion/file_handle.h"
#include "vorlund/devicetools/pipe.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/devicetools/task.h"
#include "vorlund/foundation/json.h"

namespace manager {
namespace {

std::string trimmed(const std::string& text) {
  const char* blanks = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The request as a file the handler reads from the start; unlike a pipe it never blocks the
// writer, however large the command and whether or not the handler reads it.
std::shared_ptr<vl::FileHandle> inputFile(const std::string& input) {
  int fd = memfd_create("king-request", MFD_CLOEXEC);
  if (fd < 0) return nullptr;
  auto handle = vl::FileHandle::adopt(fd);
  if (::write(fd, input.data(), input.size()) != static_cast<ssize_t>(input.size()) ||
      ::lseek(fd, 0, SEEK_SET) != 0) {
    return nullptr;
  }
  return handle;
}

}  // namespace

KingHandler::KingHandler(std::string program, double deadlineSeconds)
    : program_(std::move(program)), deadlineSeconds_(deadlineSeconds) {}

KingHandler::~KingHandler() { stop(); }

void KingHandler::run(int64_t request, const vl::Value& command,
                      const std::string& requestingDevice, Reply reply) {
  // Display JSON never fails: data and dates inside a command arrive as base64 and ISO text.
  std::string input = vl::json::displayString(vl::Dictionary{
      {"request", request}, {"command", command}, {"RequestingDevice", requestingDevice}});
  std::unique_lock lock(mutex_);
  reapLocked();
  if (stopping_) {
    lock.unlock();
    reply(KingOutcome{false, "The manager is stopping"});
    return;
  }
  Run& entry = runs_.emplace_back();
  entry.thread = std::thread([this, &entry, input = std::move(input), reply = std::move(reply)] {
    KingOutcome outcome = execute(entry, input);
    reply(outcome);
    std::lock_guard lock(mutex_);
    entry.done = true;
  });
}

KingOutcome KingHandler::execute(Run& run, const std::string& input) {
  auto task = vl::Task::make();
  task->setLaunchPath(program_);
  std::shared_ptr<vl::FileHandle> stdinFile = inputFile(input);
  std::shared_ptr<vl::Pipe> out = vl::Pipe::make();
  std::shared_ptr<vl::Pipe> err = vl::Pipe::make();
  if (!stdinFile || !out || !err) {
    return KingOutcome{false, "The manager could not prepare the king handler's streams"};
  }
  task->setStandardInput(stdinFile);
  task->setStandardOutput(out);
  task->setStandardError(err);
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return KingOutcome{false, "The manager is stopping"};
    vl::Error error;
    if (!task->launch(&error)) {
      return KingOutcome{false, vl::format("The king handler %s could not be started: %@",
                                           program_, error.localizedDescription())};
    }
    run.task = task;
  }
  VLSetNSTaskToTimeout(task, deadlineSeconds_);
  std::string output = trimmed(VLConvertPipeToString(out));
  std::string errorText = trimmed(VLConvertPipeToString(err));
  if (!output.empty()) log(VLLogLevelDebug, "King handler output: %s", output);
  if (!task->wasSignalled() && task->terminationStatus() == 0) return KingOutcome{true, ""};
  if (task->wasSignalled() && task->terminationStatus() == SIGKILL) {
    std::lock_guard lock(mutex_);
    if (stopping_) return KingOutcome{false, "The manager stopped while the king handler ran"};
    return KingOutcome{false, vl::format("The king handler did not finish within %.1f seconds",
                                         deadlineSeconds_)};
  }
  if (!errorText.empty()) return KingOutcome{false, errorText};
  if (task->wasSignalled()) {
    return KingOutcome{false, vl::format("The king handler was ended by signal %d",
                                         task->terminationStatus())};
  }
  return KingOutcome{false, vl::format("The king handler exited with status %d and said nothing",
                                       task->terminationStatus())};
}

void KingHandler::stop() {
  std::list<Run> ending;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    for (Run& run : runs_) {
      if (run.task) run.task->sendSignal(SIGKILL);
    }
    ending.splice(ending.end(), runs_);
  }
  for (Run& run : ending) run.thread.join();
}

void KingHandler::reapLocked() {
  for (auto it = runs_.begin(); it != runs_.end();) {
    if (it->done) {
      it->thread.join();
      it = runs_.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace manager
