#include "vorlund/logging/logger.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <regex>
#include <thread>

#include "logging/logging_test_support.h"
#include "support/test_support.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_hooks.h"
#include "vorlund/logging/toolkit_logger.h"

namespace vl {
namespace {

const char* const kStamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6})";

bool hasLine(const std::string& text, const std::string& afterStamp) {
  return std::regex_search(text, std::regex(std::string("(^|\n)") + kStamp + afterStamp + "\n"));
}

// Installs a hook for the lifetime of the object.
struct ScopedDiagnosticArchiveRequest {
  explicit ScopedDiagnosticArchiveRequest(std::function<void()> f) {
    logging::setDiagnosticArchiveRequest(std::move(f));
  }
  ~ScopedDiagnosticArchiveRequest() { logging::setDiagnosticArchiveRequest(nullptr); }
};

// Logs where its parent sends it: under the service manager to a file of its own with a stream of
// the service's events, otherwise to standard output.
TEST(ChildProcess, LogsWhereItsParentSendsIt) {
  if (!test::isLogChild()) GTEST_SKIP() << "runs in a child process";
  test::FakeStreams streams;
  VLLogger logger;
  logger.setActivityStreamFactory(streams.factory());
  std::printf("warden=%d\n", logger.isWardenProcess() ? 1 : 0);
  EXPECT_EQ(logger.createLogStreamForCurrentProcess(), logger.isWardenProcess());
  if (logger.isWardenProcess()) {
    ASSERT_TRUE(logger.logFile().has_value());
    std::printf("logFile=%s\n", logger.logFile()->c_str());
    EXPECT_TRUE(test::fileExists(*logger.logFile()));  // from the start
    EXPECT_EQ(streams.made.at(0)->processes, std::vector<std::string>{"Vorlund"});
  }
  logger.logMessage("first line");
  VLLogOld(VLLogLevelDebug, std::nullopt, "above the level");
  logger.logMessage("second line");
}

TEST(VLLogger, LogsToAFileOfItsOwnUnderTheServiceManagerAndToStandardOutputOtherwise) {
  test::Sandbox sandbox;
  const std::string logs = sandbox.home() + "/Library/Logs/Vorlund/";
  const std::string twoLines =
      std::string(kStamp) + " > first line\n" + kStamp + " > second line\n";
  struct Case {
    const char* parent;
    const char* name;
    std::string file;  // a pattern; empty for standard output
  } cases[] = {
      {"warden", "StressTool", logs + R"(StressTool_\d{4}-\d\d-\d\d-\d\d-\d\d-\d\d\.log)"},
      {"systemd", "vorlund_tether",
       logs + "vorlund_tether_" + process::userName() + "_messaging.log"},
      {"wardens", "StressTool", ""},
      {"bash", "StressTool", ""},
  };
  for (const Case& c : cases) {
    process::ScopedName name(c.name);
    test::ChildRun run = test::runChildTest("ChildProcess.LogsWhereItsParentSendsIt", c.parent);
    ASSERT_EQ(run.exitCode, 0) << run.output;
    std::smatch match;
    if (c.file.empty()) {
      EXPECT_NE(run.output.find("warden=0\n"), std::string::npos) << c.parent;
      EXPECT_TRUE(std::regex_search(run.output, std::regex(twoLines))) << run.output;
      continue;
    }
    ASSERT_TRUE(std::regex_search(run.output, match, std::regex("logFile=(.*)\n"))) << run.output;
    EXPECT_TRUE(std::regex_match(std::string(match[1]), std::regex(c.file))) << match[1];
    EXPECT_TRUE(std::regex_match(test::readFile(match[1]), std::regex(twoLines)));
  }
  // A parent that is process 1 counts whatever its name.
  EXPECT_TRUE(VLLogger::isWardenParent("init", 1));
}

TEST(VLLogger, VLLogOldWritesByLevel) {
  test::TempDir dir;
  std::string file = dir.file("old.log");
  VLLogOld(VLLogLevelDebug, file, "dropped at level 1");
  EXPECT_FALSE(test::fileExists(file));

  VLLogOld(VLLogLevelNotice, file, "notice");
  VLLogOld(VLLogLevelError, file, "error");
  VLLogOld(-4, file, "negative");
  VLSetLogLevel(VLLogLevelDebug);
  VLLogOld(VLLogLevelDebug, file, "debug at level 2");
  VLSetLogLevel(0);
  VLLogOld(VLLogLevelNotice, file, "notice at level 0");
  VLLogOld(VLLogLevelError, file, "error at level 0");
  VLSetLogLevel(1);

  EXPECT_TRUE(std::regex_match(
      test::readFile(file), std::regex(std::string(kStamp) + " > notice\n" + kStamp + " > error\n" +
                                       kStamp + " > negative\n" + kStamp + " > debug at level 2\n" +
                                       kStamp + " > error at level 0\n")))
      << test::readFile(file);
}

TEST(VLLogger, FatalLinePausesBeforeReturning) {
  time::ScopedScale scale(0.05);
  test::TempDir dir;
  auto start = std::chrono::steady_clock::now();
  VLLogOld(VLLogLevelFatal, dir.file("fatal.log"), "last words");
  EXPECT_GE(std::chrono::steady_clock::now() - start, time::scaled(1));
  EXPECT_TRUE(hasLine(test::readFile(dir.file("fatal.log")), " > last words"));
}

TEST(VLLogger, FailedWriteIsRetriedWhileSpaceRemainsAndRaisesOnAFullFileSystem) {
  test::Sandbox sandbox;
  test::TempDir dir;
  std::string file = dir.file("retry.log");
  VLLogger logger;
  ASSERT_NE(VLLogger::createFile(file, logger), nullptr);
  VLGetSharedZEPLogger().drain();

  // A file size limit of zero makes the write fail; the archive request lifts it again.
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit none = saved;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
  int archives = 0;
  {
    ScopedDiagnosticArchiveRequest hook([&] {
      ++archives;
      setrlimit(RLIMIT_FSIZE, &saved);
    });
    EXPECT_NO_THROW(logger.logMessage("written on the second try", file));
  }
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previousHandler);

  EXPECT_EQ(archives, 1);
  EXPECT_TRUE(std::regex_match(test::readFile(file),
                               std::regex(std::string(kStamp) + " > written on the second try\n")));

  // /var of the sandboxed device lies on a file system without free space.
  std::filesystem::create_directory_symlink("/proc", sandbox.root() + "/var");
  ScopedDiagnosticArchiveRequest hook([&] { ++archives; });
  try {
    logger.logMessage("cannot be written", "/dev/full");
    ADD_FAILURE() << "no exception";
  } catch (const VLException& e) {
    EXPECT_EQ(e.name(), "File System free space too small");
    EXPECT_EQ(e.reason().rfind(process::name() + " is unable to proceed since the free space on "
                                                 "the file system is {\n",
                               0),
              0u)
        << e.reason();
  }
  EXPECT_EQ(archives, 2);
}

class Rollover : public testing::Test {
 protected:
  std::string logs() const { return sandbox_.home() + "/Library/Logs/Vorlund"; }
  void setTimeToLive(Value ttl) {
    std::filesystem::create_directories(sandbox_.home() + "/Library/Preferences");
    ASSERT_TRUE(plist::writeFile(
        Dictionary{{"Time-To-Live", std::move(ttl)}},
        sandbox_.home() + "/Library/Preferences/com.brindle.Vorlund.logger.plist"));
  }
  // Old files of this process and of another, then a wait longer than the short time-to-live.
  void makeAgedFiles() {
    test::writeFile(logs() + "/roller_2026.log", "old");
    test::writeFile(logs() + "/notes-roller-run", "old");
    test::writeFile(logs() + "/other_2026.log", "old");
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    test::writeFile(logs() + "/roller_fresh.log", "new");
  }
  bool exists(const std::string& name) const { return test::fileExists(logs() + "/" + name); }

  test::Sandbox sandbox_;
  process::ScopedName name_{"roller"};
};

TEST_F(Rollover, StartsANewFileNamedWithTheTimeFormat) {
  process::ScopedName name("Stress Runner");
  VLLogger logger;
  ASSERT_FALSE(test::fileExists(logs()));  // and it never fails without a folder
  logger.rollover();
  ASSERT_TRUE(logger.logFile().has_value());
  EXPECT_TRUE(std::regex_match(*logger.logFile(),
                               std::regex(logs() + "/Stress_Runner-" + kStamp + R"(\.log)")));
  // Created by the next write.
  EXPECT_FALSE(test::fileExists(*logger.logFile()));
  logger.logMessage("fresh start");
  EXPECT_TRUE(hasLine(test::readFile(*logger.logFile()), " > fresh start"));

  // The next rollover moves on; the old file is closed and later writes to it open it again.
  std::string previous = *logger.logFile();
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  logger.rollover();
  EXPECT_NE(*logger.logFile(), previous);
  EXPECT_FALSE(logger.openFiles().at(previous)->isOpen());
  logger.logMessage("late line", previous);
  EXPECT_TRUE(hasLine(test::readFile(previous), " > late line"));
}

TEST_F(Rollover, DeletesThisProcessesFilesOlderThanANumericTimeToLive) {
  // A time-to-live that is not a number keeps the fourteen days.
  setTimeToLive("0.5");
  makeAgedFiles();
  VLLogger().rollover();
  EXPECT_TRUE(exists("roller_2026.log"));
  EXPECT_TRUE(exists("notes-roller-run"));

  setTimeToLive(0.5);
  VLLogger().rollover();
  EXPECT_FALSE(exists("roller_2026.log"));
  EXPECT_FALSE(exists("notes-roller-run"));
  EXPECT_TRUE(exists("other_2026.log"));
  EXPECT_TRUE(exists("roller_fresh.log"));
}

}  // namespace
}  // namespace vl
