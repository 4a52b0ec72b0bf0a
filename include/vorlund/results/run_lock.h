// The lock of this user's run: a flock on ~/Library/Caches/vorlund_results.lock. A run has one
// writer at a time. The stress service holds the lock for as long as it serves the run; a front end
// that keeps the run in its files holds it for one change (resume, change, suspend). So a service
// that starts while a front end writes waits for it, then resumes what the front end wrote.
#pragma once

#include <memory>
#include <string>

#include "vorlund/foundation/error.h"

namespace vl {

class RunLock {
 public:
  // The lock file, expanded for the current user.
  static std::string path();

  // Takes the lock. With wait, blocks until the holder lets go. Returns nullptr when wait is false
  // and another process holds the lock (*error untouched), and when the lock file cannot be
  // created or locked (*error set, naming the file and the reason).
  static std::unique_ptr<RunLock> take(bool wait, Error* error = nullptr);

  // Lets go of the lock.
  ~RunLock();
  RunLock(const RunLock&) = delete;
  RunLock& operator=(const RunLock&) = delete;

 private:
  explicit RunLock(int fd) : fd_(fd) {}
  int fd_;
};

}  // namespace vl
