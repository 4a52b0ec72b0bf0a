#include "vorlund/devicetools/pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "vorlund/foundation/format.h"

namespace vl {

namespace {

// Bytes one drainAvailable() call moves at most, so that the waiter comes back to look at the
// child between helpings of a child that writes without pause.
constexpr size_t kDrainHelping = 1 << 20;

Error pipeError(const std::string& what, int code) {
  return Error::withReason(vl::format("%s: %s", what, std::strerror(code)));
}

// Writes with SIGPIPE blocked in the calling thread and takes back a SIGPIPE that the write raised,
// so a reader that has gone turns into EPIPE rather than ending the process.
ssize_t writeWithoutSigpipe(int fd, const char* bytes, size_t size) {
  sigset_t pipeSet, previous, pending;
  sigemptyset(&pipeSet);
  sigaddset(&pipeSet, SIGPIPE);
  sigemptyset(&pending);
  sigpending(&pending);
  const bool alreadyPending = sigismember(&pending, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeSet, &previous);
  ssize_t n;
  do {
    n = ::write(fd, bytes, size);
  } while (n < 0 && errno == EINTR);
  const int saved = errno;
  if (n < 0 && saved == EPIPE && !alreadyPending) {
    timespec none{0, 0};
    while (sigtimedwait(&pipeSet, nullptr, &none) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  errno = saved;
  return n;
}

}  // namespace

std::shared_ptr<Pipe> Pipe::make(Error* error) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    setError(error, pipeError("Could not create a pipe", errno));
    return nullptr;
  }
  return std::shared_ptr<Pipe>(new Pipe(fds[0], fds[1]));
}

Pipe::~Pipe() {
  closeReading();
  closeWriting();
}

int Pipe::readingDescriptor() const {
  std::lock_guard lock(readingMutex_);
  return reading_;
}

int Pipe::writingDescriptor() const {
  std::lock_guard lock(writingMutex_);
  return writing_;
}

void Pipe::closeReading() {
  std::lock_guard lock(readingMutex_);
  if (reading_ >= 0) ::close(reading_);
  reading_ = -1;
}

void Pipe::closeWriting() {
  std::lock_guard lock(writingMutex_);
  if (writing_ >= 0) ::close(writing_);
  writing_ = -1;
}

bool Pipe::write(std::string_view bytes, Error* error) {
  std::lock_guard lock(writingMutex_);
  if (writing_ < 0) {
    setError(error, pipeError("Could not write to a pipe", EBADF));
    return false;
  }
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = writeWithoutSigpipe(writing_, bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      setError(error, pipeError("Could not write to a pipe", errno));
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

std::optional<std::string> Pipe::readToEndOfFile(Error* error) {
  // Marked before waiting for the lock, so that the waiter of a running task leaves this end alone
  // from now on instead of spinning on it.
  readerActive_ = true;
  std::lock_guard lock(readingMutex_);
  if (reading_ < 0) {
    setError(error, pipeError("Could not read from a pipe", EBADF));
    return std::nullopt;
  }
  std::string content = std::move(buffer_);
  buffer_.clear();
  int failure = 0;
  char chunk[65536];
  while (!endOfFile_) {
    ssize_t n = ::read(reading_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      failure = errno;
      break;
    }
    if (n == 0) break;
    content.append(chunk, static_cast<size_t>(n));
  }
  ::close(reading_);
  reading_ = -1;
  if (failure != 0) {
    setError(error, pipeError("Could not read from a pipe", failure));
    return std::nullopt;
  }
  return content;
}

bool Pipe::drainAvailable() {
  std::unique_lock lock(readingMutex_, std::try_to_lock);
  // Held only briefly by anyone but a reader to end of file; a reader takes over the draining.
  if (!lock.owns_lock()) return !readerActive_;
  return drainLocked();
}

void Pipe::endReading() {
  std::unique_lock lock(readingMutex_, std::try_to_lock);
  // A reader already waiting for the end keeps waiting: it cannot be woken from here.
  if (!lock.owns_lock()) return;
  drainLocked();
  endOfFile_ = true;
}

bool Pipe::drainLocked() {
  if (reading_ < 0 || endOfFile_) return false;
  size_t moved = 0;
  char chunk[65536];
  while (moved < kDrainHelping) {
    pollfd ready{reading_, POLLIN, 0};
    int r = ::poll(&ready, 1, 0);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return r == 0;
    ssize_t n = ::read(reading_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) {
      endOfFile_ = true;
      return false;
    }
    buffer_.append(chunk, static_cast<size_t>(n));
    moved += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace vl
