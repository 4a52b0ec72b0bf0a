#include "vorlund/logging/log.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>

#include <filesystem>
#include <regex>

#include "logging/logging_test_support.h"
#include "support/test_support.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"
#include "vorlund/logging/toolkit_logger.h"

namespace vl {
namespace {

// Collects what reaches it: "<flag> <text>" per line.
class CollectingSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    lines_.push_back(std::to_string(flagForSpdlogLevel(msg.level)) + " " +
                     std::string(msg.payload.data(), msg.payload.size()));
  }
  void flush_() override {}

 private:
  std::vector<std::string> lines_;
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

// A failing sink neither throws nor starves the others.
TEST(ToolkitLogger, SinksReceiveTheFlagsOfTheirMaskAndSynchronousLinesAtOnce) {
  ToolkitLogger logger;
  auto all = std::make_shared<CollectingSink>();
  auto noDebug = std::make_shared<CollectingSink>();
  logger.addSink(std::make_shared<FailingSink>(), kToolkitMaskAll);
  logger.addSink(all, kToolkitMaskAll);
  logger.addSink(noDebug, kToolkitMaskNoDebug);
  logger.log(false, kToolkitFlagError, "error");
  EXPECT_EQ(all->lines(), std::vector<std::string>{"1 error"});
  logger.log(true, kToolkitFlagInfo, "info");
  logger.log(true, kToolkitFlagDebug, "debug");
  logger.log(true, kToolkitFlagVerbose, "verbose");
  logger.log(false, kToolkitFlagWarning, "warning");
  logger.drain();
  EXPECT_EQ(sorted(all->lines()),
            sorted({"4 info", "8 debug", "16 verbose", "1 error", "2 warning"}));
  EXPECT_EQ(sorted(noDebug->lines()), sorted({"4 info", "1 error", "2 warning"}));

  // After shutdown even asynchronous lines are written at once.
  logger.shutdown();
  logger.log(true, kToolkitFlagInfo, "late");
  EXPECT_EQ(all->lines().back(), "4 late");
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
