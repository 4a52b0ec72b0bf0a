#include "vorlund/foundation/timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "vorlund/foundation/time_scale.h"

namespace vl {
namespace {

// Counts firings and lets the test wait (up to a generous bound) for a number of them.
class Firings {
 public:
  void fire() {
    std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  bool waitFor(int n) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return count_ >= n; });
  }
  int count() {
    std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

// Waits until an item scheduled after the given (scaled) delay has run on the queue: anything the
// timer would have done in that time is done by then.
void drain(SerialQueue& queue, double seconds) {
  std::mutex mutex;
  std::condition_variable cv;
  bool done = false;
  queue.asyncAfter(seconds, [&] {
    std::lock_guard lock(mutex);
    done = true;
    cv.notify_all();
  });
  std::unique_lock lock(mutex);
  ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(20), [&] { return done; }));
}

TEST(TimerTest, RepeatsUntilCancelledAndNeverFiresAfterwards) {
  time::ScopedScale fast(0.001);
  auto queue = std::make_shared<SerialQueue>("timer");
  Firings firings;
  Timer timer(queue, 5, 2, 1, [&] {
    EXPECT_TRUE(queue->isCurrent());
    firings.fire();
  });
  ASSERT_TRUE(firings.waitFor(5));
  timer.cancel();
  EXPECT_TRUE(timer.isCancelled());
  const int atCancel = firings.count();
  EXPECT_EQ(timer.fireCount(), static_cast<size_t>(atCancel));
  drain(*queue, 20);  // ten intervals
  EXPECT_EQ(firings.count(), atCancel);
  timer.cancel();  // twice is harmless
}

TEST(TimerTest, AZeroIntervalFiresOnce) {
  time::ScopedScale fast(0.001);
  auto queue = std::make_shared<SerialQueue>("once");
  Firings firings;
  Timer timer(queue, 1, 0, 0, [&] { firings.fire(); });
  ASSERT_TRUE(firings.waitFor(1));
  drain(*queue, 20);
  EXPECT_EQ(firings.count(), 1);
  EXPECT_EQ(timer.fireCount(), 1u);
}

TEST(TimerTest, TheHandlerMayCancelItsOwnTimer) {
  time::ScopedScale fast(0.001);
  auto queue = std::make_shared<SerialQueue>("self-cancel");
  Firings firings;
  std::promise<Timer*> made;
  std::shared_future<Timer*> self = made.get_future().share();
  Timer timer(queue, 0, 1, 0, [&] {
    firings.fire();
    if (firings.count() == 3) self.get()->cancel();
  });
  made.set_value(&timer);
  ASSERT_TRUE(firings.waitFor(3));
  drain(*queue, 20);
  EXPECT_EQ(firings.count(), 3);
  EXPECT_TRUE(timer.isCancelled());
}

TEST(TimerTest, CancelWaitsForAHandlerRunningElsewhere) {
  time::ScopedScale fast(0.001);
  std::mutex mutex;
  std::condition_variable cv;
  bool entered = false;
  bool release = false;
  std::atomic<bool> finished{false};
  Timer timer(nullptr, 0, 1, 0, [&] {
    std::unique_lock lock(mutex);
    entered = true;
    cv.notify_all();
    cv.wait(lock, [&] { return release; });
    finished = true;
  });
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(20), [&] { return entered; }));
  }
  std::atomic<bool> finishedWhenCancelReturned{false};
  std::thread canceller([&] {
    timer.cancel();
    finishedWhenCancelReturned = finished.load();
  });
  time::sleepFor(20);  // give the canceller time to block in cancel()
  {
    std::lock_guard lock(mutex);
    release = true;
    cv.notify_all();
  }
  canceller.join();
  EXPECT_TRUE(finishedWhenCancelReturned);
  EXPECT_EQ(timer.fireCount(), 1u);
}

TEST(TimerTest, DestroyingATimerCancelsIt) {
  time::ScopedScale fast(0.001);
  auto queue = std::make_shared<SerialQueue>("scoped");
  Firings firings;
  {
    Timer timer(queue, 0, 1, 0, [&] { firings.fire(); });
    ASSERT_TRUE(firings.waitFor(2));
  }
  const int atDestruction = firings.count();
  drain(*queue, 20);
  EXPECT_EQ(firings.count(), atDestruction);
}

}  // namespace
}  // namespace vl
