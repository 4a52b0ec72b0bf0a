// Each firing is one item scheduled on the queue; it schedules the next. Cancelling releases the
// handler and the queue at once (or, for a handler that is running, as soon as it returns), so a
// cancelled timer holds nothing alive while a stale item waits in the queue.
#include "vorlund/foundation/timer.h"

#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>
#include <thread>

#include "vorlund/foundation/time_scale.h"

namespace vl {

using Clock = std::chrono::steady_clock;

struct Timer::State {
  std::mutex mutex;
  std::condition_variable runningChanged;
  std::shared_ptr<SerialQueue> queue;
  std::function<void()> handler;
  Clock::duration interval{};
  Clock::time_point due;
  bool repeats = false;
  bool cancelled = false;
  bool running = false;
  std::thread::id runner;
  size_t fires = 0;
};

namespace {

// A delay or interval past this is never reached; the timer keeps it from overflowing the clock.
constexpr Clock::duration kLongestDelay = std::chrono::hours(24 * 365 * 100);

// t + d, held at the far end of the clock instead of wrapping past it.
Clock::time_point saturatingAdd(Clock::time_point t, Clock::duration d) {
  return d >= Clock::time_point::max() - t ? Clock::time_point::max() : t + d;
}

void fire(const std::shared_ptr<Timer::State>& state) {
  {
    std::lock_guard lock(state->mutex);
    if (state->cancelled) return;
    state->running = true;
    state->runner = std::this_thread::get_id();
  }
  try {
    state->handler();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "vl::Timer: the handler threw: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "vl::Timer: the handler threw an unknown exception\n");
  }
  std::function<void()> released;
  std::shared_ptr<SerialQueue> releasedQueue;
  {
    std::lock_guard lock(state->mutex);
    state->running = false;
    state->runner = {};
    ++state->fires;
    if (state->cancelled || !state->repeats) {
      state->cancelled = true;
      released = std::move(state->handler);
      releasedQueue = std::move(state->queue);
    } else {
      // Back onto the schedule of the first firing; after an overrun, fire at once but once.
      const auto now = Clock::now();
      state->due = saturatingAdd(state->due, state->interval);
      if (state->due < now) state->due += ((now - state->due) / state->interval) * state->interval;
      state->queue->asyncAt(state->due, [state] { fire(state); });
    }
  }
  state->runningChanged.notify_all();
}

}  // namespace

Timer::Timer(std::shared_ptr<SerialQueue> queue, double delay, double interval, double leeway,
             std::function<void()> handler)
    : state_(std::make_shared<State>()) {
  (void)leeway;
  if (!queue) queue = std::make_shared<SerialQueue>("vl.timer");
  state_->queue = std::move(queue);
  state_->handler = std::move(handler);
  state_->repeats = interval > 0;
  state_->interval = std::chrono::duration_cast<Clock::duration>(vl::time::scaled(interval));
  // A time scale of zero must not turn a repeating timer into a busy loop.
  if (state_->repeats && state_->interval <= Clock::duration::zero()) {
    state_->interval = std::chrono::microseconds(1);
  }
  // Not a number counts as no delay, as any other delay that is not positive.
  state_->due = saturatingAdd(Clock::now(), std::chrono::duration_cast<Clock::duration>(
                                                vl::time::scaled(delay > 0 ? delay : 0)));
  std::shared_ptr<State> state = state_;
  std::lock_guard lock(state_->mutex);
  state_->queue->asyncAt(state_->due, [state] { fire(state); });
}

Timer::~Timer() { cancel(); }

bool Timer::isInRange(double seconds) {
  return std::isfinite(seconds) && seconds >= 0 && vl::time::scaled(seconds) <= kLongestDelay;
}

void Timer::cancel() {
  std::function<void()> released;
  std::shared_ptr<SerialQueue> releasedQueue;
  {
    std::unique_lock lock(state_->mutex);
    state_->cancelled = true;
    if (state_->running && state_->runner == std::this_thread::get_id()) return;
    state_->runningChanged.wait(lock, [&] { return !state_->running; });
    released = std::move(state_->handler);
    releasedQueue = std::move(state_->queue);
  }
}

bool Timer::isCancelled() const {
  std::lock_guard lock(state_->mutex);
  return state_->cancelled;
}

size_t Timer::fireCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->fires;
}

}  // namespace vl
