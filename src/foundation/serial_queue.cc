// The queue's state lives in a shared block that the worker thread holds too, so a queue destroyed
// from its own worker can hand the rest of its work to that thread and return.
#include "vorlund/foundation/serial_queue.h"

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>

#include "vorlund/foundation/time_scale.h"

namespace vl {

using Clock = std::chrono::steady_clock;

struct SerialQueue::State {
  explicit State(std::string l) : label(std::move(l)) {}

  std::string label;
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::function<void()>> ready;
  // Equal times keep their insertion order: multimap inserts at the end of an equal range.
  std::multimap<Clock::time_point, std::function<void()>> delayed;
  std::thread worker;
  bool started = false;
  bool stopping = false;
};

namespace {

thread_local const SerialQueue::State* tCurrentQueue = nullptr;

void runItem(const std::string& label, std::function<void()>& fn) {
  try {
    fn();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "vl::SerialQueue \"%s\": an item threw: %s\n", label.c_str(), e.what());
  } catch (...) {
    std::fprintf(stderr, "vl::SerialQueue \"%s\": an item threw an unknown exception\n",
                 label.c_str());
  }
}

void workerLoop(std::shared_ptr<SerialQueue::State> state) {
  tCurrentQueue = state.get();
  std::unique_lock lock(state->mutex);
  while (true) {
    if (!state->stopping) {
      const auto now = Clock::now();
      while (!state->delayed.empty() && state->delayed.begin()->first <= now) {
        state->ready.push_back(std::move(state->delayed.begin()->second));
        state->delayed.erase(state->delayed.begin());
      }
    }
    if (!state->ready.empty()) {
      std::function<void()> fn = std::move(state->ready.front());
      state->ready.pop_front();
      lock.unlock();
      runItem(state->label, fn);
      fn = nullptr;  // whatever the item captured is released outside the lock
      lock.lock();
      continue;
    }
    if (state->stopping) break;
    if (state->delayed.empty()) {
      state->wake.wait(lock);
    } else {
      // A copy: the destructor may drop the item while this waits, and the wait reads it on waking.
      const Clock::time_point due = state->delayed.begin()->first;
      state->wake.wait_until(lock, due);
    }
  }
  tCurrentQueue = nullptr;
}

// Starts the worker on first use. Called with the state's mutex held.
void ensureWorker(const std::shared_ptr<SerialQueue::State>& state) {
  if (state->started) return;
  state->started = true;
  state->worker = std::thread(workerLoop, state);
}

}  // namespace

SerialQueue::SerialQueue(std::string label) : state_(std::make_shared<State>(std::move(label))) {}

SerialQueue::~SerialQueue() {
  std::multimap<Clock::time_point, std::function<void()>> dropped;
  std::thread worker;
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    const auto now = Clock::now();
    while (!state_->delayed.empty() && state_->delayed.begin()->first <= now) {
      state_->ready.push_back(std::move(state_->delayed.begin()->second));
      state_->delayed.erase(state_->delayed.begin());
    }
    dropped.swap(state_->delayed);
    worker = std::move(state_->worker);
  }
  state_->wake.notify_all();
  dropped.clear();
  if (!worker.joinable()) return;
  if (worker.get_id() == std::this_thread::get_id()) {
    worker.detach();
  } else {
    worker.join();
  }
}

const std::string& SerialQueue::label() const { return state_->label; }

void SerialQueue::async(std::function<void()> fn) {
  {
    std::lock_guard lock(state_->mutex);
    state_->ready.push_back(std::move(fn));
    ensureWorker(state_);
  }
  state_->wake.notify_one();
}

void SerialQueue::sync(const std::function<void()>& fn) {
  if (isCurrent()) {
    fn();
    return;
  }
  std::mutex mutex;
  std::condition_variable doneChanged;
  bool done = false;
  std::exception_ptr failure;
  async([&] {
    try {
      fn();
    } catch (...) {
      failure = std::current_exception();
    }
    std::lock_guard lock(mutex);
    done = true;
    doneChanged.notify_one();
  });
  std::unique_lock lock(mutex);
  doneChanged.wait(lock, [&] { return done; });
  if (failure) std::rethrow_exception(failure);
}

void SerialQueue::asyncAfter(double seconds, std::function<void()> fn) {
  asyncAt(Clock::now() + vl::time::scaled(seconds), std::move(fn));
}

void SerialQueue::asyncAt(std::chrono::steady_clock::time_point when, std::function<void()> fn) {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->stopping) return;
    state_->delayed.emplace(when, std::move(fn));
    ensureWorker(state_);
  }
  state_->wake.notify_one();
}

bool SerialQueue::isCurrent() const { return tCurrentQueue == state_.get(); }

}  // namespace vl
