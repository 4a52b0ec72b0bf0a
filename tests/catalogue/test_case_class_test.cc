#include "vorlund/catalogue/test_case_class.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "catalogue/value_printers.h"
#include "vorlund/catalogue/condition.h"
#include "vorlund/catalogue/test_environment.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/logging/log_capture.h"

namespace {

using vl::Array;
using vl::Dictionary;
using vl::Value;

class CountingTestClass : public VLTestCaseClass {
 public:
  bool registerForNotifications() override {
    ++registrations;
    return true;
  }
  int registrations = 0;
};

TEST(TestCaseClassTest, MakeRegistersTheSubclassAndTheInstanceIdIsArchived) {
  auto object = VLTestCaseClass::make<CountingTestClass>();
  EXPECT_EQ(object->registrations, 1);
  EXPECT_GT(object->lastUsed().secondsSince1970, 0) << "made objects count as used";
  EXPECT_EQ(object->friendlyName(), "(anonymous namespace)::CountingTestClass");
  auto base = VLTestCaseClass::make();
  EXPECT_FALSE(base->registerForNotifications() || base->checkForMissedNotifications());
  EXPECT_FALSE(VLTestCaseClass::getDefaultSettingsForType("Soak", "holistic"));

  base->setInstanceId("B0B0");
  vl::Error error;
  auto bytes = vl::archive(Value(base), &error);
  ASSERT_TRUE(bytes) << error.description();
  auto decoded = vl::unarchive(*bytes, VLValidExternalClassesForCoding(), &error);
  ASSERT_TRUE(decoded) << error.description();
  ASSERT_TRUE(decoded->record<VLTestCaseClass>());
  EXPECT_EQ(decoded->record<VLTestCaseClass>()->instanceId(), "B0B0");
}

// The reply hand-over of the reply holders: a receiver appends under the lock and broadcasts; the
// sender waits until its reply is there.
TEST(TestCaseClassTest, ConditionHandsRepliesOverBetweenThreads) {
  auto holder = VLTestCaseClass::make();
  std::shared_ptr<vl::Condition> lock = holder->lock();

  // Held before the receiver starts, so that the sender always waits.
  std::unique_lock guard(*lock);
  std::thread receiver([&] {
    std::lock_guard receiving(*lock);
    holder->updateResponses([](Array& replies) { replies.push_back(Dictionary{{"UUID", "M1"}}); });
    lock->broadcast();
  });
  while (holder->responses().empty()) lock->wait();
  receiver.join();
  EXPECT_EQ(holder->responses(), (Array{Dictionary{{"UUID", "M1"}}}));
  EXPECT_FALSE(lock->waitUntil(vl::Date{vl::Date::now().secondsSince1970 + 0.02}));
  EXPECT_FALSE(lock->waitUntil(vl::Date{0}));
  guard.unlock();

  // Concurrent updates are not lost.
  constexpr int kPerThread = 200;
  auto append = [&] {
    for (int i = 0; i < kPerThread; ++i) holder->updateResponses([](Array& r) { r.push_back(1); });
  };
  std::thread a(append), b(append);
  a.join();
  b.join();
  EXPECT_EQ(holder->responses().size(), 1 + 2u * kPerThread);
}

TEST(TestEnvironmentTest, LogFormatsTwice) {
  vl::LogCapture capture;
  auto environment = VLTestEnvironment::make();
  environment->log("load %d%%%% on %@", 50, std::string("wlan0"));
  environment->log("%@", std::string("rate 100%d"));
  EXPECT_TRUE(capture.contains(VLLogLevelNotice, "Default", "load 50% on wlan0"));
  EXPECT_TRUE(capture.contains(VLLogLevelNotice, "Default", "rate 100(null)"));
}

}  // namespace
