// A timer source: runs a handler on a serial queue, first after a delay and then every interval,
// until cancelled. All delays pass through the process time scale (vl::time::scaled).
#pragma once

#include <functional>
#include <memory>

#include "vorlund/foundation/serial_queue.h"

namespace vl {

class Timer {
 public:
  // Starts the timer at once. The handler runs on queue (a private queue of its own when queue is
  // null) first after delay seconds, then every interval seconds; an interval of 0 fires once.
  // Firings keep to the schedule of the first one: a handler that runs long delays the next firing
  // but does not shift the ones after it, and missed firings are not run twice. leeway (seconds)
  // is how late a firing may come; this implementation fires as soon as the queue is free and
  // takes the leeway as documentation only. A delay or interval beyond the timer's range (see
  // isInRange) is held at the far end of the clock: such a firing never comes, and it never wraps
  // round into one that comes at once.
  Timer(std::shared_ptr<SerialQueue> queue, double delay, double interval, double leeway,
        std::function<void()> handler);
  // Cancels.
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Stops the timer. When cancel() returns the handler will not start again; a handler already
  // running on another thread is waited for. Called from the handler itself, cancel() does not
  // wait (the current run finishes after it returns). Cancelling twice is harmless.
  void cancel();
  bool isCancelled() const;
  // Number of times the handler has run to completion.
  size_t fireCount() const;

  // Whether a delay of seconds (scaled) is one the timer can reach: finite, not negative, and at
  // most about a century.
  static bool isInRange(double seconds);

  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace vl
