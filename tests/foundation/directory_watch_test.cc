// vl::DirectoryWatch on real folders: which changes call the handler, a folder that cannot be
// watched, and cancelling from the handler itself (which must not wait for its own thread).
#include "vorlund/foundation/directory_watch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "support/test_support.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Long enough for a handler that an event would call to have run.
constexpr auto kQuiet = 200ms;

bool waitUntil(const std::function<bool()>& done) {
  for (auto end = std::chrono::steady_clock::now() + 20s; std::chrono::steady_clock::now() < end;
       std::this_thread::sleep_for(2ms)) {
    if (done()) return true;
  }
  return false;
}

TEST(DirectoryWatchTest, CallsTheHandlerForCompletedFilesOnly) {
  vl::test::TempDir dir;
  std::atomic<int> calls{0};
  auto watch = vl::DirectoryWatch::start(dir.path(), vl::DirectoryWatch::kCompletedFileEvents,
                                         [&] { ++calls; });
  ASSERT_NE(watch, nullptr);

  std::ofstream file(dir.file("a.plist"));
  file << "half" << std::flush;
  fs::create_directory(dir.file("sub"));
  std::this_thread::sleep_for(kQuiet);
  EXPECT_EQ(calls.load(), 0) << "a file still open, or a new folder, is no completed file";
  file.close();
  ASSERT_TRUE(waitUntil([&] { return calls.load() == 1; }));

  struct Change {
    const char* what;
    std::function<void()> make;
  };
  const Change changes[] = {
      {"moved in",
       [&] {
         vl::test::writeFile(dir.file("../moved"), "x");
         fs::rename(dir.file("../moved"), dir.file("b.plist"));
       }},
      {"moved out",
       [&] {
         fs::rename(dir.file("b.plist"), dir.file("../moved"));
         fs::remove(dir.file("../moved"));
       }},
      {"deleted", [&] { fs::remove(dir.file("a.plist")); }},
  };
  for (const Change& change : changes) {
    const int before = calls.load();
    change.make();
    EXPECT_TRUE(waitUntil([&] { return calls.load() > before; })) << change.what;
  }

  watch->cancel();
  EXPECT_TRUE(watch->isCancelled());
  const int before = calls.load();
  vl::test::writeFile(dir.file("late.plist"), "x");
  std::this_thread::sleep_for(kQuiet);
  EXPECT_EQ(calls.load(), before);
  EXPECT_EQ(watch->cancel(), 0);
}

TEST(DirectoryWatchTest, RefusesAFolderItCannotWatch) {
  vl::test::TempDir dir;
  vl::test::writeFile(dir.file("file"), "x");
  for (const std::string& path : {dir.file("missing"), dir.file("file")}) {
    vl::Error error;
    EXPECT_EQ(vl::DirectoryWatch::start(
                  path, IN_CLOSE_WRITE, [] {}, &error),
              nullptr)
        << path;
    EXPECT_FALSE(error.localizedDescription().empty()) << path;
  }
}

TEST(DirectoryWatchTest, AHandlerCancelsItsOwnWatchWithoutWaitingForItself) {
  vl::test::TempDir dir;
  std::promise<int> cancelled;
  std::unique_ptr<vl::DirectoryWatch> watch;
  std::atomic<int> calls{0};
  watch = vl::DirectoryWatch::start(dir.path(), IN_CLOSE_WRITE, [&] {
    if (++calls == 1) cancelled.set_value(watch->cancel());
  });
  ASSERT_NE(watch, nullptr);
  vl::test::writeFile(dir.file("a"), "x");
  auto result = cancelled.get_future();
  ASSERT_EQ(result.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(result.get(), 0);
  EXPECT_TRUE(watch->isCancelled());
  vl::test::writeFile(dir.file("b"), "x");
  std::this_thread::sleep_for(kQuiet);
  EXPECT_EQ(calls.load(), 1);
  watch.reset();
}

}  // namespace
