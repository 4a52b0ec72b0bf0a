// Collecting live runs into a fleet folder: rows still in the timeline's log come along, a watcher
// of "Plists" only ever sees a complete file moved in, runs of one device keep apart, and a device
// without a serial in its results file is named by its timeline.
#include "vorlund/reports/fleet_collect.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <filesystem>

#include "reports/sandbox_fleet.h"
#include "vorlund/reports/fleet.h"

namespace fs = std::filesystem;

namespace vl {
namespace {

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The inotify events of one folder, read without blocking.
class FolderWatch {
 public:
  explicit FolderWatch(const std::string& folder) : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    inotify_add_watch(fd_, folder.c_str(), IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MODIFY);
  }
  ~FolderWatch() { ::close(fd_); }
  // "create NAME", "write NAME", "close NAME", "moved NAME" in order.
  std::vector<std::string> events() {
    std::vector<std::string> out;
    alignas(inotify_event) char buffer[8192];
    ssize_t n;
    while ((n = ::read(fd_, buffer, sizeof buffer)) > 0) {
      for (char* p = buffer; p < buffer + n;) {
        auto* e = reinterpret_cast<inotify_event*>(p);
        std::string name = e->len ? e->name : "";
        if (e->mask & IN_CREATE) out.push_back("create " + name);
        if (e->mask & IN_MODIFY) out.push_back("write " + name);
        if (e->mask & IN_CLOSE_WRITE) out.push_back("close " + name);
        if (e->mask & IN_MOVED_TO) out.push_back("moved " + name);
        p += sizeof(inotify_event) + e->len;
      }
    }
    return out;
  }

 private:
  int fd_;
};

TEST(FleetCollectTest, ALiveRunArrivesWholeAndAWatcherSeesOnlyCompleteFiles) {
  test::TempDir fleetDir;
  test::ScopedEnv serialEnv("VORLUND_SERIAL_NUMBER", "LIVE0001");
  test::RunSandbox sandbox;
  VLResults& run = *sandbox.results();
  run.addTestCaseResult(test::timedResult(run, "Ping", 1, "No reply"), true);
  ASSERT_TRUE(run.saveToDisk());
  // Results after the save are in the log only; the collected copy must hold them.
  for (int i = 0; i < 5; ++i)
    run.addTestCaseResult(test::timedResult(run, "Ping", 2 + i, ""), true);
  ASSERT_TRUE(fs::exists(run.timelinePath() + "-wal"));

  fs::create_directories(fleetDir.file("Plists"));
  FolderWatch watch(fleetDir.file("Plists"));
  Error error;
  auto collected =
      collectRun(fleetDir.path(), run.getResultsFilePath(), run.timelinePath(), &error);
  ASSERT_TRUE(collected) << error.description();
  const std::string stem = "LIVE0001_" + dateString(run.startTime());
  EXPECT_EQ(collected->serialNumber, "LIVE0001");
  EXPECT_EQ(collected->resultsPath, fleetDir.file("Plists/VorlundResults_" + stem + ".plist"));
  EXPECT_EQ(collected->timelinePath, fleetDir.file("Databases/VorlundTimeline_" + stem + ".db"));
  EXPECT_EQ(watch.events(), (std::vector<std::string>{"moved VorlundResults_" + stem + ".plist"}));

  EXPECT_EQ(test::sqliteTool(collected->timelinePath, "SELECT count(*) FROM TestCases;"), "6\n");
  EXPECT_EQ(test::sqliteTool(collected->timelinePath, "PRAGMA journal_mode;"), "delete\n");
  EXPECT_EQ(namesIn(fleetDir.path()), (std::vector<std::string>{"Databases", "Plists"}));
  EXPECT_EQ(namesIn(fleetDir.file("Databases")),
            (std::vector<std::string>{"VorlundTimeline_" + stem + ".db"}));

  // The fleet reads back as that device with its own timeline.
  std::optional<Fleet> fleet = loadFleet(fleetDir.path());
  ASSERT_TRUE(fleet);
  ASSERT_EQ(fleet->devices.size(), 1u);
  EXPECT_EQ(fleet->devices[0].device, "LIVE0001");
  EXPECT_EQ(fleet->devices[0].timelinePath, collected->timelinePath);
}

TEST(FleetCollectTest, RecollectingReplacesAndASecondRunOfTheDeviceKeepsItsOwnFiles) {
  test::SandboxFleet source;
  test::TempDir fleetDir;
  auto first = source.addDevice("TWICE001", [](VLResults&) {});
  auto second = source.addDevice("TWICE001", [](VLResults& run) {
    run.setStartTime(Date{run.startTime().secondsSince1970 - 7200});
  });
  for (const auto* run : {&first, &first, &second}) {
    Error error;
    ASSERT_TRUE(collectRun(fleetDir.path(), run->results, run->timeline, &error))
        << error.description();
  }
  EXPECT_EQ(namesIn(fleetDir.file("Plists")), namesIn(source.file("Plists")));
  EXPECT_EQ(namesIn(fleetDir.file("Databases")),
            (std::vector<std::string>{fs::path(second.timeline).filename().string(),
                                      fs::path(first.timeline).filename().string()}));
  std::optional<Fleet> fleet = loadFleet(fleetDir.path());
  ASSERT_TRUE(fleet);
  ASSERT_EQ(fleet->devices.size(), 2u);
  EXPECT_EQ(fleet->devices[0].device, "TWICE001");
  EXPECT_EQ(fleet->devices[1].device, "TWICE001");
}

TEST(FleetCollectTest, TheTimelineNamesADeviceItsResultsFileDoesNotAndBadInputPlacesNothing) {
  test::SandboxFleet source;
  test::TempDir fleetDir;
  auto run = source.addDevice("FROMDB01", [](VLResults&) {});
  Dictionary results = *plist::readDictionary(run.results);
  Dictionary hardware = *results.get("Hardware Info").asDictionary();
  hardware.erase("SerialNumber");
  results.set("Hardware Info", hardware);
  const std::string anonymous = source.file("anonymous.plist");
  ASSERT_TRUE(plist::writeFile(Value(results), anonymous));

  Error error;
  auto collected = collectRun(fleetDir.path(), anonymous, run.timeline, &error);
  ASSERT_TRUE(collected) << error.description();
  EXPECT_EQ(collected->serialNumber, "FROMDB01");

  test::TempDir empty;
  const std::string garbage = source.file("garbage.plist");
  test::writeFile(garbage, "not a property list");
  const std::pair<std::pair<std::string, std::string>, std::string> refused[] = {
      {{anonymous, ""}, "no serial number in " + anonymous},
      {{garbage, run.timeline}, garbage + " is not a results file"},
      {{source.file("missing.plist"), run.timeline}, "cannot read the results file"},
      {{run.results, garbage}, "cannot copy the timeline " + garbage},
  };
  for (const auto& [files, message] : refused) {
    EXPECT_FALSE(collectRun(empty.path(), files.first, files.second, &error)) << message;
    EXPECT_NE(error.localizedDescription().find(message), std::string::npos)
        << error.localizedDescription();
  }
  // Nothing was placed, and no staged file was left behind.
  for (const auto& entry : fs::recursive_directory_iterator(empty.path())) {
    EXPECT_TRUE(entry.is_directory()) << entry.path();
  }
}

}  // namespace
}  // namespace vl
