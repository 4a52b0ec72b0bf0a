// Thread hand-over helpers of the foundation tests: a recorder of values that the test waits on
// (with a generous bound), and a gate that work waits at until the test opens it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace vl::test {

class Recorder {
 public:
  void add(int v) {
    std::lock_guard lock(mutex_);
    values_.push_back(v);
    changed_.notify_all();
  }
  // False if fewer than count values came within 20 seconds.
  bool waitFor(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20),
                             [&] { return values_.size() >= count; });
  }
  std::vector<int> values() {
    std::lock_guard lock(mutex_);
    return values_;
  }
  size_t count() { return values().size(); }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<int> values_;
};

class Gate {
 public:
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

}  // namespace vl::test
