#include "vorlund/results/run_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vorlund/foundation/format.h"
#include "vorlund/foundation/paths.h"

namespace vl {
namespace {

constexpr const char* kRunLockDomain = "com.brindle.Vorlund.RunLock";

Error lockError(const std::string& what, const std::string& path, int errorNumber) {
  return Error::withDescription(kRunLockDomain, errorNumber,
                                vl::format("Unable to %s the run lock %s: %s", what.c_str(),
                                           path.c_str(), std::strerror(errorNumber)));
}

}  // namespace

std::string RunLock::path() { return paths::expandTilde("~/Library/Caches/vorlund_results.lock"); }

std::unique_ptr<RunLock> RunLock::take(bool wait, Error* error) {
  const std::string file = path();
  paths::createDirectories(paths::deletingLastComponent(file));
  int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    setError(error, lockError("open", file, errno));
    return nullptr;
  }
  while (::flock(fd, wait ? LOCK_EX : LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    int failure = errno;
    ::close(fd);
    if (failure != EWOULDBLOCK) setError(error, lockError("lock", file, failure));
    return nullptr;
  }
  return std::unique_ptr<RunLock>(new RunLock(fd));
}

RunLock::~RunLock() { ::close(fd_); }  // closing the descriptor releases the lock

}  // namespace vl
