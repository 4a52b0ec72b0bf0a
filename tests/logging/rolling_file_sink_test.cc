#include "vorlund/logging/rolling_file_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <spdlog/logger.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <regex>
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

// A logger that flushes after every line, as the toolkit's synchronous one does. The error handler
// fails the test unless one is given.
std::shared_ptr<spdlog::logger> loggerOver(std::shared_ptr<RollingFileSink> sink,
                                           spdlog::err_handler onError = nullptr) {
  auto logger = std::make_shared<spdlog::logger>("test", std::move(sink));
  logger->flush_on(spdlog::level::trace);
  logger->set_error_handler(onError ? onError
                                    : [](const std::string& message) { FAIL() << message; });
  return logger;
}

TEST(RollingFileSink, NamesFilesAfterTheProcessAndSecondNeverReusesOneAndReportsAMissingFolder) {
  test::TempDir dir;
  auto first = std::make_shared<RollingFileSink>(
      RollingFileOptions{.directory = dir.file("logs/nested"), .baseName = "tools/stress"});
  auto second = std::make_shared<RollingFileSink>(
      RollingFileOptions{.directory = dir.file("logs/nested"), .baseName = "tools/stress"});
  loggerOver(first)->info("[Default] hello");
  loggerOver(second)->info("from the second");

  ASSERT_EQ(filesIn(dir.file("logs/nested")).size(), 2u);
  EXPECT_TRUE(std::regex_match(paths::lastComponent(first->currentFilePath()),
                               std::regex(R"(tools_stress-\d{4}-\d\d-\d\d-\d\d-\d\d-\d\d\.log)")));
  EXPECT_TRUE(std::regex_match(
      test::readFile(first->currentFilePath()),
      std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[\d+:\d+\] \[Default\] hello\n)")));

  // A folder it cannot make is reported and the line kept.
  test::writeFile(dir.file("plain"), "a file, not a folder");
  RollingFileSink sink(RollingFileOptions{.directory = dir.file("plain/logs"), .baseName = "x"});
  spdlog::details::log_msg msg("test", spdlog::level::info, "kept");
  EXPECT_THROW(sink.log(msg), spdlog::spdlog_ex);
  EXPECT_EQ(sink.pendingLineCount(), 1u);
}

// Makes a folder refuse new files while it lives: by its mode for a normal user, and by the
// immutable flag for root, whom modes do not stop.
class UnwritableFolder {
 public:
  explicit UnwritableFolder(const std::string& path) : path_(path) {
    std::filesystem::create_directories(path);
    active_ = set(true);
  }
  ~UnwritableFolder() { release(); }
  bool active() const { return active_; }
  void release() {
    if (active_) set(false);
    active_ = false;
  }

 private:
  bool set(bool unwritable) {
    if (geteuid() != 0) return chmod(path_.c_str(), unwritable ? 0555 : 0755) == 0;
    int fd = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int flags = 0;
    bool done = fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = unwritable ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    done = done && ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    if (fd >= 0) close(fd);
    return done;
  }

  std::string path_;
  bool active_ = false;
};

TEST(RollingFileSink, KeepsBoundedLinesWhileTheFolderRefusesThemWithoutHoldingUpTheCaller) {
  time::ScopedScale fast(0.001);
  test::TempDir dir;
  UnwritableFolder folder(dir.file("logs"));
  if (!folder.active()) GTEST_SKIP() << "no way to make a read-only folder here";
  auto sink = std::make_shared<RollingFileSink>(RollingFileOptions{
      .directory = dir.file("logs"), .baseName = "kept", .maximumPendingLines = 2});
  size_t errors = 0;
  auto logger = loggerOver(sink, [&](const std::string&) { ++errors; });
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 5000; ++i) logger->info("line {}", i);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_GE(errors, 1u);
  EXPECT_EQ(sink->pendingLineCount(), 2u);
  EXPECT_EQ(sink->droppedLineCount(), 4998u);

  // Written to one file once the folder takes them.
  folder.release();
  std::this_thread::sleep_for(time::scaled(kLogFileLongestRetryDelay));
  logger->info("after");
  auto files = filesIn(dir.file("logs"));
  ASSERT_EQ(files.size(), 1u);
  std::vector<std::string> lines;
  std::istringstream text(test::readFile(files[0]));
  for (std::string line; std::getline(text, line);)
    lines.push_back(line.substr(line.find("] ") + 2));
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "*** 4998 earlier lines were dropped while the log could not be written",
                       "line 4998", "line 4999", "after"}));
}

}  // namespace
}  // namespace vl
