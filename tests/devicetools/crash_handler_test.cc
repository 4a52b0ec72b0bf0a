// The in-process crash reporter. Its reports are checked from a child that writes them and lives
// on (a process that dies of its signal keeps no coverage record); the real crash, where the
// process dies of the signal, is run end to end by the sample bundle's crashing helper.
#include "vorlund/devicetools/crash_handler.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <set>

#include "devicetools/crash_report_writer.h"
#include "support/test_support.h"
#include "vorlund/devicetools/crash_collector.h"
#include "vorlund/devicetools/crash_scanner.h"
#include "vorlund/foundation/paths.h"

namespace vl {
namespace {

namespace fs = std::filesystem;

// Runs body in a child process that then exits normally; returns its exit status.
int inChild(const std::function<int()>& body) {
  pid_t child = fork();
  if (child == 0) std::exit(body());
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(CrashReportHandler, ReportsAreNamedInLocalTimeNeverReplacedAndReadAsCrashes) {
  test::Sandbox sandbox;
  const double before = std::floor(Date::now().secondsSince1970);
  ASSERT_EQ(inChild([] {
              std::string why;
              if (!installCrashReportHandler({true, "radio_test/daemon"}, &why)) return 2;
              siginfo_t fault{};
              fault.si_code = SEGV_MAPERR;
              fault.si_addr = reinterpret_cast<void*>(0x10);
              writeCrashReport(SIGSEGV, &fault);
              writeCrashReport(SIGABRT, nullptr);
              return 0;
            }),
            0);
  const double after = std::ceil(Date::now().secondsSince1970);

  const std::string folder = paths::resolve(faultbinFolderForUid(getuid()));
  std::set<std::string> exceptions;
  for (const auto& entry : fs::directory_iterator(folder)) {
    // Two reports in one second keep both: the second gets "-2" after the date.
    const std::string name = entry.path().filename();
    ASSERT_TRUE(name.starts_with("radio_test_daemon_") && name.ends_with(".ips")) << name;
    const std::string report = test::readFile(entry.path());
    EXPECT_NE(report.find("Process:         radio_test_daemon ["), std::string::npos) << report;
    EXPECT_NE(report.find("\nThread 0 Crashed: tid "), std::string::npos) << report;
    const size_t line = report.find("Exception Type:  ");
    exceptions.insert(report.substr(line + 17, report.find('\n', line) - line - 17));
  }
  EXPECT_EQ(exceptions, (std::set<std::string>{"SIGSEGV at 0x0000000000000010", "SIGABRT"}));

  // The scanner reads the process and the local date back from the names.
  std::vector<FaultbinIssue> issues =
      _VLProcessCrashesInFaultbinFolder(getuid() == 0 ? "root" : "mobile");
  ASSERT_EQ(issues.size(), 2u);
  for (const FaultbinIssue& issue : issues) {
    EXPECT_EQ(issue.process, "radio_test_daemon");
    EXPECT_EQ(issue.reason, "radio_test_daemon - Crash");
    EXPECT_GE(issue.time.secondsSince1970, before);
    EXPECT_LE(issue.time.secondsSince1970, after);
  }
}

TEST(CrashReportHandler, StandsAsideForSystemdCoredumpAndWithoutAFolder) {
  test::Sandbox sandbox;
  std::string why;
  if (systemdCoredumpHandlesCrashes()) {
    EXPECT_FALSE(installCrashReportHandler({}, &why));
    EXPECT_EQ(why, "systemd-coredump reports this device's crashes");
  }
  // A file where the folder should be: nothing is installed, and the reason names the folder.
  const std::string folder = paths::resolve(faultbinFolderForUid(getuid()));
  fs::create_directories(fs::path(folder).parent_path().parent_path());
  test::writeFile(fs::path(folder).parent_path().string(), "not a folder");
  EXPECT_FALSE(installCrashReportHandler({true, "blocked"}, &why));
  EXPECT_TRUE(why.starts_with("cannot create " + folder)) << why;
  // Without an installation there is nowhere to write: nothing is written.
  EXPECT_EQ(inChild([] {
              writeCrashReport(SIGSEGV, nullptr);
              return 0;
            }),
            0);
}

}  // namespace
}  // namespace vl
