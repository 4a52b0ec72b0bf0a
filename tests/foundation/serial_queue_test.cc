// The serial queue, the background pool and timers on top of them.
#include "vorlund/foundation/serial_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <future>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "vorlund/foundation/background.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/foundation/timer.h"

namespace vl {
namespace {

// Thread hand-over helpers: a recorder of values that the test waits on (with a generous bound),
// and a gate that work waits at until the test opens it.
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

// Opened by its first value; wait gives false if it stayed shut for 20 seconds.
struct Gate : Recorder {
  void open() { add(0); }
  bool wait() { return waitFor(1); }
};

TEST(SerialQueueTest, RunsItemsOneAtATimeInSubmissionOrder) {
  SerialQueue queue("com.brindle.Vorlund.test");
  EXPECT_EQ(queue.label(), "com.brindle.Vorlund.test");
  std::vector<int> order;  // touched only on the queue
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  auto produce = [&](int p) {
    for (int i = 0; i < 200; ++i) {
      queue.async([&, p, i] {
        overlapped = overlapped || inside.fetch_add(1) != 0;
        order.push_back(p * 1000 + i);
        inside.fetch_sub(1);
      });
    }
  };
  std::thread other(produce, 1);
  produce(0);
  other.join();
  queue.sync([] {});
  EXPECT_FALSE(overlapped);
  // Each producer's items kept their order.
  std::vector<int> next(2, 0);
  for (int v : order) EXPECT_EQ(v % 1000, next[v / 1000]++);
  EXPECT_EQ(next, (std::vector<int>{200, 200}));
}

TEST(SerialQueueTest, SyncFromInsideTheQueueRunsInline) {
  SerialQueue queue("inline");
  std::vector<std::string> steps;
  queue.sync([&] {
    EXPECT_TRUE(queue.isCurrent());
    steps.push_back("outer");
    queue.sync([&] { steps.push_back("inner"); });
    steps.push_back("after");
  });
  // An exception thrown by a sync item reaches the caller; the queue goes on.
  EXPECT_THROW(queue.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
  queue.async([] { throw std::runtime_error("dropped"); });
  queue.sync([&] { steps.push_back("still running"); });
  EXPECT_EQ(steps, (std::vector<std::string>{"outer", "inner", "after", "still running"}));
}

TEST(SerialQueueTest, TheLastReferenceMayBeReleasedOnTheQueueItself) {
  auto queue = std::make_shared<SerialQueue>("self");
  std::weak_ptr<SerialQueue> watch = queue;
  Recorder recorder;
  Gate gate;
  queue->async([&, keep = queue] {
    gate.wait();
    recorder.add(1);
  });
  queue->async([&] {
    // The first item's capture held the last reference: the queue was destroyed on its own
    // worker, which still runs the work that was pending.
    recorder.add(watch.expired() ? 2 : -2);
  });
  queue.reset();
  gate.open();
  ASSERT_TRUE(recorder.waitFor(2));
  EXPECT_EQ(recorder.values(), (std::vector<int>{1, 2}));
}

TEST(BackgroundTest, RunsWorkConcurrently) {
  EXPECT_GE(background::threadCount(), 2u);
  // Two items that each wait for the other finish only when they run at the same time.
  Recorder recorder;
  Gate first;
  Gate second;
  background::run([&] {
    first.open();
    EXPECT_TRUE(second.wait());
    recorder.add(1);
  });
  background::run([&] {
    second.open();
    EXPECT_TRUE(first.wait());
    recorder.add(2);
  });
  for (int i = 0; i < 50; ++i) background::run([&recorder, i] { recorder.add(100 + i); });
  EXPECT_TRUE(recorder.waitFor(52));
}

// Waits out the (scaled) delay on the queue: what a timer would have done by then is done.
void drain(SerialQueue& queue, double seconds) {
  Recorder done;
  queue.asyncAfter(seconds, [&] { done.add(1); });
  ASSERT_TRUE(done.waitFor(1));
}

TEST(TimerTest, FiresOnceForAZeroIntervalAndNeverPastItsRange) {
  time::ScopedScale fast(0.001);
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    double delay, interval;
    size_t firings;
  } cases[] = {{1, 0, 1}, {inf, 0, 0}, {1e300, 1, 0}, {1, inf, 1}, {0, 1e300, 1}};
  for (const Case& c : cases) {
    auto queue = std::make_shared<SerialQueue>("range");
    Recorder firings;
    Timer timer(queue, c.delay, c.interval, 0, [&] { firings.add(1); });
    drain(*queue, 20);
    EXPECT_EQ(firings.count(), c.firings) << c.delay << " " << c.interval;
    EXPECT_EQ(timer.fireCount(), c.firings);
  }
  EXPECT_FALSE(Timer::isInRange(std::nan("")));
}

TEST(TimerTest, TheHandlerMayCancelItsOwnTimerAndDestructionCancels) {
  time::ScopedScale fast(0.001);
  auto queue = std::make_shared<SerialQueue>("self-cancel");
  Recorder firings;
  std::promise<Timer*> made;
  std::shared_future<Timer*> self = made.get_future().share();
  Timer timer(queue, 0, 1, 0, [&] {
    EXPECT_TRUE(queue->isCurrent());
    firings.add(1);
    if (firings.count() == 3) self.get()->cancel();
  });
  made.set_value(&timer);
  ASSERT_TRUE(firings.waitFor(3));
  {
    Timer scoped(queue, 0, 1, 0, [&] { firings.add(2); });
    ASSERT_TRUE(firings.waitFor(5));
  }
  const size_t atDestruction = firings.count();
  drain(*queue, 20);  // ten intervals
  EXPECT_EQ(firings.count(), atDestruction);
  EXPECT_EQ(timer.fireCount(), 3u);
  EXPECT_TRUE(timer.isCancelled());
}

TEST(TimerTest, CancelWaitsForAHandlerRunningElsewhere) {
  time::ScopedScale fast(0.001);
  Recorder entered;
  Gate release;
  std::atomic<bool> finished{false};
  Timer timer(nullptr, 0, 1, 0, [&] {
    entered.add(1);
    release.wait();
    finished = true;
  });
  ASSERT_TRUE(entered.waitFor(1));
  std::atomic<bool> finishedWhenCancelReturned{false};
  std::thread canceller([&] {
    timer.cancel();
    finishedWhenCancelReturned = finished.load();
  });
  time::sleepFor(20);  // give the canceller time to block in cancel()
  release.open();
  canceller.join();
  EXPECT_TRUE(finishedWhenCancelReturned);
}

}  // namespace
}  // namespace vl
