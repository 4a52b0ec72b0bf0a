// vl::Condition: a lock with a condition variable, the `lock` of every object that waits for
// replies (the test case class base and other reply holders). The thread that hands a reply over
// appends it under the lock and broadcasts; the waiting thread waits on it.
#pragma once

#include <condition_variable>
#include <mutex>

#include "vorlund/foundation/value.h"

namespace vl {

// Meets BasicLockable and Lockable, so std::unique_lock<vl::Condition> and std::lock_guard work.
// As with any condition variable, waits may wake spuriously: callers loop on their predicate.
class Condition {
 public:
  Condition() = default;
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }
  bool try_lock() { return mutex_.try_lock(); }

  // Releases the lock (which the caller holds), blocks until signalled, and takes the lock again.
  void wait();
  // As wait(), but gives up at limit (wall-clock time). Returns false when limit passed without a
  // signal, true when woken earlier. The lock is held again in both cases.
  bool waitUntil(const Date& limit);

  // Wakes one waiting thread.
  void signal() { cv_.notify_one(); }
  // Wakes every waiting thread.
  void broadcast() { cv_.notify_all(); }

 private:
  std::mutex mutex_;
  std::condition_variable_any cv_;
};

}  // namespace vl
