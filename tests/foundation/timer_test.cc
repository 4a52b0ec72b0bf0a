#include "vorlund/foundation/timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <future>
#include <thread>

#include "foundation/recorder.h"
#include "vorlund/foundation/time_scale.h"

namespace vl {
namespace {

using test::Gate;
using test::Recorder;

// Waits until an item scheduled after the given (scaled) delay has run on the queue: anything the
// timer would have done in that time is done by then.
void drain(SerialQueue& queue, double seconds) {
  Recorder done;
  queue.asyncAfter(seconds, [&] { done.add(1); });
  ASSERT_TRUE(done.waitFor(1));
}

TEST(TimerTest, RepeatsUntilCancelledAndNeverFiresAfterwards) {
  time::ScopedScale fast(0.001);
  auto queue = std::make_shared<SerialQueue>("timer");
  Recorder firings;
  Timer timer(queue, 5, 2, 1, [&] {
    EXPECT_TRUE(queue->isCurrent());
    firings.add(1);
  });
  ASSERT_TRUE(firings.waitFor(5));
  timer.cancel();
  EXPECT_TRUE(timer.isCancelled());
  const size_t atCancel = firings.count();
  EXPECT_EQ(timer.fireCount(), atCancel);
  drain(*queue, 20);  // ten intervals
  EXPECT_EQ(firings.count(), atCancel);
  timer.cancel();  // twice is harmless
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
  EXPECT_TRUE(Timer::isInRange(0));
  EXPECT_TRUE(Timer::isInRange(86400 * 365));
  EXPECT_FALSE(Timer::isInRange(1e300));
  EXPECT_FALSE(Timer::isInRange(inf));
  EXPECT_FALSE(Timer::isInRange(std::nan("")));
}

TEST(TimerTest, TheHandlerMayCancelItsOwnTimer) {
  time::ScopedScale fast(0.001);
  auto queue = std::make_shared<SerialQueue>("self-cancel");
  Recorder firings;
  std::promise<Timer*> made;
  std::shared_future<Timer*> self = made.get_future().share();
  Timer timer(queue, 0, 1, 0, [&] {
    firings.add(1);
    if (firings.count() == 3) self.get()->cancel();
  });
  made.set_value(&timer);
  ASSERT_TRUE(firings.waitFor(3));
  drain(*queue, 20);
  EXPECT_EQ(firings.count(), 3u);
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
  EXPECT_EQ(timer.fireCount(), 1u);
}

TEST(TimerTest, DestroyingATimerCancelsIt) {
  time::ScopedScale fast(0.001);
  auto queue = std::make_shared<SerialQueue>("scoped");
  Recorder firings;
  {
    Timer timer(queue, 0, 1, 0, [&] { firings.add(1); });
    ASSERT_TRUE(firings.waitFor(2));
  }
  const size_t atDestruction = firings.count();
  drain(*queue, 20);
  EXPECT_EQ(firings.count(), atDestruction);
}

}  // namespace
}  // namespace vl
