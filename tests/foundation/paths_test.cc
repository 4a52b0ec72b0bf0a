#include "vorlund/foundation/paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/test_support.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/time_scale.h"

namespace vl {
namespace {

TEST(PathsTest, TildeUsesHomeAndDevicePathsResolveUnderRoot) {
  test::ScopedEnv home("HOME", "/home/tester");
  {
    test::ScopedEnv root("VORLUND_ROOT", std::nullopt);
    EXPECT_EQ(paths::expandTilde("~/Library/Logs/Vorlund"), "/home/tester/Library/Logs/Vorlund");
    EXPECT_EQ(paths::resolve("/tmp/Faultbin/"), "/tmp/Faultbin/");
  }
  test::ScopedEnv root("VORLUND_ROOT", "/sandbox/root/");
  EXPECT_EQ(paths::resolve("/tmp/Faultbin/"), "/sandbox/root/tmp/Faultbin/");
  EXPECT_EQ(paths::resolve("/var"), "/sandbox/root/var");
  EXPECT_EQ(paths::resolve("~/x"), "/home/tester/x");
  EXPECT_EQ(paths::resolve("relative/x"), "relative/x");
}

TEST(PathsTest, Components) {
  EXPECT_EQ(paths::lastComponent("/a/b.log"), "b.log");
  EXPECT_EQ(paths::lastComponent("/a/b/"), "b");
  EXPECT_EQ(paths::deletingLastComponent("/a/b.log"), "/a");
  EXPECT_EQ(paths::deletingLastComponent("/b"), "/");
  EXPECT_EQ(paths::deletingLastComponent("b"), "");
  EXPECT_EQ(paths::join("/a/", "/b"), "/a/b");
}

TEST(PathsTest, AtomicWriteReplacesWholeAndLeavesOldFileOnFailure) {
  test::TempDir dir;
  std::string file = dir.file("deep/er/results.plist");
  ASSERT_TRUE(paths::createDirectories(paths::deletingLastComponent(file)));
  ASSERT_TRUE(paths::writeFileAtomically(file, "first"));
  ASSERT_TRUE(paths::writeFileAtomically(file, "second"));
  EXPECT_EQ(paths::readFile(file), "second");
  if (geteuid() != 0) {  // root ignores folder permissions
    chmod(paths::deletingLastComponent(file).c_str(), 0555);
    EXPECT_FALSE(paths::writeFileAtomically(file, "third"));
    chmod(paths::deletingLastComponent(file).c_str(), 0755);
    EXPECT_EQ(paths::readFile(file), "second");
  }
  EXPECT_FALSE(paths::writeFileAtomically(dir.file("missing/folder/x"), "x"));
  EXPECT_FALSE(paths::readFile(dir.file("missing")).has_value());
}

TEST(ProcessTest, ScopedOverridesNestAndRestore) {
  const std::string real = process::name();
  {
    process::ScopedName name("vorlund_tether");
    {
      process::ScopedName inner("Vorlund");
      EXPECT_EQ(process::name(), "Vorlund");
    }
    EXPECT_EQ(process::name(), "vorlund_tether");
  }
  EXPECT_EQ(process::name(), real);
  process::ScopedArguments args({"/usr/bin/x", "a"});
  EXPECT_EQ(process::arguments(), (std::vector<std::string>{"/usr/bin/x", "a"}));
  EXPECT_EQ(process::parentId(), static_cast<int>(getppid()));
}

TEST(DateStringTest, RoundTripInLocalTime) {
  test::ScopedEnv tz("TZ", "Europe/Paris");
  tzset();
  Date date{1769843702.0};  // 2026-01-31 07:15:02 UTC
  EXPECT_EQ(dateString(date), "2026-01-31-08-15-02");
  EXPECT_EQ(dateFromString("2026-01-31-08-15-02"), date);
  EXPECT_EQ(formatLocalTime(Date{1769843702.123456}, "%Y-%m-%d %H:%M:%S.%f"),
            "2026-01-31 08:15:02.123456");
  EXPECT_FALSE(dateFromString("2026-01-31 08:15:02").has_value());
  EXPECT_FALSE(dateFromString("2026-13-31-08-15-02").has_value());
  EXPECT_FALSE(dateFromString("").has_value());
  // Years before 1000 keep four digits, so that they read back.
  Date early{-31039200000.0};  // in the year 986
  EXPECT_EQ(dateString(early).size(), 19u) << dateString(early);
  EXPECT_EQ(dateFromString(dateString(early)), early);
}

TEST(TimeScaleTest, ScalesDurationsAndRestores) {
  {
    time::ScopedScale fast(0.001);
    EXPECT_EQ(time::scaled(10), std::chrono::milliseconds(10));
  }
  EXPECT_EQ(time::scale(), 1.0);
  EXPECT_EQ(time::scaled(-1), std::chrono::nanoseconds(0));
}

}  // namespace
}  // namespace vl
