// Waiting for a descriptor to become readable with a time limit, shared by the frame reader's
// time-out and the server's pause between bind attempts.
#pragma once

#include <poll.h>

#include <cerrno>
#include <chrono>

namespace vl::hostlink {

// True once descriptor is readable (data, end of stream, an error or a failed poll all count, so
// that the read that follows reports them); false when limit passes first. Signals do not shorten
// the wait.
inline bool waitUntilReadable(int descriptor, std::chrono::nanoseconds limit) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + limit;
  pollfd entry{descriptor, POLLIN, 0};
  for (;;) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    int ready = ::poll(&entry, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready > 0) return true;
    if (ready == 0) return false;
    if (errno != EINTR) return true;
  }
}

}  // namespace vl::hostlink
