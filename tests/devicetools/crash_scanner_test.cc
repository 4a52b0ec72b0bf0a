// The crash-log scanner over the recorded reports of tests/testdata/faultbin, each copied into the
// Faultbin folder of a temporary device; the preferences that let simulated crashes count; the
// 60-second rest, with the time scale lowered; and the piece-wise line readers over text.
#include "vorlund/devicetools/crash_scanner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <ctime>
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
    const std::string folder = faultbinFoldersForUser("mobile").front();
    fs::create_directories(folder);
    fs::create_directories(fs::path(VLGetTestSettingsFilePath()).parent_path());
    for (const std::string& file : files) fs::copy_file(kTestData + file, folder + file);
  }
  const std::string& root() const { return sandbox_.root(); }

 private:
  test::Sandbox sandbox_;
};

// Each recorded file scanned alone: its issues, then every line the scanner logs, the sandbox's
// root written as $ROOT, against tests/testdata/faultbin-scan.txt. File names carry local time,
// here UTC.
TEST(FaultbinScan, RecordedReportsBecomeTheirIssuesAndLogLines) {
  std::vector<std::string> files;
  for (const auto& entry : fs::directory_iterator(kTestData))
    files.push_back(entry.path().filename());
  std::sort(files.begin(), files.end());
  std::string text;
  std::optional<test::ScopedEnv> tz(std::in_place, "TZ", "UTC");
  tzset();
  for (const std::string& file : files) {
    FaultbinDevice device({file});
    RecordedIssues recorded;
    LogCapture log;
    std::vector<FaultbinIssue> returned = _VLProcessCrashesInFaultbinFolder("mobile");
    EXPECT_EQ(recorded.issues(), returned) << file;
    text += "## " + file + "\n";
    for (const Expected& issue : describe(returned)) {
      text += "issue: " + issue[0] + " | " + issue[1] + " | " + issue[2] + " | " + issue[3] + "\n";
    }
    for (const CapturedLine& line : log.lines()) {
      if (line.category != "Framework") continue;
      std::string message = line.message;
      for (size_t at; (at = message.find(device.root())) != std::string::npos;) {
        message.replace(at, device.root().size(), "$ROOT");
      }
      text += std::to_string(line.level) + " [" + line.category + "] " + message + "\n";
    }
  }
  EXPECT_EQ(text, test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/faultbin-scan.txt"));
  tz.reset();
  tzset();
}

TEST(FaultbinScan, EveryFolderOfTheUserIsWalkedWithItsSubfolders) {
  test::Sandbox sandbox;
  std::vector<std::string> folders = faultbinFoldersForUser("root");
  ASSERT_EQ(folders,
            (std::vector<std::string>{sandbox.root() + "/Library/Logs/Faultbin/",
                                      sandbox.root() + "/Library/Logs/Faultbin/Retired/"}));
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
  const std::pair<const char*, Value> preferences[] = {
      {kVLIncludeAllSimulatedCrashesPreference, Value(true)},
      {kVLIncludeSimulatedCrashesForPreference,
       Value(Array{Value("wpa_supplicant"), Value("bluetoothd")})}};
  for (const auto& [key, value] : preferences) {
    SCOPED_TRACE(key);
    FaultbinDevice device({"bluetoothd_2023-05-01-130000.ips"});
    VLSavePreference(value, key);
    EXPECT_EQ(describe(_VLProcessCrashesInFaultbinFolder("mobile")),
              (std::vector<Expected>{
                  {"bluetoothd", "Crash", "bluetoothd - Crash", "2023-05-01-130000"}}));
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

  // Each queued scan collects first (the service writes the journal's reports there), so the
  // first scan already finds what its collection wrote; a request that rests collects nothing.
  std::atomic<int> collections{0};
  setFaultbinCollection([&] {
    if (collections++ > 0) return;
    const char* file = "bluetoothd_2023-05-01-130000.ips";
    fs::copy_file(kTestData + file, faultbinFoldersForUser("mobile").front() + file);
  });
  struct Uninstall {
    ~Uninstall() { setFaultbinCollection({}); }
  } uninstall;

  VLProcessCrashesInFaultbinFolder("mobile");
  VLProcessCrashesInFaultbinFolder("root");
  time::sleepFor(10);
  VLProcessCrashesInFaultbinFolder("mobile");
  waitForFaultbinScans();
  EXPECT_EQ(collections, 2);
  EXPECT_EQ(log.count(mobileScan), 1u);
  EXPECT_EQ(log.count(rootScan), 1u);
  std::vector<CapturedLine> lines = log.lines();
  EXPECT_EQ(
      std::count_if(lines.begin(), lines.end(),
                    [](const CapturedLine& line) {
                      return line.level == VLLogLevelError &&
                             line.message.starts_with("We already processed this folder at '") &&
                             line.message.ends_with("'; giving it a rest");
                    }),
      1);
  EXPECT_EQ(recorded.issues().size(), 2u);

  time::sleepFor(70);  // 80 s after the first request
  VLProcessCrashesInFaultbinFolder("mobile");
  waitForFaultbinScans();
  EXPECT_EQ(collections, 3);
  EXPECT_EQ(log.count(mobileScan), 2u);
  EXPECT_EQ(recorded.issues().size(), 4u);
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

TEST(CrashReportReaders, ImpossibleDatesAndBadKillReports) {
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
  std::vector<std::pair<std::string, std::string>> named;
  for (const CullerKill& kill : *kills) named.emplace_back(kill.name, kill.reason);
  EXPECT_EQ(named, (std::vector<std::pair<std::string, std::string>>{{"a", "7"}, {"c", "oom"}}));
}

}  // namespace
}  // namespace vl
