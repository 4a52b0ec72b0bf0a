// The watch thread polls the inotify descriptor beside an eventfd that cancel() signals, so that
// cancelling never waits for a folder event. The state is shared with the thread, which lets a
// handler cancel its own watch: the thread is then detached and leaves at its next turn.
#include "vorlund/foundation/directory_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>

namespace vl {

struct DirectoryWatch::State {
  std::string path;
  std::function<void()> onChange;
  int inotifyFd = -1;
  int wakeFd = -1;
  std::atomic<bool> cancelled{false};
  std::mutex cancelMutex;
  std::thread thread;
};

namespace {

void watchLoop(const std::shared_ptr<DirectoryWatch::State>& state) {
  // Large enough for many events with names up to NAME_MAX; a read never splits an event.
  alignas(inotify_event) char buffer[64 * 1024];
  while (!state->cancelled.load()) {
    pollfd fds[2] = {{state->inotifyFd, POLLIN, 0}, {state->wakeFd, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (state->cancelled.load() || (fds[1].revents & POLLIN)) return;
    if (!(fds[0].revents & POLLIN)) continue;
    bool changed = false;
    // Drain what is there, so that a burst of events makes one call of the handler.
    while (true) {
      ssize_t n = read(state->inotifyFd, buffer, sizeof buffer);
      if (n <= 0) break;
      for (ssize_t offset = 0; offset < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
        // IN_IGNORED and IN_Q_OVERFLOW arrive whatever the mask; only an overflow (events lost)
        // is worth a look at the folder.
        if ((event->mask & ~(IN_IGNORED | IN_ISDIR)) != 0) changed = true;
        offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
    if (changed && !state->cancelled.load()) state->onChange();
  }
}

Error watchError(const std::string& what, int code) {
  return Error::withReason(what + ": " + std::strerror(code));
}

}  // namespace

DirectoryWatch::DirectoryWatch(std::shared_ptr<State> state) : state_(std::move(state)) {}

std::unique_ptr<DirectoryWatch> DirectoryWatch::start(const std::string& path, uint32_t events,
                                                      std::function<void()> onChange,
                                                      Error* error) {
  auto state = std::make_shared<State>();
  state->path = path;
  state->onChange = std::move(onChange);
  state->inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (state->inotifyFd < 0) {
    setError(error, watchError("Cannot create an inotify descriptor", errno));
    return nullptr;
  }
  state->wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (state->wakeFd < 0 ||
      inotify_add_watch(state->inotifyFd, path.c_str(), events | IN_ONLYDIR) < 0) {
    setError(error, watchError("Cannot watch " + path, errno));
    close(state->inotifyFd);
    if (state->wakeFd >= 0) close(state->wakeFd);
    return nullptr;
  }
  state->thread = std::thread(watchLoop, state);
  return std::unique_ptr<DirectoryWatch>(new DirectoryWatch(state));
}

DirectoryWatch::~DirectoryWatch() { cancel(); }

int DirectoryWatch::cancel() {
  std::lock_guard lock(state_->cancelMutex);
  if (state_->cancelled.exchange(true)) return 0;
  uint64_t one = 1;
  ssize_t ignored = write(state_->wakeFd, &one, sizeof one);
  (void)ignored;
  if (state_->thread.get_id() == std::this_thread::get_id()) {
    state_->thread.detach();
  } else if (state_->thread.joinable()) {
    state_->thread.join();
  }
  // A detached thread touches the descriptors no more once it has seen the flag.
  close(state_->wakeFd);
  int failure = close(state_->inotifyFd) == 0 ? 0 : errno;
  state_->inotifyFd = state_->wakeFd = -1;
  return failure;
}

bool DirectoryWatch::isCancelled() const { return state_->cancelled.load(); }

const std::string& DirectoryWatch::path() const { return state_->path; }

}  // namespace vl
