#include "vorlund/foundation/notification_center.h"

#include <gtest/gtest.h>

#include <thread>

namespace vl {
namespace {

TEST(NotificationCenterTest, DeliversToMatchingObserversInOrderOnThePostingThread) {
  NotificationCenter center;
  std::vector<std::string> seen;
  std::thread::id deliveredOn;
  center.addObserver("com.brindle.result.notification", [&](const Notification& n) {
    seen.push_back("first " + n.userInfo.get("result").stringOr(""));
    deliveredOn = std::this_thread::get_id();
  });
  center.addObserver("other", [&](const Notification&) { seen.push_back("other"); });
  center.addObserver("", [&](const Notification& n) { seen.push_back("all " + n.name); });
  center.addObserver("com.brindle.result.notification",
                     [&](const Notification&) { seen.push_back("second"); });

  std::thread poster([&] {
    center.post("com.brindle.result.notification", Dictionary{{"result", Value("r1")}});
  });
  const std::thread::id posterId = poster.get_id();
  poster.join();
  EXPECT_EQ(deliveredOn, posterId);
  EXPECT_EQ(seen, (std::vector<std::string>{"first r1", "all com.brindle.result.notification",
                                            "second"}));
  seen.clear();
  center.post("unobserved");
  EXPECT_EQ(seen, (std::vector<std::string>{"all unobserved"}));
  EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
}

TEST(NotificationCenterTest, ObserversMayRemoveThemselvesAndOthersDuringDelivery) {
  NotificationCenter center;
  std::vector<std::string> seen;
  NotificationCenter::ObserverToken self = 0;
  NotificationCenter::ObserverToken victim = 0;
  self = center.addObserver("n", [&](const Notification&) {
    seen.push_back("self");
    center.removeObserver(self);
  });
  center.addObserver("n", [&](const Notification&) {
    seen.push_back("remover");
    center.removeObserver(victim);
    center.addObserver("n", [&](const Notification&) { seen.push_back("late"); });
  });
  victim = center.addObserver("n", [&](const Notification&) { seen.push_back("victim"); });
  center.post("n");
  // The victim was removed before its turn; the observer added during the post waits for the next.
  EXPECT_EQ(seen, (std::vector<std::string>{"self", "remover"}));
  seen.clear();
  center.post("n");
  EXPECT_EQ(seen, (std::vector<std::string>{"remover", "late"}));
  center.removeObserver(12345);  // unknown tokens are ignored
}

}  // namespace
}  // namespace vl
