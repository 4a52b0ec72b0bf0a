// VLConfigResult over the recorded fleet of tests/testdata/fleet (three devices' real results files
// and timelines): sorting of dropped files, the merged aggregate's figures, device naming and the
// timeline questions, and the refresh machinery (the wait for a first results file, the inotify
// watch, teardown while a refresh is due), run on real folders with the time scale lowered.

#include "vorlund/results/config_result.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <regex>
#include <thread>

#include "results/run_sandbox.h"
#include "vorlund/foundation/notification_center.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/results/test_case_statistic.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vl::Dictionary;
using vl::Value;
using vl::test::sqliteTool;

const std::string kFleet = std::string(VORLUND_TESTDATA_DIR) + "/fleet";
const char* kSerials[] = {"FLEET0001", "FLEET0002", "FLEET0003"};
// Long enough for any refresh an event would start to have posted; no test waits this long unless
// it checks that nothing happens.
constexpr auto kQuiet = 300ms;
constexpr auto kDeadline = 20s;

std::vector<fs::path> recorded(const char* folder) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(kFleet + "/" + folder)) files.push_back(entry);
  std::sort(files.begin(), files.end());
  return files;
}

// Counts "ResultsRefreshCompleted" notifications and remembers the object of the last one.
class RefreshObserver {
 public:
  RefreshObserver() {
    token_ = vl::NotificationCenter::defaultCenter().addObserver(
        kVLResultsRefreshCompletedNotification, [this](const vl::Notification& n) {
          std::lock_guard lock(mutex_);
          ++count_;
          last_ = vl::refreshedConfigResult(n).get();
          changed_.notify_all();
        });
  }
  ~RefreshObserver() { vl::NotificationCenter::defaultCenter().removeObserver(token_); }

  int count() const {
    std::lock_guard lock(mutex_);
    return count_;
  }
  const VLConfigResult* last() const {
    std::lock_guard lock(mutex_);
    return last_;
  }
  // True once at least n notifications arrived.
  bool waitFor(int n, std::chrono::milliseconds limit = kDeadline) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return count_ >= n; });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
  const VLConfigResult* last_ = nullptr;
  vl::NotificationCenter::ObserverToken token_ = 0;
};

bool waitForLog(const vl::LogCapture& capture, const std::string& message, size_t count = 1) {
  for (auto end = std::chrono::steady_clock::now() + kDeadline;
       std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(2ms)) {
    if (capture.count(message) >= count) return true;
  }
  return false;
}

class ConfigResultTest : public ::testing::Test {
 protected:
  // Drops the recorded devices' files (the first `devices` of them) straight into the root.
  void dropDevices(size_t devices) {
    for (const char* folder : {"Plists", "Databases"}) {
      auto files = recorded(folder);
      for (size_t i = 0; i < devices && i < files.size(); ++i)
        fs::copy_file(files[i], root_ + "/" + files[i].filename().string());
    }
  }
  std::string plists() const { return root_ + "/Plists"; }

  vl::test::Sandbox device_;
  vl::time::ScopedScale scale_{0.01};
  std::string root_ = device_.path("fleet");
  vl::LogCapture log_;

  void SetUp() override { fs::create_directories(root_); }
};

TEST_F(ConfigResultTest, SortsDroppedFilesAndMergesEveryDeviceIntoRealFigures) {
  dropDevices(3);
  vl::test::writeFile(root_ + "/Aggregated.plist", "stale");
  vl::test::writeFile(root_ + "/notes.txt", "kept");
  // A device's file that is already sorted stays; the dropped one of the same name is left.
  fs::create_directories(plists());
  const fs::path first = recorded("Plists")[0];
  fs::copy_file(first, plists() + "/" + first.filename().string());
  RefreshObserver observer;

  auto config = VLConfigResult::withPath(root_);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(VLConfigResult::withPath(root_ + "/notes.txt"), nullptr);
  EXPECT_EQ(VLConfigResult::withPath(root_ + "/missing"), nullptr);

  EXPECT_EQ(config->getPlistPaths().size(), 3u);
  EXPECT_EQ(config->getDBPaths().size(), 3u);
  EXPECT_TRUE(fs::exists(root_ + "/notes.txt"));
  EXPECT_TRUE(fs::exists(root_ + "/" + first.filename().string()));
  EXPECT_EQ(log_.find("Something went wrong moving " + root_ + "/" + first.filename().string() +
                      " to " + plists() + "/" + first.filename().string() + "...File exists")
                .size(),
            1u);
  EXPECT_EQ(config->plistCount(), 3);
  EXPECT_EQ(config->dbCount(), 3);
  EXPECT_TRUE(config->isAutoUpdatingEnabled());
  EXPECT_EQ(observer.count(), 1);
  EXPECT_EQ(observer.last(), config.get());

  // The aggregate against the devices' own files, read with nothing but the property-list reader.
  auto merged = config->aggregated();
  ASSERT_NE(merged, nullptr);
  int64_t pingInstances = 0, pingFailures = 0, crashes = 0;
  double runtime = 0;
  for (const fs::path& file : recorded("Plists")) {
    Dictionary run = *vl::plist::readDictionary(file);
    runtime += run.get("RunTime").doubleOr(0);
    const Dictionary& ping =
        *run.get("TestCases").asDictionary()->get("WiFi Ping Gateway").asDictionary();
    pingInstances += ping.get("Instances").int64Or(0);
    pingFailures +=
        std::llround(ping.get("FailureRate").doubleOr(0) * ping.get("Instances").int64Or(0));
    for (const Value& issue : *run.get("Issues").asArray()) {
      if (issue.asDictionary()->get("Type") == Value("Crash"))
        crashes += issue.asDictionary()->get("Instances").int64Or(0);
    }
  }
  auto ping = merged->statisticForName("WiFi Ping Gateway");
  ASSERT_NE(ping, nullptr);
  EXPECT_EQ(static_cast<int64_t>(ping->instances()), pingInstances);
  EXPECT_DOUBLE_EQ(ping->failureRate(), double(pingFailures) / double(pingInstances));
  EXPECT_DOUBLE_EQ(merged->runtime(), runtime);
  EXPECT_EQ(merged->mergedResults(), 3);
  int64_t mergedCrashes = 0;
  for (const auto& issue : merged->issueList())
    if (issue->type() == "Crash") mergedCrashes += static_cast<int64_t>(issue->instances());
  EXPECT_EQ(mergedCrashes, crashes);
  EXPECT_EQ(merged->totalResets(), crashes);
  for (double figure : {merged->testcaseQI(), merged->QI(), merged->estimatedQI()})
    EXPECT_TRUE(std::isfinite(figure)) << figure;
  const Dictionary mtbf = *merged->resultsFileDictionary().get("MTBF").asDictionary();
  ASSERT_GT(mtbf.size(), 0u);
  for (size_t i = 0; i < mtbf.size(); ++i)
    EXPECT_TRUE(std::isfinite(mtbf.entry(i).second.doubleOr(NAN))) << mtbf.entry(i).first;
  auto throughput = merged->statisticForName("WiFi Throughput");
  ASSERT_NE(throughput, nullptr);
  EXPECT_TRUE(std::isfinite(
      throughput->metrics().get("Megabits").asDictionary()->get("StdDeviation").doubleOr(NAN)));

  // The aggregate is saved beside the folders, over the stale file.
  auto saved = VLResults::withFile(root_ + "/Aggregated.plist");
  ASSERT_NE(saved, nullptr);
  EXPECT_EQ(saved->mergedResults(), 3);
  EXPECT_EQ(saved->statisticForName("WiFi Ping Gateway")->instances(), ping->instances());

  EXPECT_TRUE(std::regex_match(
      config->description(),
      std::regex("<VLConfigResult: 0x[0-9a-f]+> Result object is <VLResults: 0x[0-9a-f]+> from 3 "
                 "plists and 3 dbs.  Rootpath is " +
                 root_)));
}

TEST_F(ConfigResultTest, AsksEveryTimelineByDeviceName) {
  dropDevices(3);
  // A timeline without a serial number, listed first, is named by its position.
  fs::create_directories(root_ + "/Databases");
  const std::string anonymous = root_ + "/Databases/A_anonymous.db";
  fs::copy_file(recorded("Databases")[0], anonymous);
  sqliteTool(anonymous, "DELETE FROM Config WHERE key='SerialNumber';");
  auto config = VLConfigResult::withPath(root_);
  ASSERT_NE(config, nullptr);

  auto crash = VLIssue::make();
  crash->setReason(std::string("wpa_supplicant - SIGSEGV"));
  Dictionary times = config->timestampsForIssue(*crash);
  ASSERT_EQ(times.size(), 4u);
  EXPECT_EQ(log_.count("No serial number in " + anonymous), 1u);
  std::vector<std::string> names{"Device 0", kSerials[0], kSerials[1], kSerials[2]};
  std::vector<std::string> paths = config->getDBPaths();
  for (size_t i = 0; i < names.size(); ++i) {
    const vl::Array* device = times.get(names[i]).asArray();
    ASSERT_NE(device, nullptr) << names[i];
    std::string expected = sqliteTool(
        paths[i], "SELECT time FROM Issues WHERE reason='wpa_supplicant - SIGSEGV' ORDER BY id;");
    std::string got;
    for (const Value& time : *device) got += *time.asString() + "\n";
    EXPECT_EQ(got, expected) << names[i];
    EXPECT_FALSE(device->empty()) << names[i];
  }

  auto ping = config->aggregated()->statisticForName("WiFi Ping Gateway");
  Dictionary failures = config->timestampsForTestCaseFailures(*ping);
  ASSERT_EQ(failures.size(), ping->failures().size());
  for (size_t b = 0; b < failures.size(); ++b) {
    auto [bucket, perDevice] = failures.entry(b);
    ASSERT_EQ(perDevice.asDictionary()->size(), 4u) << bucket;
    for (size_t i = 0; i < names.size(); ++i) {
      std::string count =
          sqliteTool(paths[i],
                     "SELECT count(DISTINCT uuid) FROM TestCases WHERE result=1 AND "
                     "test_case_name='WiFi Ping Gateway' AND bucket='" +
                         bucket + "';");
      const vl::Array* starts = perDevice.asDictionary()->get(names[i]).asArray();
      ASSERT_NE(starts, nullptr);
      // One row per tag of a result: each ping result carries one.
      EXPECT_EQ(std::to_string(starts->size()) + "\n", count) << bucket << " " << names[i];
    }
  }
}

TEST_F(ConfigResultTest, AQuoteInAQuestionFindsNothingAndChangesNoTimeline) {
  dropDevices(3);
  auto config = VLConfigResult::withPath(root_);
  ASSERT_NE(config, nullptr);
  std::vector<std::string> before;
  for (const std::string& path : config->getDBPaths()) before.push_back(vl::test::readFile(path));

  for (const char* reason : {"x'; DROP TABLE Issues; --", "x' OR '1'='1", "can't"}) {
    auto issue = VLIssue::make();
    issue->setReason(std::string(reason));
    Dictionary times = config->timestampsForIssue(*issue);
    ASSERT_EQ(times.size(), 3u) << reason;
    for (const char* serial : kSerials)
      EXPECT_TRUE(times.get(serial).asArray()->empty()) << reason << " " << serial;
  }
  auto statistic = VLTestCaseStatistic::make();
  statistic->setName("WiFi Ping Gateway' OR '1'='1");
  statistic->setFailures(Dictionary{{"Request timed out", Value(1.0)}});
  Dictionary failures = config->timestampsForTestCaseFailures(*statistic);
  for (const char* serial : kSerials) {
    EXPECT_TRUE(failures.get("Request timed out").asDictionary()->get(serial).asArray()->empty());
  }

  std::vector<std::string> paths = config->getDBPaths();
  for (size_t i = 0; i < paths.size(); ++i) {
    EXPECT_EQ(vl::test::readFile(paths[i]), before[i]) << paths[i];
    EXPECT_NE(sqliteTool(paths[i], "SELECT count(*) FROM Issues;"), "0\n");
  }
}

TEST_F(ConfigResultTest, RemovingPlistsWhileARefreshWaitsEndsItWithNoAggregate) {
  RefreshObserver observer;
  auto making = std::async(std::launch::async, [&] { return VLConfigResult::withPath(root_); });
  ASSERT_TRUE(waitForLog(
      log_, "Sleeping 1s while we wait for device plists to show up in " + plists() + "...", 2));
  fs::remove_all(plists());
  ASSERT_EQ(making.wait_for(kDeadline), std::future_status::ready);
  auto config = making.get();
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->aggregated(), nullptr);
  EXPECT_EQ(config->plistCount(), 0);
  EXPECT_EQ(log_.count("Folder no longer exists at " + plists()), 1u);
  std::this_thread::sleep_for(kQuiet);
  EXPECT_EQ(observer.count(), 1);
  EXPECT_FALSE(fs::exists(root_ + "/Aggregated.plist"));
}

TEST_F(ConfigResultTest, RefreshesOnceAFileIsCompleteNeverHalfWay) {
  dropDevices(2);
  auto config = VLConfigResult::withPath(root_);
  ASSERT_NE(config, nullptr);
  ASSERT_EQ(config->plistCount(), 2);
  RefreshObserver observer;

  // Written in pieces through one descriptor, as a slow copy does.
  const fs::path third = recorded("Plists")[2];
  const std::string contents = vl::test::readFile(third);
  {
    std::ofstream out(plists() + "/" + third.filename().string(), std::ios::binary);
    for (size_t at = 0; at < contents.size(); at += contents.size() / 4 + 1) {
      out << contents.substr(at, contents.size() / 4 + 1) << std::flush;
      std::this_thread::sleep_for(kQuiet / 3);
      EXPECT_EQ(observer.count(), 0) << "refreshed at byte " << at;
    }
  }
  ASSERT_TRUE(observer.waitFor(1));
  EXPECT_EQ(config->plistCount(), 3);
  EXPECT_EQ(config->aggregated()->mergedResults(), 3);
  for (const auto& line : log_.lines())
    EXPECT_FALSE(line.message.starts_with("Unable to restore results from")) << line.message;

  // Rewritten in place with other figures: the refresh reads the new version, not the one it knew.
  const uint64_t before = config->aggregated()->statisticForName("WiFi Ping Gateway")->instances();
  Dictionary rewritten = *vl::plist::readDictionary(third);
  Dictionary cases = *rewritten.get("TestCases").asDictionary();
  Dictionary ping = *cases.get("WiFi Ping Gateway").asDictionary();
  ping.set("Instances", Value(int64_t{ping.get("Instances").int64Or(0) + 100}));
  cases.set("WiFi Ping Gateway", Value(ping));
  rewritten.set("TestCases", Value(cases));
  vl::test::writeFile(plists() + "/" + third.filename().string(),
                      *vl::plist::serialize(Value(rewritten), vl::plist::Format::Xml));
  ASSERT_TRUE(observer.waitFor(2));
  EXPECT_EQ(config->aggregated()->statisticForName("WiFi Ping Gateway")->instances(), before + 100);

  // Moved in whole, then deleted: each is one more refresh.
  const std::string moved = device_.path("moved.plist");
  fs::copy_file(recorded("Plists")[0], moved);
  fs::rename(moved, plists() + "/extra.plist");
  ASSERT_TRUE(observer.waitFor(3));
  EXPECT_EQ(config->plistCount(), 4);
  fs::remove(plists() + "/extra.plist");
  ASSERT_TRUE(observer.waitFor(4));
  EXPECT_EQ(config->plistCount(), 3);
}

TEST_F(ConfigResultTest, DisablingOrDestroyingWhileARefreshIsDueNeverHangs) {
  dropDevices(1);
  auto config = VLConfigResult::withPath(root_);
  ASSERT_NE(config, nullptr);
  RefreshObserver observer;

  config->disableAutoUpdating();
  EXPECT_FALSE(config->isAutoUpdatingEnabled());
  fs::copy_file(recorded("Plists")[1], plists() + "/second.plist");
  std::this_thread::sleep_for(kQuiet);
  EXPECT_EQ(observer.count(), 0);
  config->enableAutoUpdating();
  config->enableAutoUpdating();
  EXPECT_TRUE(config->isAutoUpdatingEnabled());
  fs::remove(plists() + "/second.plist");
  ASSERT_TRUE(observer.waitFor(1));
  EXPECT_EQ(config->plistCount(), 1);

  // The folder emptied: the refresh that follows waits for a file, here for 100 s at a time.
  vl::time::ScopedScale slow(100);
  for (const std::string& path : config->getPlistPaths()) fs::remove(path);
  ASSERT_TRUE(waitForLog(
      log_, "Sleeping 1s while we wait for device plists to show up in " + plists() + "..."));
  auto destroying = std::async(std::launch::async, [&] { config.reset(); });
  ASSERT_EQ(destroying.wait_for(kDeadline), std::future_status::ready);
  fs::copy_file(recorded("Plists")[1], plists() + "/late.plist");
  std::this_thread::sleep_for(kQuiet);
  EXPECT_EQ(observer.count(), 1);
}

}  // namespace
