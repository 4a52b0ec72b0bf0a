#include "vorlund/logging/log.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>

#include <filesystem>
#include <regex>
#include <thread>

#include "logging/logging_test_support.h"
#include "support/test_support.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"
#include "vorlund/logging/toolkit_logger.h"

namespace vl {
namespace {

// Collects what reaches it: "<flag> <text>" per line. A closed gate holds the writer inside the
// sink until it opens.
class CollectingSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  int flushes() {
    std::lock_guard lock(mutex_);
    return flushes_;
  }
  void closeGate() { gate_.lock(); }
  void openGate() { gate_.unlock(); }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    std::lock_guard gate(gate_);
    lines_.push_back(std::to_string(flagForSpdlogLevel(msg.level)) + " " +
                     std::string(msg.payload.data(), msg.payload.size()));
  }
  void flush_() override { ++flushes_; }

 private:
  std::mutex gate_;
  std::vector<std::string> lines_;
  int flushes_ = 0;
};

class FailingSink final : public spdlog::sinks::base_sink<std::mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg&) override {
    throw spdlog::spdlog_ex("disk on fire");
  }
  void flush_() override { throw std::runtime_error("cannot flush"); }
};

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// The files of the shared toolkit logger in a home folder.
std::vector<std::string> toolkitFiles(const std::string& home) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry :
       std::filesystem::directory_iterator(home + "/Library/Logs/Vorlund", error)) {
    files.push_back(entry.path().string());
  }
  return sorted(files);
}

// A failing sink neither throws nor starves the others. A synchronous line comes out after every
// line logged before it, queued or not, before the call returns.
TEST(ToolkitLogger, SinksReceiveTheFlagsOfTheirMaskInTheOrderLogged) {
  ToolkitLogger logger;
  auto all = std::make_shared<CollectingSink>();
  auto noDebug = std::make_shared<CollectingSink>();
  logger.addSink(std::make_shared<FailingSink>(), kToolkitMaskAll);
  logger.addSink(all, kToolkitMaskAll);
  logger.addSink(noDebug, kToolkitMaskNoDebug);
  logger.log(false, kToolkitFlagError, "error");
  EXPECT_EQ(all->lines(), std::vector<std::string>{"1 error"});
  std::vector<std::string> expected = {"1 error"};
  for (int i = 0; i < 500; ++i) {
    logger.log(true, kToolkitFlagInfo, "info " + std::to_string(i));
    expected.push_back("4 info " + std::to_string(i));
  }
  logger.log(true, kToolkitFlagDebug, "debug");
  logger.log(true, kToolkitFlagVerbose, "verbose");
  logger.log(false, kToolkitFlagWarning, "warning");
  expected.insert(expected.end(), {"8 debug", "16 verbose", "2 warning"});
  EXPECT_EQ(all->lines(), expected);
  std::erase_if(expected,
                [](const std::string& line) { return line == "8 debug" || line == "16 verbose"; });
  EXPECT_EQ(noDebug->lines(), expected);

  // After shutdown even asynchronous lines are written at once.
  logger.shutdown();
  logger.log(true, kToolkitFlagInfo, "late");
  EXPECT_EQ(all->lines().back(), "4 late");
}

// Lines queued while the writer is busy go out as one batch with one flush. A sink that holds the
// writer up fills the queue: callers then wait rather than drop lines.
TEST(ToolkitLogger, WritesWhatQueuedUpInOneBatchAndAFullQueueLosesNoLine) {
  ToolkitLogger logger;
  auto sink = std::make_shared<CollectingSink>();
  logger.addSink(sink, kToolkitMaskAll);
  sink->closeGate();
  for (int i = 0; i < 1000; ++i) logger.log(true, kToolkitFlagInfo, std::to_string(i));
  sink->openGate();
  logger.drain();
  EXPECT_EQ(sink->lines().size(), 1000u);
  EXPECT_EQ(sink->lines().back(), "4 999");
  // The batch the writer had begun when the gate closed, then everything else.
  EXPECT_LE(sink->flushes(), 2);

  constexpr int kPerThread = 10000;  // more than the queue holds
  sink->closeGate();
  std::vector<std::thread> threads;
  for (char name : {'a', 'b'}) {
    threads.emplace_back([&logger, name] {
      for (int i = 0; i < kPerThread; ++i) {
        logger.log(true, kToolkitFlagInfo, std::string(1, name) + std::to_string(i));
      }
    });
  }
  sink->openGate();
  for (std::thread& thread : threads) thread.join();
  logger.drain();
  std::vector<std::string> lines = sink->lines();
  ASSERT_EQ(lines.size(), 1000u + 2 * kPerThread);
  int next[2] = {0, 0};
  for (auto line = lines.begin() + 1000; line != lines.end(); ++line) {
    int& expected = next[(*line)[2] - 'a'];
    ASSERT_EQ(line->substr(3), std::to_string(expected)) << "a thread's lines keep their order";
    ++expected;
  }
}

// The shared toolkit logger is made once per process, so each case runs in a process of its own
// with a fresh home folder. The parent reads the files after the child has exited.
TEST(ChildProcess, LogsThroughTheSharedToolkit) {
  if (!test::isLogChild()) GTEST_SKIP() << "runs in a child process";
  VLLog(VLLogLevelInfo, "Results", "progress %d", 1);
  VLLog(VLLogLevelDebug, "Framework", "debug detail");
  VLLog(VLLogLevelError, nullptr, "failure");
  // The error line went out synchronously: it is in the file already.
  auto files = toolkitFiles(paths::home());
  ASSERT_EQ(files.size(), 1u);
  EXPECT_NE(test::readFile(files[0]).find("[Default] failure\n"), std::string::npos);

  // Too late: the file sink keeps the mask it was made with.
  VLEnableVerboseLogging();
  VLLog(VLLogLevelDebug, "Framework", "debug after verbose");
  VLLog(5, "Odd", "unknown level");
  VLLog(VLLogLevelFatal, "Framework", "last words %s", "here");
  // Still queued when the process exits.
  for (int i = 0; i < 300; ++i) VLLog(VLLogLevelNotice, "Results", "queued %d", i);
}

TEST(ChildProcess, LogsDebugLinesWhenVerboseFromTheStart) {
  if (!test::isLogChild()) GTEST_SKIP() << "runs in a child process";
  VLEnableVerboseLogging();
  VLLog(VLLogLevelDebug, "Framework", "debug detail");
}

TEST(SharedToolkitLogger, WritesLinesWithoutDebugIntoTheRollingFileUnlessVerboseWasSetFirst) {
  for (const char* name : {"LogChild", "VerboseChild"}) {
    test::Sandbox sandbox;
    process::ScopedName scoped(name);
    const bool verbose = std::string(name) == "VerboseChild";
    test::ChildRun run =
        test::runChildTest(verbose ? "ChildProcess.LogsDebugLinesWhenVerboseFromTheStart"
                                   : "ChildProcess.LogsThroughTheSharedToolkit",
                           "vl-shell");
    ASSERT_EQ(run.exitCode, 0) << run.output;
    auto files = toolkitFiles(sandbox.home());
    ASSERT_EQ(files.size(), 1u);
    std::string text = test::readFile(files[0]);
    if (verbose) {
      EXPECT_NE(text.find("[Framework] Verbose Logging Enabled\n"), std::string::npos) << text;
      continue;
    }
    EXPECT_TRUE(std::regex_search(
        text, std::regex(R"((^|\n)\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[\d+:\d+\] )"
                         R"(\[Results\] progress 1\n)")));
    EXPECT_NE(text.find("[Framework] last words here\n"), std::string::npos);
    EXPECT_NE(text.find("[Results] queued 299\n"), std::string::npos);
    EXPECT_EQ(text.find("debug"), std::string::npos);
    EXPECT_EQ(text.find("unknown level"), std::string::npos);
  }
}

}  // namespace
}  // namespace vl
