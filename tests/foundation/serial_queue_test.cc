#include "vorlund/foundation/serial_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "foundation/recorder.h"
#include "vorlund/foundation/background.h"
#include "vorlund/foundation/time_scale.h"

namespace vl {
namespace {

using test::Gate;
using test::Recorder;

TEST(SerialQueueTest, RunsItemsOneAtATimeInSubmissionOrder) {
  SerialQueue queue("com.brindle.Vorlund.test");
  EXPECT_EQ(queue.label(), "com.brindle.Vorlund.test");
  std::vector<int> order;  // touched only on the queue
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::vector<std::thread> producers;
  for (int p = 0; p < 3; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < 200; ++i) {
        queue.async([&, p, i] {
          if (inside.fetch_add(1) != 0) overlapped = true;
          order.push_back(p * 1000 + i);
          inside.fetch_sub(1);
        });
      }
    });
  }
  for (std::thread& t : producers) t.join();
  size_t count = 0;
  queue.sync([&] { count = order.size(); });
  EXPECT_EQ(count, 600u);
  EXPECT_FALSE(overlapped);
  // Each producer's items kept their order.
  std::vector<int> last(3, -1);
  for (int v : order) {
    EXPECT_GT(v % 1000, last[v / 1000]);
    last[v / 1000] = v % 1000;
  }
}

TEST(SerialQueueTest, SyncFromInsideTheQueueRunsInline) {
  SerialQueue queue("inline");
  EXPECT_FALSE(queue.isCurrent());
  std::vector<std::string> steps;
  queue.sync([&] {
    EXPECT_TRUE(queue.isCurrent());
    steps.push_back("outer");
    queue.sync([&] { steps.push_back("inner"); });
    steps.push_back("after");
  });
  EXPECT_EQ(steps, (std::vector<std::string>{"outer", "inner", "after"}));
  // An exception thrown by a sync item reaches the caller; the queue goes on.
  EXPECT_THROW(queue.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
  queue.async([] { throw std::runtime_error("dropped"); });
  bool ran = false;
  queue.sync([&] { ran = true; });
  EXPECT_TRUE(ran);
}

TEST(SerialQueueTest, DelayedItemsRunInOrderOfTheirTime) {
  time::ScopedScale fast(0.001);
  SerialQueue queue("delays");
  Recorder recorder;
  Gate gate;
  queue.async([&] { gate.wait(); });  // holds the queue until everything is scheduled
  const auto base = std::chrono::steady_clock::now();
  queue.asyncAt(base + time::scaled(30), [&] { recorder.add(3); });
  queue.asyncAt(base + time::scaled(10), [&] { recorder.add(1); });
  queue.asyncAt(base + time::scaled(20), [&] { recorder.add(2); });
  queue.asyncAt(base + time::scaled(20), [&] { recorder.add(22); });  // same time: after the other
  queue.asyncAfter(10, [&] { recorder.add(4); });  // due after base + 10: after the first
  queue.async([&] { recorder.add(0); });
  gate.open();
  ASSERT_TRUE(recorder.waitFor(6));
  const std::vector<int> order = recorder.values();
  EXPECT_EQ(order[0], 0);
  EXPECT_EQ(order[1], 1);
  // 4 falls due somewhere after 1; the others keep their times' order.
  std::vector<int> withoutFour;
  for (int v : order) {
    if (v != 4) withoutFour.push_back(v);
  }
  EXPECT_EQ(withoutFour, (std::vector<int>{0, 1, 2, 22, 3}));
}

TEST(SerialQueueTest, DestructionRunsPendingWorkAndDropsDelayedWork) {
  std::atomic<int> ran{0};
  std::atomic<bool> delayedRan{false};
  Gate gate;
  {
    SerialQueue queue("drain");
    queue.async([&] { gate.wait(); });
    for (int i = 0; i < 10; ++i) queue.async([&] { ++ran; });
    queue.asyncAfter(3600, [&] { delayedRan = true; });
    gate.open();
  }
  EXPECT_EQ(ran, 10);
  EXPECT_FALSE(delayedRan);
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
    second.wait();
    recorder.add(1);
  });
  background::run([&] {
    second.open();
    first.wait();
    recorder.add(2);
  });
  ASSERT_TRUE(recorder.waitFor(2));
  for (int i = 0; i < 50; ++i) background::run([&recorder, i] { recorder.add(100 + i); });
  ASSERT_TRUE(recorder.waitFor(52));
  EXPECT_EQ(recorder.values().size(), 52u);
}

}  // namespace
}  // namespace vl
