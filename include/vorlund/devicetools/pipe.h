// A one-way pipe between this process and a child process, the way the shell runner captures a
// child's output and feeds its input. Both ends are owned, opened close-on-exec and closed with the
// object.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "vorlund/foundation/error.h"

namespace vl {

class Pipe {
 public:
  // A new pipe, or nullptr with error when the system refuses one (too many open files).
  static std::shared_ptr<Pipe> make(Error* error = nullptr);
  ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  // The descriptors of the two ends; -1 once an end is closed.
  int readingDescriptor() const;
  int writingDescriptor() const;
  // Closing an end twice is harmless.
  void closeReading();
  void closeWriting();

  // Writes all of bytes to the writing end, blocking while the pipe is full. Returns false, with
  // error, when the end is closed or the reader has gone; the process gets no SIGPIPE.
  bool write(std::string_view bytes, Error* error = nullptr);

  // Everything that arrives at the reading end until end of file (every writer has closed its end),
  // including what drainAvailable() has already taken out of the pipe; then closes the reading end.
  // Blocks until end of file. None, with error, when the reading end was already closed or a read
  // fails (the reading end is closed all the same).
  std::optional<std::string> readToEndOfFile(Error* error = nullptr);

  // Moves what can be read at once, without blocking, into the pipe's own buffer, where
  // readToEndOfFile() finds it. The waiter of a running task calls it, so that a child writing more
  // than the kernel's pipe buffer holds never stalls on a full pipe. Returns false when there is
  // nothing more to drain here: end of file, a closed reading end, a failed read, or another thread
  // reading to end of file.
  bool drainAvailable();

  // Takes in what can be read at once and treats the pipe as ended from then on, so that
  // readToEndOfFile() returns what has arrived without waiting for writers that never close their
  // end. Does nothing while another thread is reading to end of file.
  void endReading();

 private:
  Pipe(int readingFd, int writingFd) : reading_(readingFd), writing_(writingFd) {}
  // With readingMutex_ held: drainAvailable() without the lock.
  bool drainLocked();

  mutable std::mutex readingMutex_;
  mutable std::mutex writingMutex_;
  int reading_;
  int writing_;
  std::string buffer_;
  bool endOfFile_ = false;
  std::atomic<bool> readerActive_{false};
};

}  // namespace vl
