// Test support of the logging tests, and the environment that keeps the tests' log files out of the
// real home folder: the shared toolkit logger takes its folder once, so HOME is pointed into a
// sandbox before any test logs.
#include "logging/logging_test_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "support/test_support.h"
#include "vorlund/logging/log.h"
#include "vorlund/logging/toolkit_logger.h"

namespace vl::test {

bool isLogChild() { return std::getenv(kLogChildVariable) != nullptr; }

namespace {

int statusCode(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

class LogSandboxEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    if (isLogChild()) return;
    sandbox_ = std::make_unique<Sandbox>();
    VLGetSharedZEPLogger();
  }
  void TearDown() override {
    if (!sandbox_) return;
    VLGetSharedZEPLogger().drain();
    sandbox_.reset();
  }

 private:
  std::unique_ptr<Sandbox> sandbox_;
};

[[maybe_unused]] ::testing::Environment* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new LogSandboxEnvironment);

}  // namespace

ChildRun runChildTest(const std::string& testName, const std::string& parentName) {
  TempDir dir;
  std::string outputPath = dir.file("output");
  std::string filter = "--gtest_filter=" + testName;
  // Everything the children need is prepared before fork: they only call async-signal-safe
  // functions until exec.
  int out = ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out < 0) return {};
  ScopedEnv child(kLogChildVariable, "1");
  std::fflush(nullptr);
  pid_t middle = ::fork();
  if (middle == 0) {
    ::prctl(PR_SET_NAME, parentName.c_str());
    pid_t grandchild = ::fork();
    if (grandchild == 0) {
      ::dup2(out, STDOUT_FILENO);
      ::dup2(out, STDERR_FILENO);
      ::execl("/proc/self/exe", "vorlund_logging_tests", filter.c_str(), "--gtest_color=no",
              static_cast<char*>(nullptr));
      ::_exit(127);
    }
    int status = 0;
    if (grandchild < 0 || ::waitpid(grandchild, &status, 0) < 0) ::_exit(126);
    ::_exit(statusCode(status));
  }
  ::close(out);
  ChildRun run;
  int status = 0;
  if (middle > 0 && ::waitpid(middle, &status, 0) == middle) run.exitCode = statusCode(status);
  run.output = readFile(outputPath);
  return run;
}

}  // namespace vl::test
