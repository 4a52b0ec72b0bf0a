// The sync folders on a sandboxed home: publishing directories (names, conflicts, missing and
// wrong paths), copying files in once, by pattern and periodically on the scaled clock, and
// collecting everything published with verification.
#include "vorlund/devicetools/sync_folders.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "devicetools/processes.h"
#include "support/test_support.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/devicetools/sync_folders_collect.h"
#include "vorlund/foundation/regex.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

Regex pattern(const char* text) { return *Regex::compile(text); }

std::string linkTarget(const std::string& path) {
  std::error_code failure;
  return fs::read_symlink(path, failure).string();
}

class SyncFoldersTest : public ::testing::Test {
 protected:
  void SetUp() override { VLSavePreference(Value("Soak"), "Config"); }
  // Periodic copies outlive their registration; none may run on into the next test's home.
  void TearDown() override { VLCancelAllPeriodicCopies(); }

  std::string keptRoot() const { return sandbox_.home() + "/Library/Logs/StressSync/Soak/SER-1"; }
  std::string deletingRoot() const {
    return sandbox_.home() + "/Library/Logs/StressSyncAndDelete/Soak/SER-1";
  }
  std::string makeDir(const std::string& relative) {
    std::string path = work_.file(relative);
    fs::create_directories(path);
    return path;
  }
  std::string makeFile(const std::string& relative, const std::string& contents) {
    std::string path = work_.file(relative);
    fs::create_directories(fs::path(path).parent_path());
    test::writeFile(path, contents);
    return path;
  }
  // Waits (at most ten real seconds) until the log holds count lines of message.
  bool waitForLines(const std::string& message, size_t count) {
    return test::eventually([&] { return log_.count(message) >= count; }, 10);
  }
  bool logged(VLLogLevel level, const std::string& message) const {
    return log_.contains(level, "FileUtilities", message);
  }

  static VLCollectionSummary collect(const std::string& destination,
                                     std::vector<VLCollectedFile>& files) {
    return VLCollectSyncedFiles(destination, [&](const VLCollectedFile& f) { files.push_back(f); });
  }

  test::Sandbox sandbox_;
  test::ScopedEnv serial_{"VORLUND_SERIAL_NUMBER", "SER-1"};
  // Declared after the sandbox so that it goes first, while HOME still points into the sandbox.
  test::TempDir work_;
  LogCapture log_;
};

TEST_F(SyncFoldersTest, PublishingDirectories) {
  std::string first = makeDir("a/logs");
  std::string second = makeDir("b/logs");
  Error error;
  EXPECT_FALSE(VLGetSyncedDirectories(&error));  // no root yet
  EXPECT_EQ(log_.count("Hit error when trying to load the contents of '" + keptRoot() +
                       "': " + error.localizedDescription()),
            1u);

  EXPECT_EQ(VLAddSyncedDirectory(first, &error), "logs");
  EXPECT_TRUE(error.domain.empty()) << error.description();
  EXPECT_TRUE(log_.contains(VLLogLevelInfo, "VLFileUtilities",
                            "Trying to symlink at " + keptRoot() + "/logs from " + first));

  // The same last component again: "_" and the date are appended and the first link stays.
  std::string renamed = VLAddSyncedDirectory(second, &error);
  EXPECT_TRUE(Regex::compile(R"(^logs_\d{4}-\d\d-\d\d-\d\d-\d\d-\d\d$)")->matches(renamed))
      << renamed;
  EXPECT_TRUE(logged(VLLogLevelError,
                     "Hit name conflict for 'logs', appending current date to try and resolve"));

  // A link of the name already there: no second link, and the system's error.
  EXPECT_FALSE(VLAddSyncedDirectoryWithName(second, "logs", &error));
  EXPECT_EQ(error.domain, "NSPOSIXErrorDomain");
  EXPECT_EQ(error.code, EEXIST);

  // Only links count as published directories.
  test::writeFile(keptRoot() + "/notes.txt", "x");
  std::optional<Dictionary> published = VLGetSyncedDirectories(&error);
  ASSERT_TRUE(published);
  EXPECT_EQ(*published, (Dictionary{{"logs", first}, {renamed, second}}));

  // Withdrawing takes the link only, never the directory's contents.
  test::writeFile(first + "/kept.log", "kept");
  VLRemoveSyncedDirectory("logs", &error);
  EXPECT_FALSE(fs::exists(fs::symlink_status(keptRoot() + "/logs")));
  EXPECT_EQ(test::readFile(first + "/kept.log"), "kept");
  error = {};
  VLRemoveSyncedDirectory("logs", &error);
  EXPECT_EQ(error.code, ENOENT);
}

TEST_F(SyncFoldersTest, MissingAndWrongDirectories) {
  for (bool create : {false, true}) {
    const std::string name = create ? "created" : "missing";
    const std::string path = work_.file(name + "/dir");
    Error error{"stale", 9, {}};
    EXPECT_TRUE(VLAddSyncedDirectoryWithNameAndCreateIfMissing(path, name, create, &error));
    EXPECT_TRUE(error.domain.empty()) << "a successful link clears the error";
    EXPECT_EQ(linkTarget(keptRoot() + "/" + name), path);
    EXPECT_EQ(fs::is_directory(path), create);
    EXPECT_TRUE(logged(VLLogLevelError, "Directory '" + path + "' does not exist!"));
    EXPECT_EQ(logged(VLLogLevelNotice, "Creating directory '" + path + "' since it doesn't exist"),
              create);
  }
  const std::string file = makeFile("plain/dir", "not a directory");
  Error error;
  EXPECT_FALSE(VLAddSyncedDirectoryWithNameAndCreateIfMissing(file, "plain", true, &error));
  EXPECT_FALSE(fs::exists(fs::symlink_status(keptRoot() + "/plain")));
  EXPECT_EQ(error.domain, kVLNotADirectoryErrorDomain);
  EXPECT_EQ(error.code, 1);
  EXPECT_TRUE(logged(VLLogLevelError, "'" + file + "' exists, but is not a directory!"));
}

TEST_F(SyncFoldersTest, CopyingFilesIn) {
  std::string file = makeFile("run.log", "first");
  Error error;
  VLAddSyncedFile(file, "Logs", false, false, &error);
  EXPECT_TRUE(logged(VLLogLevelNotice,
                     "Creating directory '" + keptRoot() + "/Logs' since it doesn't exist"));
  EXPECT_TRUE(logged(VLLogLevelNotice, "From: '" + file + "' To: '" + keptRoot() + "/Logs'"));
  // A second copy replaces the first.
  test::writeFile(file, "second, longer");
  VLAddSyncedFile(file, "Logs", false, false, &error);
  EXPECT_TRUE(error.domain.empty()) << error.description();
  EXPECT_EQ(test::readFile(keptRoot() + "/Logs/run.log"), "second, longer");

  // Moving into the deleting base takes the file away.
  VLAddSyncedFile(file, "Logs", true, true, &error);
  EXPECT_EQ(test::readFile(deletingRoot() + "/Logs/run.log"), "second, longer");
  EXPECT_FALSE(fs::exists(file));

  // A missing source fails with the system's error.
  VLAddSyncedFile(file, "Logs", false, false, &error);
  EXPECT_EQ(error.domain, "NSPOSIXErrorDomain");
  EXPECT_EQ(error.code, ENOENT);

  // A folder path taken by a file: the file's own path is logged.
  test::writeFile(keptRoot() + "/Taken", "x");
  std::string other = makeFile("other.log", "o");
  error = {};
  VLAddSyncedFile(other, "Taken", false, false, &error);
  EXPECT_EQ(error.domain, kVLNotADirectoryErrorDomain);
  EXPECT_EQ(error.code, 1);
  EXPECT_TRUE(logged(VLLogLevelError, "'" + other + "' exists, but is not a directory!"));
}

TEST_F(SyncFoldersTest, CopyingByPattern) {
  std::string dir = makeDir("source");
  for (const char* name : {"a.log", "b.txt", "c.log_.1", "catalog"})
    makeFile(std::string("source/") + name, name);
  // A pipe matches but cannot be copied: it is logged and the others still go.
  ASSERT_EQ(::mkfifo((dir + "/pipe.log").c_str(), 0600), 0);
  Error error;
  VLAddSyncedFilesFromRegularExpression(dir, pattern(R"(\.log)"), "Picked", false, false, &error);
  EXPECT_EQ(error.domain, "NSPOSIXErrorDomain");
  EXPECT_EQ(log_.count("Hit error when trying to copy '" + dir +
                       "/pipe.log' to 'Picked': " + error.localizedDescription()),
            1u);
  std::vector<std::string> copied;
  for (auto& entry : fs::directory_iterator(keptRoot() + "/Picked"))
    copied.push_back(entry.path().filename());
  std::sort(copied.begin(), copied.end());
  EXPECT_EQ(copied, (std::vector<std::string>{"a.log", "c.log_.1"}));

  VLAddSyncedFilesFromRegularExpression(work_.file("none"), pattern("x"), "Picked", false, false,
                                        &error);
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_EQ(log_.count("Hit error when trying to load the contents of '" + work_.file("none") +
                       "': " + error.localizedDescription()),
            1u);
  // Periodically, each firing logs its failure.
  VLPeriodicallyAddSyncedFilesFromRegularExpression(work_.file("none"), pattern("x"), "F", false,
                                                    false, 0);
  EXPECT_TRUE(waitForLines("Hit error when trying to copy the contents of '" + work_.file("none") +
                               "': Could not list " + work_.file("none") + ": " +
                               std::strerror(ENOENT),
                           1));
}

TEST_F(SyncFoldersTest, PeriodicCopiesFireAtOnceAndEveryIntervalAndAReplacedOneKeepsFiring) {
  // Half a minute becomes 0.6 s.
  time::ScopedScale scale(0.02);
  std::string dir = makeDir("twice");
  std::string file = makeFile("twice/t.log", "t");
  const std::string first = "From: '" + file + "' To: '" + keptRoot() + "/First'";
  const std::string second = "From: '" + file + "' To: '" + keptRoot() + "/Second'";
  auto start = Clock::now();
  auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  VLPeriodicallyAddSyncedFilesFromRegularExpression(dir, pattern("t"), "First", false, false, 0.5);
  ASSERT_TRUE(waitForLines(first, 1));
  EXPECT_LT(elapsed(), 0.6) << "the first copy comes at once";
  ASSERT_TRUE(waitForLines(first, 2));
  EXPECT_GE(elapsed(), 0.6 * 0.99);
  VLPeriodicallyAddSyncedFilesFromRegularExpression(dir, pattern("t"), "Second", false, false, 0.5);
  // Cancelling by the key stops the registry's timer, the second; the replaced one goes on.
  ASSERT_TRUE(waitForLines(second, 2));
  VLCancelCopyFromDirectoryForRegularExpression(dir, pattern("t"));
  VLCancelCopyFromDirectoryForRegularExpression(dir, pattern("t"));
  EXPECT_EQ(log_.count("No timer exists for '" + dir + "t'!"), 1u);
  size_t seconds = log_.count(second);
  size_t firsts = log_.count(first);
  EXPECT_TRUE(waitForLines(first, firsts + 2));
  EXPECT_EQ(log_.count(second), seconds);

  VLCancelAllPeriodicCopies();
  firsts = log_.count(first);
  std::this_thread::sleep_for(time::scaled(30) * 2);
  EXPECT_EQ(log_.count(first), firsts);
}

TEST_F(SyncFoldersTest, FileSortOrdersByCreationDate) {
  Dictionary early{{kVLFileCreationDate, Date{100}}}, late{{kVLFileCreationDate, Date{200}}}, none;
  EXPECT_EQ(FileSort(early, late), VLOrderedAscending);
  EXPECT_EQ(FileSort(late, early), VLOrderedDescending);
  EXPECT_EQ(FileSort(early, early), VLOrderedSame);
  EXPECT_EQ(FileSort(none, early), VLOrderedSame);

  std::string file = makeFile("attributes.log", "12345");
  std::optional<Dictionary> attributes = VLFileAttributes(file);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->get("NSFileSize").int64Or(-1), 5);
  EXPECT_NEAR(attributes->get(kVLFileCreationDate).asDate()->secondsSince1970,
              Date::now().secondsSince1970, 60);
  EXPECT_FALSE(VLFileAttributes(work_.file("missing")));
}

TEST_F(SyncFoldersTest, CollectingFollowsLinksOnceAndRemovesOnlyVerifiedOwnFiles) {
  std::string logs = makeDir("logs");
  makeFile("logs/a.txt", "abc");
  makeFile("logs/sub/b.txt", "bee");
  fs::create_directory_symlink(logs, logs + "/loop");
  ASSERT_EQ(VLAddSyncedDirectory(logs, nullptr), "logs");
  VLAddSyncedSymlinkedFile(makeFile("single.txt", "one"), "single.link", nullptr);
  VLAddSyncedFile(makeFile("g.txt", "gone after collection"), "Reports", false, true, nullptr);
  // Reached through a link in the deleting base: someone else's file, copied but never removed.
  std::string foreign = makeDir("foreign");
  makeFile("foreign/e.txt", "e");
  fs::create_directory_symlink(foreign, deletingRoot() + "/linked");

  // Collecting into a folder inside the sync root does not collect the copies again.
  const std::string destination = keptRoot() + "/out";
  std::vector<VLCollectedFile> files;
  VLCollectionSummary summary = collect(destination, files);
  EXPECT_EQ(summary.copied, 5u);
  EXPECT_EQ(summary.removed, 1u);
  ASSERT_EQ(files.size(), 5u);
  EXPECT_EQ(files[0].source, keptRoot() + "/logs/a.txt");
  EXPECT_EQ(files[0].destination, destination + "/StressSync/Soak/SER-1/logs/a.txt");
  EXPECT_EQ(files[0].sha256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(test::readFile(destination + "/StressSync/Soak/SER-1/logs/sub/b.txt"), "bee");
  EXPECT_EQ(test::readFile(destination + "/StressSync/Soak/SER-1/single.link"), "one");
  EXPECT_EQ(test::readFile(destination + "/StressSyncAndDelete/Soak/SER-1/Reports/g.txt"),
            "gone after collection");
  EXPECT_EQ(test::readFile(destination + "/StressSyncAndDelete/Soak/SER-1/linked/e.txt"), "e");
  EXPECT_FALSE(fs::exists(deletingRoot() + "/Reports/g.txt"));
  EXPECT_EQ(test::readFile(foreign + "/e.txt"), "e");

  summary = VLCollectSyncedFiles(destination, nullptr);
  EXPECT_EQ(summary.copied, 4u);
  EXPECT_EQ(summary.removed, 0u);
}

TEST_F(SyncFoldersTest, AFailedCopyKeepsItsSource) {
  std::string file = makeFile("r.txt", "report");
  VLAddSyncedFile(file, "Reports", false, true, nullptr);
  VLAddSyncedFile(makeFile("s.txt", "stays"), "Reports", false, false, nullptr);
  std::string destination = work_.file("dest");
  // The deleting base's place in the destination is taken by a file.
  makeFile("dest/StressSyncAndDelete", "blocked");
  std::vector<VLCollectedFile> files;
  VLCollectionSummary summary = collect(destination, files);
  EXPECT_EQ(summary.copied, 1u);
  EXPECT_EQ(summary.failed, 1u);
  EXPECT_EQ(summary.removed, 0u);
  ASSERT_EQ(files.size(), 2u);
  EXPECT_NE(files[1].failure.find("cannot create"), std::string::npos) << files[1].failure;
  EXPECT_FALSE(files[1].removed);
  EXPECT_EQ(test::readFile(deletingRoot() + "/Reports/r.txt"), "report");
}

}  // namespace
}  // namespace vl
