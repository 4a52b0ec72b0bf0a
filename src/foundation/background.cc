#include "vorlund/foundation/background.h"

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace vl::background {
namespace {

// Blocking work (waiting for child processes, sleeping out time-outs) runs here, so the pool is a
// little wider than the two cores it usually has.
constexpr size_t kThreadCount = 4;

class Pool {
 public:
  Pool() {
    for (size_t i = 0; i < kThreadCount; ++i) threads_.emplace_back([this] { work(); });
  }
  ~Pool() {
    std::deque<std::function<void()>> dropped;
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      dropped.swap(items_);
    }
    wake_.notify_all();
    for (std::thread& t : threads_) t.join();
  }

  void add(std::function<void()> fn) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      items_.push_back(std::move(fn));
    }
    wake_.notify_one();
  }

 private:
  void work() {
    std::unique_lock lock(mutex_);
    while (true) {
      wake_.wait(lock, [this] { return stopping_ || !items_.empty(); });
      if (stopping_) return;
      std::function<void()> fn = std::move(items_.front());
      items_.pop_front();
      lock.unlock();
      try {
        fn();
      } catch (const std::exception& e) {
        std::fprintf(stderr, "vl::background: an item threw: %s\n", e.what());
      } catch (...) {
        std::fprintf(stderr, "vl::background: an item threw an unknown exception\n");
      }
      fn = nullptr;
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> items_;
  std::vector<std::thread> threads_;
  bool stopping_ = false;
};

Pool& pool() {
  static Pool instance;
  return instance;
}

}  // namespace

void run(std::function<void()> fn) { pool().add(std::move(fn)); }

size_t threadCount() { return kThreadCount; }

}  // namespace vl::background
