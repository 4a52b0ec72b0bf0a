// A bounded set of worker threads, each running one piece of work and joined by the set: no thread
// of the bridge is ever detached or left behind unseen.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace vl::bridge {

class WorkerSet {
 public:
  explicit WorkerSet(size_t limit) : limit_(limit) {}
  // Waits for every running worker.
  ~WorkerSet() { close(std::chrono::nanoseconds::max()); }
  WorkerSet(const WorkerSet&) = delete;
  WorkerSet& operator=(const WorkerSet&) = delete;

  // Runs work on a thread of its own, first waiting while limit workers run (the caller is held
  // back rather than the work dropped). False, without running it, once the set is closed.
  bool run(std::function<void()> work) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || threads_.size() - finished_.size() < limit_; });
    if (closed_) return false;
    joinFinished(lock);
    const uint64_t id = nextId_++;
    threads_.emplace(id, std::thread([this, id, work = std::move(work)] {
                       work();
                       std::lock_guard done(mutex_);
                       finished_.push_back(id);
                       changed_.notify_all();
                     }));
    return true;
  }

  // Takes no more work and waits up to wait (real time) for the running workers. True when all
  // have ended; false leaves the others running (the caller then ends the process).
  bool close(std::chrono::nanoseconds wait) {
    std::unique_lock lock(mutex_);
    closed_ = true;
    changed_.notify_all();
    auto allFinished = [this] { return finished_.size() == threads_.size(); };
    if (wait == std::chrono::nanoseconds::max()) {
      changed_.wait(lock, allFinished);
    } else if (!changed_.wait_for(lock, wait, allFinished)) {
      joinFinished(lock);
      return false;
    }
    joinFinished(lock);
    return true;
  }

  size_t running() const {
    std::lock_guard lock(mutex_);
    return threads_.size() - finished_.size();
  }

 private:
  // Joins the workers that have ended; their threads have at most the unlock left to do.
  void joinFinished(std::unique_lock<std::mutex>& lock) {
    std::vector<std::thread> ended;
    for (uint64_t id : finished_) {
      ended.push_back(std::move(threads_[id]));
      threads_.erase(id);
    }
    finished_.clear();
    lock.unlock();
    for (std::thread& thread : ended) thread.join();
    lock.lock();
  }

  const size_t limit_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<uint64_t, std::thread> threads_;
  std::vector<uint64_t> finished_;
  uint64_t nextId_ = 0;
  bool closed_ = false;
};

}  // namespace vl::bridge
