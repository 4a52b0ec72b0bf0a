// The shell runner with real child processes: output capture, standard input, kill timers, the
// output rules, descriptors and children left behind, and the process queries beside it.
#include "vorlund/devicetools/shell.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <future>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "devicetools/fake_tools.h"
#include "devicetools/processes.h"
#include "support/test_support.h"
#include "vorlund/devicetools/process_table.h"
#include "vorlund/devicetools/timer_manager.h"
#include "vorlund/devicetools/wait.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

using Clock = std::chrono::steady_clock;
using test::FakeTools;

size_t openDescriptorCount() {
  size_t count = 0;
  for ([[maybe_unused]] auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

std::string argumentsText(const std::string& command) { return Array{"-c", command}.description(); }

// Every test of the runner sees what it logs.
class ShellCommand : public testing::Test {
 protected:
  bool logged(VLLogLevel level, const std::string& message) const {
    return capture_.contains(level, "Framework", message);
  }
  // Lines whose message begins with prefix.
  size_t linesStartingWith(const std::string& prefix) const {
    size_t count = 0;
    for (const CapturedLine& line : capture_.lines()) count += line.message.starts_with(prefix);
    return count;
  }
  LogCapture capture_;
};

TEST_F(ShellCommand, BuildsRunsAndLogsABashTask) {
  test::ScopedEnv path("PATH", "/usr/bin:/bin");
  auto task = VLCreateBashCommand("echo 'a b' | wc -c");
  EXPECT_EQ(task->environment()->at("PATH"), "/usr/bin:/bin:/usr/local/bin");
  EXPECT_TRUE(logged(0, "Creating bash command : echo 'a b' | wc -c"));

  task = VLExecuteTask("echo hello; exit 3", {}, true, 5);
  EXPECT_EQ(task->terminationStatus(), 3);
  EXPECT_EQ(VLConvertPipeToString(task->standardOutput()), "hello\n");
  EXPECT_TRUE(logged(0, "Launching shell command echo hello; exit 3"));
  EXPECT_EQ(VLExecuteShellCommand("printf 'x\\ny'", {}, true, 5), "x\ny");
  EXPECT_TRUE(logged(0, "Exit status of printf 'x\\ny' was 0"));

  // Standard input from a pipe or a file.
  auto pipe = Pipe::make();
  ASSERT_TRUE(pipe->write("from a pipe"));
  pipe->closeWriting();
  EXPECT_EQ(VLExecuteShellCommand("tr a-z A-Z", pipe, true, 5), "FROM A PIPE");
  test::TempDir dir;
  test::writeFile(dir.file("input"), "from a file\n");
  auto handle = FileHandle::adopt(open(dir.file("input").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(VLExecuteShellCommand("wc -l", handle, true, 5), "1\n");
}

TEST_F(ShellCommand, OutputRules) {
  FakeTools tools;
  tools.add("curl", "echo body; echo '  % Total    % Received' >&2");
  test::TempDir dir;

  // Output and error text joined by one line feed; the non-zero status is logged, not a failure.
  std::string both = VLExecuteShellCommand("echo a; ls /vorlund-missing-file", {}, true, 5);
  std::string error = both.substr(both.find('\n') + 2);
  EXPECT_EQ(both.substr(0, 3), "a\n\n");
  EXPECT_NE(error.find("/vorlund-missing-file"), std::string::npos) << both;
  EXPECT_TRUE(logged(0, "output with non 0 termination status is a\n\n" + error));
  // Only the error stream: the error text alone.
  EXPECT_EQ(VLExecuteShellCommand("ls /vorlund-missing-file", {}, true, 5), error);
  // A download writes its progress on standard error: the output alone.
  EXPECT_EQ(VLExecuteShellCommand("curl http://localhost/x", {}, true, 5), "body\n");
  // Any ">" gives the empty string, whether it moves error text or writes a listing to a file.
  EXPECT_EQ(VLExecuteShellCommand("echo a; echo oops >&2", {}, true, 5), "");
  EXPECT_EQ(VLExecuteShellCommand("ls / > " + dir.file("listing"), {}, true, 5), "");
  // Bytes that are not UTF-8 do not decode; without wait nothing is read.
  EXPECT_EQ(VLExecuteShellCommand("printf 'ab\\377'", {}, true, 5), "");
  EXPECT_EQ(VLExecuteShellCommand("echo unread", {}, false, 5), "");
}

TEST_F(ShellCommand, ATimedOutCommandIsKilledUntilItEndsAndOnlySignal9CountsAsATimeOut) {
  time::ScopedScale fast(0.05);
  for (int signal : {9, 15}) {
    auto task = VLCreateBashCommand("sleep 100");
    ASSERT_TRUE(task->launch());
    const int pid = task->processIdentifier();
    // Tested against 9 whatever the signal: a task ended by 15 counts as completed.
    EXPECT_EQ(VLSetNSTaskToTimeoutWithKillSignal(task, signal, 2), signal != 9);
    EXPECT_EQ(task->terminationStatus(), signal);
    EXPECT_TRUE(logged(0, format("Killing pid %d with sig [%d]", pid, signal)));
    EXPECT_TRUE(
        logged(16, format(signal == 9 ? "Had to timeout task %d %@" : "Completed task %d %@", pid,
                          argumentsText("sleep 100"))));
  }
  // Survives the first SIGTERM (which only restores the default action), dies of the second.
  auto task = VLExecuteTaskWithKillSignal("trap 'trap - TERM' TERM; while :; do sleep 0.01; done",
                                          {}, true, 15, 2);
  EXPECT_TRUE(task->wasSignalled());
  EXPECT_GE(capture_.count(format("Killing pid %d with sig [15]", task->processIdentifier())), 2u);
}

TEST_F(ShellCommand, TimeoutsThatSetNoTimerWaitForTheCommand) {
  time::ScopedScale fast(0.001);
  for (double timeout : {0.0, -1.0, std::numeric_limits<double>::infinity(), 1e300, std::nan("")}) {
    EXPECT_EQ(VLExecuteShellCommand("sleep 0.2; echo done", {}, true, timeout), "done\n")
        << timeout;
  }
  EXPECT_EQ(linesStartingWith("Killing pid"), 0u);
  // A plain wait is scaled too, and a negative one is none.
  auto start = Clock::now();
  waitForSeconds(-5);
  waitForSeconds(200);
  EXPECT_GE(std::chrono::duration<double>(Clock::now() - start).count(), 0.2);
}

TEST_F(ShellCommand, BackgroundJobsEndAtTheCommandsDeadline) {
  time::ScopedScale fast(0.05);
  // Killed with the command; then left holding the output of a command that ended by itself.
  struct Case {
    const char* command;
    std::vector<std::string> job;
    const char* output;
  } cases[] = {{"sleep 32.3 & sleep 100", {"sleep", "32.3"}, ""},
               {"echo hi; sleep 31.7 &", {"sleep", "31.7"}, "hi\n"}};
  for (const Case& c : cases) {
    auto run = std::async(std::launch::async,
                          [&] { return VLExecuteShellCommand(c.command, {}, true, 2); });
    const bool returned = run.wait_for(std::chrono::seconds(15)) == std::future_status::ready;
    EXPECT_TRUE(returned) << c.command << ": the read waited for the background job";
    EXPECT_TRUE(test::endedWithin(c.job, returned ? 5 : 0)) << c.command;
    EXPECT_EQ(run.get(), c.output);
  }
  EXPECT_EQ(linesStartingWith("Completed task"), 1u);
}

TEST_F(ShellCommand, ATaskThatIsNotRunningCannotBeTimedOut) {
  auto task = Task::make();
  task->setLaunchPath("/vorlund-missing/tool");
  task->setArguments({"x"});
  EXPECT_FALSE(task->launch());
  EXPECT_FALSE(VLSetNSTaskToTimeout(task, 1));
  EXPECT_TRUE(logged(0, "Setting timeout of 1.0 seconds for 0"));
  EXPECT_TRUE(logged(16, "Task is not running, cannot timeout " + Array{"x"}.description()));

  auto ended = VLExecuteTask("true", {}, true, 1);
  EXPECT_FALSE(VLSetNSTaskToTimeout(ended, 1));
  EXPECT_FALSE(ended->launch());
}

TEST_F(ShellCommand, LeavesNoZombiesAndNoDescriptors) {
  time::ScopedScale fast(0.05);
  VLExecuteShellCommand("true", {}, true, 1);  // the logger's files are open from here on
  const size_t descriptors = openDescriptorCount();

  VLExecuteShellCommand("echo out; echo err 1>&2", {}, true, 5);
  VLExecuteShellCommand("sleep 100", {}, true, 1);
  {  // without waiting the task is still bounded, in the background
    auto background = VLExecuteTask("sleep 100", {}, false, 1);
    background->waitUntilExit();
    EXPECT_EQ(background->terminationStatus(), 9);
  }
  // A task dropped while its child runs kills and reaps it.
  int pid = 0;
  {
    auto task = VLCreateBashCommand("sleep 100");
    ASSERT_TRUE(task->launch());
    pid = task->processIdentifier();
  }
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_EQ(errno, ESRCH);
  { auto unlaunched = VLCreateBashCommand("true"); }  // its pipes close with it

  // No child left, neither running nor a zombie.
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  // The background waiter of the task started without waiting lets go of it (and its pipes) a
  // moment after the child exits; give it a bounded time to do so.
  EXPECT_TRUE(test::eventually([&] { return openDescriptorCount() == descriptors; }, 5));
}

TEST_F(ShellCommand, LargeOutputOnBothStreamsDoesNotStall) {
  FakeTools tools;
  tools.add("noisy",
            "head -c 600000 /dev/zero | tr '\\0' o; head -c 400000 /dev/zero | tr '\\0' e >&2");
  std::string text = VLExecuteShellCommand("noisy", {}, true, 60);
  ASSERT_EQ(text.size(), 1000001u);
  EXPECT_EQ(text.find_first_not_of('o'), 600000u);
  EXPECT_EQ(text.find_first_not_of('e', 600001), std::string::npos);
}

TEST(Pipe, ReadingAndWritingEndsFailCleanly) {
  LogCapture capture;
  EXPECT_EQ(VLConvertPipeToString(nullptr), "");
  auto pipe = Pipe::make();
  ASSERT_TRUE(pipe->write("once"));
  pipe->closeWriting();
  EXPECT_EQ(VLConvertPipeToString(pipe), "once");
  EXPECT_EQ(VLConvertPipeToString(pipe), "");
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0].message.rfind("Caught an exception, returning an empty string... "
                                             "Error Domain=com.brindle.Vorlund Code=1",
                                             0),
            0u);

  // A reader that has gone: an error, not the end of the process.
  auto orphan = Pipe::make();
  orphan->closeReading();
  Error error;
  EXPECT_FALSE(orphan->write("nobody reads", &error));
  EXPECT_NE(error.localizedDescription().find("Broken pipe"), std::string::npos);
}

TEST_F(ShellCommand, PipesThatCannotBeMadeAreLogged) {
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  int lowestFree = dup(0);
  ASSERT_GE(lowestFree, 0);
  close(lowestFree);
  rlimit tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(lowestFree);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  auto task = VLCreateBashCommand("true");
  setrlimit(RLIMIT_NOFILE, &saved);

  EXPECT_FALSE(task->standardError() || task->standardOutput());
  auto lines = capture_.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].message.rfind("Saw an exception trying to set up NSPipes... Error Domain="
                                   "com.brindle.Vorlund Code=1 \"Could not create a pipe: Too many "
                                   "open files\"",
                                   0),
            0u)
      << lines[1].message;
}

TEST(ProcessTable, FindsARealChildByItsShortNameAndCountsTheCores) {
  test::TempDir dir;
  // The kernel keeps 15 characters of the name: "vlpidprobe_long".
  const std::string program = dir.file("vlpidprobe_long_name");
  ASSERT_EQ(symlink("/bin/sleep", program.c_str()), 0);
  auto task = VLCreateBashCommand("exec " + program + " 30");
  ASSERT_TRUE(task->launch());
  int32_t found = -1;
  test::eventually([&] { return (found = VLGetPIDForProcess("vlpidprobe_long")) >= 0; });
  EXPECT_EQ(found, task->processIdentifier());
  for (const char* other : {"vlpidprobe_long_name", "vlpidprobe_lon", ""}) {
    EXPECT_EQ(VLGetPIDForProcess(other), -1) << other;
  }
  EXPECT_EQ(VLGetNumberOfCoresOnHost(), sysconf(_SC_NPROCESSORS_ONLN));
}

TEST(ProcessTable, MemoryFromTheMemoryTable) {
  FakeTools tools;
  tools.add("culler_rank", "tail -n +2 " + std::string(VORLUND_TESTDATA_DIR) +
                               "/memory-table/culler_rank_locationd.txt");
  LogCapture capture;
  EXPECT_DOUBLE_EQ(VLGetMemoryForProcess("locationd"), 125.5);
  EXPECT_DOUBLE_EQ(VLGetMemoryForProcess("bluetoothd"), 0.0);
  EXPECT_TRUE(capture.contains(
      1, "Framework", "Unable to find match for process bluetoothd. Match: (null), Error: (null)"));
  // The name is part of the pattern as it is.
  EXPECT_DOUBLE_EQ(VLGetMemoryForProcess("mobile.*"), 42);
  EXPECT_DOUBLE_EQ(VLGetMemoryForProcess("("), 0.0);
  auto bad = capture.lines().back();
  EXPECT_EQ(bad.message.rfind("Unable to find match for process (. Match: (null), Error: Error "
                              "Domain=VLRegexErrorDomain",
                              0),
            0u)
      << bad.message;
  // A name that backtracks without end (recorded by the fuzzer: nested empty alternatives) finds
  // nothing instead of holding the caller.
  std::string name = test::readFile(std::string(VORLUND_TESTDATA_DIR) +
                                    "/fuzz-findings/memory_table_name_backtracking.txt");
  std::string matched;
  EXPECT_FALSE(vl::memoryFromMemoryTable("", name, &matched, nullptr));
  EXPECT_FALSE(vl::memoryFromMemoryTable(
      test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/memory-table/culler_rank_locationd.txt"),
      name, &matched, nullptr));
}

// Runs body on a thread of its own and waits for it at most seconds. A body still running then is
// taken for a deadlock: the test fails and the process ends, since the threads stuck in it can
// never be joined.
void finishesWithin(double seconds, std::function<void()> body) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  std::thread([body = std::move(body), done] {
    body();
    done->set_value();
  }).detach();
  if (finished.wait_for(std::chrono::duration<double>(seconds)) == std::future_status::ready) {
    return;
  }
  ADD_FAILURE() << "deadlocked";
  std::_Exit(1);
}

TEST(FUTimerManager, TimersThatUseTheManagerWhileTheyAreReplacedOrCancelled) {
  auto& manager = FUTimerManager::sharedManager();
  auto queue = std::make_shared<SerialQueue>("vorlund.test.timers");

  // Replaced while its handler runs and calls the manager: the manager held the last reference.
  finishesWithin(10, [&] {
    std::promise<void> running;
    auto timer = std::make_shared<Timer>(queue, 0, 0, 0, [&] {
      running.set_value();
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      manager.addTimer(nullptr, "/logs/other");
    });
    manager.addTimer(std::move(timer), "/logs/replaced");
    running.get_future().wait();
    manager.addTimer(std::make_shared<Timer>(queue, 100, 100, 0, [] {}), "/logs/replaced");
    manager.cancelTimerForKey("/logs/replaced");
    LogCapture capture;
    manager.cancelTimerForKey("/logs/replaced");
    EXPECT_TRUE(capture.contains(16, "FileUtilities", "No timer exists for '/logs/replaced'!"));
  });

  // Handlers that cancel or replace their own key while other threads do the same.
  finishesWithin(30, [&] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 200; ++i) {
          const std::string key = format("/logs/%d", (t + i) % 3);
          auto timer = std::make_shared<Timer>(queue, 0, 0.001, 0, [&manager, key, i] {
            if (i % 2) {
              manager.cancelTimerForKey(key);
            } else {
              manager.addTimer(std::make_shared<Timer>(nullptr, 100, 0, 0, [] {}), key);
            }
          });
          manager.addTimer(std::move(timer), key);
          if (i % 3 == 0) manager.cancelTimerForKey(key);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (int k = 0; k < 3; ++k) manager.addTimer(nullptr, format("/logs/%d", k));
  });
}

}  // namespace
}  // namespace vl
