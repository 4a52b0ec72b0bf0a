// Paths, process names, date strings, user defaults and notifications.
#include "vorlund/foundation/paths.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/test_support.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/notification_center.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/foundation/user_defaults.h"

namespace vl {
namespace {

TEST(PathsTest, DevicePathsResolveUnderTheRootAndTildeUnderHome) {
  test::ScopedEnv home("HOME", "/home/tester");
  {
    test::ScopedEnv root("VORLUND_ROOT", std::nullopt);
    EXPECT_EQ(paths::resolve("/tmp/Faultbin/"), "/tmp/Faultbin/");
  }
  test::ScopedEnv root("VORLUND_ROOT", "/sandbox/root/");
  EXPECT_EQ(paths::resolve("/tmp/Faultbin/"), "/sandbox/root/tmp/Faultbin/");
  EXPECT_EQ(paths::resolve("~/x"), "/home/tester/x");
  EXPECT_EQ(paths::resolve("relative/x"), "relative/x");
  EXPECT_EQ(paths::deletingLastComponent("/b"), "/");
}

TEST(DateStringTest, RoundTripInLocalTime) {
  test::ScopedEnv tz("TZ", "Europe/Paris");
  tzset();
  Date date{1769843702.0};  // 2026-01-31 07:15:02 UTC
  EXPECT_EQ(dateString(date), "2026-01-31-08-15-02");
  EXPECT_EQ(dateFromString("2026-01-31-08-15-02"), date);
  EXPECT_EQ(formatLocalTime(Date{1769843702.123456}, "%Y-%m-%d %H:%M:%S.%f"),
            "2026-01-31 08:15:02.123456");
  for (const char* bad : {"2026-01-31 08:15:02", "2026-13-31-08-15-02", ""}) {
    EXPECT_FALSE(dateFromString(bad).has_value()) << bad;
  }
  // Years before 1000 keep four digits, so that they read back.
  Date early{-31039200000.0};  // in the year 986
  EXPECT_EQ(dateString(early).size(), 19u) << dateString(early);
  EXPECT_EQ(dateFromString(dateString(early)), early);
}

TEST(UserDefaultsTest, ArgumentDomainWinsOverTheProgramsDefaultsFile) {
  test::Sandbox sandbox;
  process::ScopedName name("vorlund-defaults");
  UserDefaults& defaults = UserDefaults::standard();
  process::ScopedArguments first({"/usr/bin/x", "-StressSubtype", "Bluetooth"});
  const std::string path = sandbox.home() + "/Library/Preferences/vorlund-defaults.plist";
  EXPECT_EQ(UserDefaults::defaultsPath(), path);
  ASSERT_TRUE(paths::createDirectories(paths::deletingLastComponent(path)));
  ASSERT_TRUE(plist::writeFile(
      Value(Dictionary{{"StressType", "FromFile"}, {"Count", int64_t{3}}, {"Level", int64_t{1}}}),
      path));
  process::ScopedArguments arguments({"/usr/bin/vorlund-defaults", "stray", "-StressType", "WiFi",
                                      "-Level",
                                      "<plist version=\"1.0\"><integer>7</integer></plist>",
                                      "-Offset", "-5", "-Broken", "<plist><oops", "-Dangling"});
  EXPECT_TRUE(defaults.object("Dangling").isNone());
  Dictionary all = defaults.dictionaryRepresentation();
  EXPECT_EQ(all.keys(),
            (std::vector<std::string>{"StressType", "Count", "Level", "Offset", "Broken"}));
  EXPECT_EQ(all, (Dictionary{{"StressType", "WiFi"},
                             {"Count", int64_t{3}},
                             {"Level", 7},
                             {"Offset", "-5"},
                             {"Broken", "<plist><oops"}}));
}

TEST(NotificationCenterTest, DeliversInOrderOnThePostingThreadWhileObserversComeAndGo) {
  NotificationCenter center;
  std::vector<std::string> seen;
  std::thread::id deliveredOn;
  NotificationCenter::ObserverToken self = 0;
  NotificationCenter::ObserverToken victim = 0;
  self = center.addObserver("n", [&](const Notification& n) {
    seen.push_back("self " + n.userInfo.get("result").stringOr(""));
    deliveredOn = std::this_thread::get_id();
    center.removeObserver(self);
  });
  center.addObserver("other", [&](const Notification&) { seen.push_back("other"); });
  center.addObserver("", [&](const Notification& n) { seen.push_back("all " + n.name); });
  center.addObserver("n", [&](const Notification&) {
    seen.push_back("remover");
    center.removeObserver(victim);
    center.addObserver("n", [&](const Notification&) { seen.push_back("late"); });
  });
  victim = center.addObserver("n", [&](const Notification&) { seen.push_back("victim"); });

  std::thread poster([&] { center.post("n", Dictionary{{"result", Value("r1")}}); });
  const std::thread::id posterId = poster.get_id();
  poster.join();
  EXPECT_EQ(deliveredOn, posterId);
  // The victim was removed before its turn; the observer added during the post waits for the next.
  EXPECT_EQ(seen, (std::vector<std::string>{"self r1", "all n", "remover"}));
  seen.clear();
  center.post("n");
  EXPECT_EQ(seen, (std::vector<std::string>{"all n", "remover", "late"}));
  center.removeObserver(12345);  // unknown tokens are ignored
  EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
}

}  // namespace
}  // namespace vl
