// A named serial queue: work runs one item at a time, in the order it was submitted, on one worker
// thread that the queue starts on first use. The crash scanner, the diagnostic-archive trigger, the
// kill timers of child processes and the event registry each run on one.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace vl {

class SerialQueue {
 public:
  explicit SerialQueue(std::string label);
  // Work already submitted with async() still runs; work scheduled with asyncAfter() that is not
  // yet due is dropped; then the worker is joined. Destroying a queue from its own worker (the last
  // reference released by one of its items) finishes the queue on that thread without waiting.
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const;

  // Runs fn on the queue after the work already submitted.
  void async(std::function<void()> fn);
  // Runs fn on the queue and waits until it has run. Called on the queue itself (from one of its
  // items), fn runs at once on the calling thread, so a queue never waits on itself.
  void sync(const std::function<void()>& fn);
  // Runs fn on the queue once the scaled delay (vl::time::scaled(seconds)) has passed. Items that
  // fall due at the same time run in the order they were scheduled.
  void asyncAfter(double seconds, std::function<void()> fn);
  // The same with a point in time of the steady clock.
  void asyncAt(std::chrono::steady_clock::time_point when, std::function<void()> fn);

  // Whether the calling thread is this queue's worker, running one of its items.
  bool isCurrent() const;

  // An exception that escapes an item is written to standard error and dropped; the queue goes on.

  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace vl
