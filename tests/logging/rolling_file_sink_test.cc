#include "vorlund/logging/rolling_file_sink.h"

#include <gtest/gtest.h>
#include <spdlog/logger.h>

#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "support/test_support.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/time_scale.h"

namespace vl {
namespace {

std::vector<std::string> filesIn(const std::string& directory) {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::shared_ptr<spdlog::logger> loggerOver(std::shared_ptr<RollingFileSink> sink) {
  auto logger = std::make_shared<spdlog::logger>("test", std::move(sink));
  logger->set_error_handler([](const std::string& message) { FAIL() << message; });
  return logger;
}

TEST(RollingFileSink, NamesFilesAfterTheProcessAndSecondAndFormatsLines) {
  test::TempDir dir;
  auto sink = std::make_shared<RollingFileSink>(
      RollingFileOptions{.directory = dir.file("logs/nested"), .baseName = "tools/stress"});
  EXPECT_EQ(sink->currentFilePath(), "");
  loggerOver(sink)->info("[Default] hello");

  auto files = filesIn(dir.file("logs/nested"));
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0], sink->currentFilePath());
  EXPECT_TRUE(std::regex_match(paths::lastComponent(files[0]),
                               std::regex(R"(tools_stress-\d{4}-\d\d-\d\d-\d\d-\d\d-\d\d\.log)")))
      << files[0];
  EXPECT_TRUE(std::regex_match(
      test::readFile(files[0]),
      std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[\d+:\d+\] \[Default\] hello\n)")));
}

TEST(RollingFileSink, RollsBeforeALineWouldPassTheMaximumSize) {
  test::TempDir dir;
  auto sink = std::make_shared<RollingFileSink>(
      RollingFileOptions{.directory = dir.path(), .baseName = "big", .maximumFileSize = 200});
  auto logger = loggerOver(sink);
  for (int i = 0; i < 20; ++i) logger->info("line {:02d} of twenty", i);
  logger->info(std::string(300, 'x'));

  auto files = filesIn(dir.path());
  EXPECT_GE(files.size(), 7u);
  std::set<std::string> seen;
  for (const std::string& file : files) {
    std::string text = test::readFile(file);
    if (text.find(std::string(300, 'x')) == std::string::npos) {
      EXPECT_LE(text.size(), 200u) << file;
    } else {
      // A line longer than the limit gets a file of its own.
      EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << file;
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
      seen.insert(line.substr(line.find("] ") + 2));
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(seen.count(vl::format("line %02d of twenty", i))) << i;
  }
}

TEST(RollingFileSink, NeverReusesAFile) {
  test::TempDir dir;
  auto first = std::make_shared<RollingFileSink>(
      RollingFileOptions{.directory = dir.path(), .baseName = "twin"});
  auto second = std::make_shared<RollingFileSink>(
      RollingFileOptions{.directory = dir.path(), .baseName = "twin"});
  loggerOver(first)->info("from the first");
  loggerOver(second)->info("from the second");
  loggerOver(first)->info("first again");

  ASSERT_NE(first->currentFilePath(), second->currentFilePath());
  std::string a = test::readFile(first->currentFilePath());
  std::string b = test::readFile(second->currentFilePath());
  EXPECT_NE(a.find("from the first"), std::string::npos);
  EXPECT_NE(a.find("first again"), std::string::npos);
  EXPECT_EQ(a.find("from the second"), std::string::npos);
  EXPECT_NE(b.find("from the second"), std::string::npos);
  EXPECT_EQ(filesIn(dir.path()).size(), 2u);
}

TEST(RollingFileSink, RollsAFileOpenLongerThanTheRollingFrequency) {
  time::ScopedScale scale(0.01);
  test::TempDir dir;
  auto sink = std::make_shared<RollingFileSink>(
      RollingFileOptions{.directory = dir.path(), .baseName = "daily", .rollingFrequency = 20});
  auto logger = loggerOver(sink);
  logger->info("before");
  logger->info("still the same file");
  std::string firstFile = sink->currentFilePath();
  std::this_thread::sleep_for(time::scaled(30));
  logger->info("after");

  EXPECT_NE(sink->currentFilePath(), firstFile);
  EXPECT_EQ(filesIn(dir.path()).size(), 2u);
  EXPECT_NE(test::readFile(firstFile).find("still the same file"), std::string::npos);
  EXPECT_NE(test::readFile(sink->currentFilePath()).find("after"), std::string::npos);
}

TEST(RollingFileSink, ReportsAFolderItCannotMake) {
  test::TempDir dir;
  test::writeFile(dir.file("plain"), "a file, not a folder");
  RollingFileSink sink(RollingFileOptions{.directory = dir.file("plain/logs"), .baseName = "x"});
  spdlog::details::log_msg msg("test", spdlog::level::info, "lost");
  EXPECT_THROW(sink.log(msg), spdlog::spdlog_ex);
}

}  // namespace
}  // namespace vl
