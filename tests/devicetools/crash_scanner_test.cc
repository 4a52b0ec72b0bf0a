// The crash-log scanner over the recorded reports of tests/testdata/faultbin, each copied into the
// Faultbin folder of a temporary device; the preferences that let simulated crashes count; the
// 60-second rest, with the time scale lowered; and the piece-wise line readers over text.
#include "vorlund/devicetools/crash_scanner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <mutex>

#include "support/test_support.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

namespace fs = std::filesystem;

const std::string kTestData = std::string(VORLUND_TESTDATA_DIR) + "/faultbin/";

// process, type, reason, and time as yyyy-MM-dd-HHmmss in local time.
using Expected = std::vector<std::string>;

std::vector<Expected> describe(const std::vector<FaultbinIssue>& issues) {
  std::vector<Expected> out;
  for (const FaultbinIssue& issue : issues) {
    out.push_back(
        {issue.process, issue.type, issue.reason, formatLocalTime(issue.time, "%Y-%m-%d-%H%M%S")});
  }
  return out;
}

// Collects what the installed recorder receives, for the lifetime of the object.
class RecordedIssues {
 public:
  RecordedIssues() {
    setFaultbinIssueRecorder([this](const FaultbinIssue& issue) {
      std::lock_guard lock(mutex_);
      issues_.push_back(issue);
    });
  }
  ~RecordedIssues() { setFaultbinIssueRecorder(nullptr); }
  std::vector<FaultbinIssue> issues() {
    std::lock_guard lock(mutex_);
    return issues_;
  }

 private:
  std::mutex mutex_;
  std::vector<FaultbinIssue> issues_;
};

// A temporary device whose mobile Faultbin folder holds the named recorded files.
class FaultbinDevice {
 public:
  explicit FaultbinDevice(const std::vector<std::string>& files = {}) {
    folder_ = faultbinFoldersForUser("mobile").front();
    fs::create_directories(folder_);
    fs::create_directories(fs::path(VLGetTestSettingsFilePath()).parent_path());
    for (const std::string& file : files) fs::copy_file(kTestData + file, folder_ + file);
  }
  const std::string& folder() const { return folder_; }

 private:
  test::Sandbox sandbox_;
  std::string folder_;
};

TEST(FaultbinScan, RecordedReportsBecomeTheirIssues) {
  struct Case {
    std::string file;
    std::vector<Expected> issues;
    std::vector<std::pair<VLLogLevel, std::string>> lines;  // each logged exactly once
  };
  const std::string mobile = "/var/mobile/Library/Logs/Faultbin/";
  const std::vector<Case> cases = {
      {"wpa_supplicant_2023-05-01-123456.ips",
       {{"wpa_supplicant", "Crash", "wpa_supplicant - Crash", "2023-05-01-123456"}},
       {{0, "~ Normal Plist (non culler) wpa_supplicant_2023-05-01-123456.ips"},
        {16, "~~~ Found Crash Line: Thread 3 Crashed:"}}},
      {"bluetoothd_2023-05-01-130000.ips",
       {{"bluetoothd", "Failure", "bluetoothd - Simulated Crash", "2023-05-01-130000"}},
       {{16, "Crash file is SIMULATED"}}},
      {"ModemManager_2023-05-01-140000.ExceededMemoryLimit.ips",
       {{"ModemManager", "Failure", "ModemManager - Memory Warning", "2023-05-01-140000"}},
       {}},
      {"CullerEvent_2023-05-01-150000.ips",
       {{"ModemManager", "Crash",
         "Culler killed ModemManager - oom-kill: constraint CONSTRAINT_MEMCG, rss 512 MB",
         "2023-05-01-150000"},
        {"geoclue", "Crash",
         "Culler killed geoclue - systemd-oomd: memory pressure 82.10% over 20s",
         "2023-05-01-150000"}},
       {{0, "~ Plist (culler) CullerEvent_2023-05-01-150000.ips"}}},
      {"CullerEvent_2023-05-01-151500.ips",
       {{"CullerEvent", "Failure", "CullerEvent - Non Crash", "2023-05-01-151500"}},
       {}},
      {"ExcResource_iwd_2023-05-01-160000.ips", {}, {}},
      {"stacks-2023-05-01-123456.ips", {}, {}},
      {"log-aggregated-2023-05-01-170000.ips", {}, {}},
      {"gpsd.ips", {}, {{2, "Could not find a time in file name????? Not adding gpsd.ips"}}},
      {"2023-05-01-180000.ips",
       {},
       {{2, "Could not find a process in file name????? Not adding 2023-05-01-180000.ips"}}},
      {"NetworkManager_2023-05-01-190000.memorydump",
       {{"NetworkManager", "Crash", "NetworkManager memory dump", "2023-05-01-190000"}},
       {{0, "~ Memory Dump NetworkManager_2023-05-01-190000.memorydump"}}},
      {"notes.txt", {}, {{2, "notes.txt is not a plist...Doing nothing"}}},
      {"iwd_2023-05-01-200000.ips",
       {{"iwd", "Failure", "iwd - Non Crash", "2023-05-01-200000"}},
       {}},
      {"hostapd_2023-05-01-210000.ips",
       {{"hostapd", "Crash", "hostapd - Crash", "2023-05-01-210000"}},
       {{16, "~~~ Found Crash Line: Thread 9 Crashed: while handling a beacon"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    FaultbinDevice device({c.file});
    RecordedIssues recorded;
    LogCapture log;
    std::vector<FaultbinIssue> returned = _VLProcessCrashesInFaultbinFolder("mobile");
    EXPECT_EQ(describe(returned), c.issues);
    EXPECT_EQ(recorded.issues(), returned);
    for (const auto& [level, message] : c.lines) {
      EXPECT_EQ(log.count(message), 1u) << message;
      EXPECT_TRUE(log.contains(level, "Framework", message)) << message;
    }
    EXPECT_EQ(log.count("File name is " + c.file + " and file parent path is " + device.folder() +
                        " and file fullpath is " + device.folder() + c.file),
              1u);
    // The second folder of the user does not exist here.
    EXPECT_EQ(log.find("Saw error trying to obtain subpaths at path \"" +
                       faultbinFoldersForUser("mobile")[1] + "\"...No such file or directory")
                  .size(),
              1u);
  }
}

TEST(FaultbinScan, EveryFolderOfTheUserIsWalkedWithItsSubfolders) {
  test::Sandbox sandbox;
  std::vector<std::string> folders = faultbinFoldersForUser("root");
  ASSERT_EQ(folders,
            (std::vector<std::string>{sandbox.root() + "/Library/Logs/Faultbin/",
                                      sandbox.root() + "/Library/Logs/Faultbin/Retired/"}));
  EXPECT_EQ(faultbinFoldersForUser("tmp"),
            std::vector<std::string>{sandbox.root() + "/tmp/Faultbin/"});
  EXPECT_EQ(faultbinFoldersForUser("wireless"),
            std::vector<std::string>{sandbox.root() + "/var/wireless/Library/Logs/Faultbin/"});
  fs::create_directories(folders[1]);
  fs::copy_file(kTestData + "wpa_supplicant_2023-05-01-123456.ips",
                folders[1] + "wpa_supplicant_2023-05-01-123456.ips");
  fs::copy_file(kTestData + "NetworkManager_2023-05-01-190000.memorydump",
                folders[0] + "NetworkManager_2023-05-01-190000.memorydump");
  RecordedIssues recorded;
  // The retired folder lies inside the first one: its report is found from both.
  std::vector<Expected> issues = describe(_VLProcessCrashesInFaultbinFolder("root"));
  const Expected crash{"wpa_supplicant", "Crash", "wpa_supplicant - Crash", "2023-05-01-123456"};
  const Expected dump{"NetworkManager", "Crash", "NetworkManager memory dump", "2023-05-01-190000"};
  EXPECT_EQ(issues, (std::vector<Expected>{dump, crash, crash}));
}

TEST(FaultbinScan, PreferencesLetSimulatedCrashesCount) {
  const std::string file = "bluetoothd_2023-05-01-130000.ips";
  struct Case {
    const char* key;
    Value value;
    const char* reason;
  };
  const Case cases[] = {
      {kVLIncludeAllSimulatedCrashesPreference, Value(true), "bluetoothd - Crash"},
      {kVLIncludeSimulatedCrashesForPreference, Value(Array{Value("wpa_supplicant")}),
       "bluetoothd - Simulated Crash"},
      {kVLIncludeSimulatedCrashesForPreference,
       Value(Array{Value("wpa_supplicant"), Value("bluetoothd")}), "bluetoothd - Crash"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.key) + " " + c.value.description());
    FaultbinDevice device({file});
    VLSavePreference(c.value, c.key);
    std::vector<FaultbinIssue> issues = _VLProcessCrashesInFaultbinFolder("mobile");
    ASSERT_EQ(issues.size(), 1u);
    EXPECT_EQ(issues[0].reason, c.reason);
    EXPECT_EQ(issues[0].type, std::string(c.reason).ends_with("- Crash") ? "Crash" : "Failure");
  }
}

TEST(FaultbinScan, EachUserRestsSixtySecondsBetweenScans) {
  // 60 nominal seconds are 1.2 s here, 10 are 0.2 s.
  time::ScopedScale scale(0.02);
  FaultbinDevice device({"wpa_supplicant_2023-05-01-123456.ips"});
  RecordedIssues recorded;
  LogCapture log;
  const std::string mobileScan = "---------------- >>>> Checking mobile's Faultbin folder";
  const std::string rootScan = "---------------- >>>> Checking root's Faultbin folder";

  VLProcessCrashesInFaultbinFolder("mobile");
  VLProcessCrashesInFaultbinFolder("root");
  time::sleepFor(10);
  VLProcessCrashesInFaultbinFolder("mobile");
  waitForFaultbinScans();
  EXPECT_EQ(log.count(mobileScan), 1u);
  EXPECT_EQ(log.count(rootScan), 1u);
  size_t rests = 0;
  for (const CapturedLine& line : log.lines()) {
    if (line.message.starts_with("We already processed this folder at '") &&
        line.message.ends_with("'; giving it a rest")) {
      EXPECT_EQ(line.level, VLLogLevelError);
      ++rests;
    }
  }
  EXPECT_EQ(rests, 1u);
  EXPECT_EQ(recorded.issues().size(), 1u);

  time::sleepFor(70);  // 80 s after the first request
  VLProcessCrashesInFaultbinFolder("mobile");
  waitForFaultbinScans();
  EXPECT_EQ(log.count(mobileScan), 2u);
  EXPECT_EQ(recorded.issues().size(), 2u);
}

TEST(FaultbinScan, PeriodicScansRequestEveryUserAtOnceAndThenEachInterval) {
  // Firings at 0, 100 and 200 nominal seconds; the timer is cancelled at 250.
  time::ScopedScale scale(0.004);
  FaultbinDevice device;
  LogCapture log;
  {
    std::unique_ptr<Timer> timer = startPeriodicFaultbinScans({"periodic-a", "periodic-b"}, 100);
    time::sleepFor(250);
  }
  waitForFaultbinScans();
  EXPECT_EQ(log.count("---------------- >>>> Checking periodic-a's Faultbin folder"), 3u);
  EXPECT_EQ(log.count("---------------- >>>> Checking periodic-b's Faultbin folder"), 3u);
}

TEST(FaultbinScan, TheScanIntervalComesFromThePreferences) {
  FaultbinDevice device;
  EXPECT_EQ(crashScanInterval(), kVLCrashScanIntervalDefault);
  VLSavePreference(Value(int64_t{42}), kVLCrashScanIntervalPreference);
  EXPECT_EQ(crashScanInterval(), 42);
  VLSavePreference(Value(int64_t{-5}), kVLCrashScanIntervalPreference);
  EXPECT_EQ(crashScanInterval(), kVLCrashScanIntervalDefault);
}

TEST(CrashReportReaders, LinesAreReadInPiecesOf1023Characters) {
  const std::string pad(1023, 'x');
  struct Case {
    std::string text;
    std::optional<std::string> crashLine;
  };
  const Case cases[] = {
      {"Thread 0:\nThread 3 Crashed:\n0 libc", "Thread 3 Crashed:"},
      {"Thread 3 Crashed:", "Thread 3 Crashed:"},          // no line feed at the end
      {"  Thread 3 Crashed:\nThread 1:\n", std::nullopt},  // must begin the line
      {"Thread 3 crashed:\n", std::nullopt},               // case matters
      {"Thread 2 " + std::string(1100, 'n') + " Crashed\n", std::nullopt},
      {"Thread 2 " + std::string(1000, 'n') + " Crashed\n",
       "Thread 2 " + std::string(1000, 'n') + " Crashed"},
      {pad + "Thread 9 Crashed: later piece\n", "Thread 9 Crashed: later piece"},
      {pad.substr(1) + "Thread 9 Crashed: later piece\n", std::nullopt},
      {pad + "\nThread 4 Crashed\n", "Thread 4 Crashed"},
      // Longer than the read buffer, the line deep in it.
      {std::string(40000, '.') + "\n" + std::string(30000, 'a') + "\nThread 7 Crashed:\n",
       "Thread 7 Crashed:"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    EXPECT_EQ(findCrashedThreadLine(c.text), c.crashLine);
  }
  EXPECT_TRUE(
      hasSimulatedCrashNote("Thread 0:\nException Note:  SIMULATED (this is NOT a crash)\n"));
  EXPECT_FALSE(hasSimulatedCrashNote("Exception Note: SIMULATED (this is NOT a crash)\n"));
  EXPECT_TRUE(hasSimulatedCrashNote(pad + std::string(kVLSimulatedCrashNote)));
}

TEST(CrashReportReaders, NamesAndKillReports) {
  std::pair<size_t, size_t> range;
  ASSERT_TRUE(getRangeForDateInString("Foo_2023-05-01-123456.ips", &range));
  EXPECT_EQ(range, (std::pair<size_t, size_t>{4, 17}));
  EXPECT_FALSE(getRangeForDateInString("Foo_2023-05-01-12345.ips", &range));

  FaultbinFileName name =
      parseFaultbinFileName("Foo.Bar_2023-05-01-123456.ExceededMemoryLimit.ips");
  EXPECT_EQ(name.process, "Foo.Bar");
  ASSERT_TRUE(name.time);
  EXPECT_EQ(formatLocalTime(*name.time, "%Y-%m-%d-%H%M%S"), "2023-05-01-123456");
  EXPECT_FALSE(parseFaultbinFileName("Foo_2023-13-01-123456.ips").time);  // no 13th month
  EXPECT_FALSE(parseFaultbinFileName("Foo_2023-02-30-123456.ips").time);  // no 30 February

  Error error;
  EXPECT_FALSE(parseKillReport("header without a body", &error));
  EXPECT_FALSE(error.localizedDescription().empty());
  EXPECT_EQ(parseKillReport("header\n\"a bare string\"")->size(), 0u);
  EXPECT_EQ(parseKillReport("header\n{\"processes\": 3}")->size(), 0u);
  std::optional<std::vector<CullerKill>> kills = parseKillReport(
      "header\n{\"processes\": [1, {\"reason\": \"no name\"}, {\"name\": \"a\", \"reason\": 7},"
      " {\"name\": \"b\"}, {\"name\": \"c\", \"reason\": \"oom\"}]}");
  ASSERT_TRUE(kills);
  ASSERT_EQ(kills->size(), 2u);
  EXPECT_EQ((*kills)[0].name, "a");
  EXPECT_EQ((*kills)[0].reason, "7");
  EXPECT_EQ((*kills)[1].name, "c");
  EXPECT_EQ((*kills)[1].reason, "oom");
}

}  // namespace
}  // namespace vl
