// The stress service program, run for real on the test's private bus.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "support/test_support.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/client.h"
#include "vorlund/ipm/service.h"
#include "vorlund/ipm/service_client.h"
#include "vorlund/results/results.h"

extern char** environ;

namespace vl::ipm {
namespace {

#ifdef VORLUND_DAEMON_PATH

// The daemon as a child process; killed and reaped if the test ends before it does.
class Daemon {
 public:
  Daemon() {
    char* argv[] = {const_cast<char*>(VORLUND_DAEMON_PATH), nullptr};
    if (posix_spawn(&pid_, VORLUND_DAEMON_PATH, nullptr, nullptr, argv, environ) != 0) pid_ = -1;
  }
  ~Daemon() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  // Waits until the daemon answers on the bus; false after 20 seconds.
  bool waitUntilServing() {
    IpmDictionary ping;
    ping.set(kVLMessageKeyType, IpmValue::ofString("Ping"));
    for (int i = 0; i < 400; ++i) {
      Error error;
      sendMessage(IpmValue::ofDictionary(ping), std::chrono::seconds(5), &error);
      if (error.code != static_cast<int64_t>(IpmErrorCode::kNotRunning)) {
        return error.localizedDescription() == "Unsupported message type \"Ping\"";
      }
      vl::time::sleepFor(0.05);
    }
    return false;
  }

  // Sends signal and returns the exit status, or -1 when the daemon did not exit normally.
  int stop(int signal) {
    kill(pid_, signal);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
};

TEST(DaemonTest, ServesTestCasesAndSuspendsItsRunOnTermination) {
  test::Sandbox sandbox;
  {
    Daemon daemon;
    ASSERT_TRUE(daemon.started());
    ASSERT_TRUE(daemon.waitUntilServing());

    // The daemon runs test code itself: a test case that no bundle implements gives a no-op.
    auto object = VLTestCaseObject::make();
    object->setName("ImplementedNowhere");
    object->setSelector("runNowhere");
    Error error;
    auto result = executeTestCaseInService(object, &error);
    ASSERT_TRUE(result) << error.description();
    EXPECT_TRUE(result->isNoOp());

    EXPECT_FALSE(VLResults::hasResumeData());
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
  }
  ASSERT_TRUE(VLResults::hasResumeData());
  std::string resumeData = test::readFile(VLResults::resumeDataPath());
  EXPECT_NE(resumeData.find("ImplementedNowhere requested but not implemented in any bundles"),
            std::string::npos)
      << "the daemon records the missing implementation in its run";

  // The next start carries the suspended run on (and consumes its resume data); SIGINT suspends
  // it again.
  {
    Daemon daemon;
    ASSERT_TRUE(daemon.waitUntilServing());
    EXPECT_FALSE(VLResults::hasResumeData());
    EXPECT_EQ(daemon.stop(SIGINT), 0);
  }
  EXPECT_TRUE(VLResults::hasResumeData());

  Error error;
  IpmDictionary ping;
  ping.set(kVLMessageKeyType, IpmValue::ofString("Ping"));
  EXPECT_FALSE(sendMessage(IpmValue::ofDictionary(ping), kNoTimeout, &error));
  EXPECT_EQ(error.localizedDescription(), "the stress service is not running");
}

// Resident memory of a process in kB, from /proc; -1 when unknown.
long residentKilobytes(pid_t pid) {
  std::string status = test::readFile("/proc/" + std::to_string(pid) + "/status");
  size_t at = status.find("VmRSS:");
  return at == std::string::npos ? -1 : std::stol(status.substr(at + 6));
}

TEST(DaemonTest, AnswersAThousandBrokenRequestsWithoutGrowing) {
  test::Sandbox sandbox;
  Daemon daemon;
  ASSERT_TRUE(daemon.waitUntilServing());
  // Each of these goes the whole way: decoded, handed to a worker, refused by the handler.
  IpmDictionary broken;
  broken.set(kVLMessageKeyType, IpmValue::ofString(kVLMessageTypeTestCaseRequest));
  broken.set(kVLMessageKeyTestCase, IpmValue::ofData({'b', 'p', 'l', 'i', 's', 't'}));
  auto sendBroken = [&](int count) {
    for (int i = 0; i < count; ++i) {
      Error error;
      ASSERT_FALSE(sendMessage(IpmValue::ofDictionary(broken), std::chrono::seconds(20), &error));
      ASSERT_EQ(error.code, static_cast<int64_t>(IpmErrorCode::kRemote)) << error.description();
    }
  };
  sendBroken(200);
  long before = residentKilobytes(daemon.pid());
  sendBroken(1000);
  long after = residentKilobytes(daemon.pid());
  ASSERT_GT(before, 0);
  ASSERT_GT(after, 0);
#if !defined(__SANITIZE_ADDRESS__)
  // (AddressSanitizer holds freed memory back on purpose, so there the leak checker stands in.)
  EXPECT_LT(after - before, 2048) << "resident memory grew from " << before << " kB to " << after
                                  << " kB";
#endif
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

#endif

}  // namespace
}  // namespace vl::ipm
