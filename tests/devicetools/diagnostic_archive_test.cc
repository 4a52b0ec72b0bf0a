// The diagnostic-archive trigger and the evidence savers on a temporary device: a small script as
// the "SnapdumpCommand" preference, fake "sample", "journalctl" and memory tools first on PATH, and
// the time scale lowered so the ten-minute spacing and the hour of the hung check take
// milliseconds.
#include "vorlund/devicetools/diagnostic_archive.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "devicetools/fake_tools.h"
#include "devicetools/processes.h"
#include "support/test_support.h"
#include "vorlund/devicetools/diagnostic_archiver.h"
#include "vorlund/devicetools/evidence.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/logging/logger.h"

namespace vl {
namespace {

namespace fs = std::filesystem;

// Collects the errors handed to capture callbacks.
class Callbacks {
 public:
  SnapdumpCallback callback() {
    return [this](const std::optional<Error>& error) {
      std::lock_guard lock(mutex_);
      errors_.push_back(error);
    };
  }
  // The errors once n callbacks have come (or after 20 s, however many came).
  std::vector<std::optional<Error>> waitFor(size_t n) {
    test::eventually([&] {
      std::lock_guard lock(mutex_);
      return errors_.size() >= n;
    });
    std::lock_guard lock(mutex_);
    return errors_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::optional<Error>> errors_;
};

using test::eventually;

// A temporary device with fake tools on PATH and a snapdump command that waits while a gate file
// exists and notes when it starts and ends.
class ArchiveDevice : public testing::Test {
 protected:
  ArchiveDevice() {
    tools_.add("snapdump_capture", format("echo \"start $(date +%%s.%%N)\" >> %s\n"
                                          "while [ -e %s ]; do sleep 0.005; done\n"
                                          "echo \"end $(date +%%s.%%N)\" >> %s",
                                          events(), gate(), events()));
    tools_.add("sample", "echo \"sampled $*\"");
    setPreferences(Dictionary{{"SnapdumpCommand", tools_.file("snapdump_capture")}});
  }

  void setPreferences(const Dictionary& preferences) {
    fs::create_directories(sandbox_.home() + "/Library/Logs/Vorlund");
    ASSERT_TRUE(
        plist::writeFile(preferences, sandbox_.home() + "/Library/Logs/Vorlund/Settings.plist"));
  }
  std::string gate() const { return sandbox_.path("gate"); }
  std::string events() const { return sandbox_.path("events"); }
  // Times (seconds since 1970) of the capture command's "start" or "end" notes, in order.
  std::vector<double> eventTimes(const std::string& kind) const {
    std::vector<double> times;
    std::istringstream lines(test::fileExists(events()) ? test::readFile(events()) : "");
    std::string word;
    double time;
    while (lines >> word >> time) {
      if (word == kind) times.push_back(time);
    }
    return times;
  }
  std::vector<std::string> hungSamples() const {
    std::vector<std::string> samples;
    std::error_code none;
    for (const auto& entry :
         fs::directory_iterator(sandbox_.root() + "/var/root/Library/Logs/Vorlund", none)) {
      if (entry.path().filename().string().starts_with("snapdump_hung_"))
        samples.push_back(entry.path());
    }
    return samples;
  }

  bool logged(VLLogLevel level, const std::string& message) const {
    return capture_.contains(level, "Framework", message);
  }
  bool lastLineStartsWith(const std::string& prefix) const {
    return capture_.lines().back().message.starts_with(prefix);
  }

  test::Sandbox sandbox_;
  test::FakeTools tools_;
  LogCapture capture_;
};

TEST_F(ArchiveDevice, OneCaptureRunsOneWaitsTheRestAreDroppedAndAHungOneIsSampledOnce) {
  time::ScopedScale fast(0.001);
  Callbacks callbacks;
  {
    SnapdumpTrigger trigger;
    test::writeFile(gate(), "");
    EXPECT_TRUE(trigger.request(callbacks.callback()));
    ASSERT_TRUE(eventually([&] { return !eventTimes("start").empty(); }));
    EXPECT_TRUE(trigger.request(callbacks.callback()));
    EXPECT_TRUE(logged(0, "Triggering a snapdump because there is no active snapdump"));
    EXPECT_TRUE(logged(0, "Queueing a snapdump for requests coming in during active snapdump"));
    for (int old = 2; old <= 50; ++old) EXPECT_FALSE(trigger.request(callbacks.callback()));
    EXPECT_TRUE(hungSamples().empty());
    // The 52nd request and later, with no capture ever finished: one sample of the capture.
    for (int old = 51; old <= 52; ++old) EXPECT_FALSE(trigger.request(callbacks.callback()));
    EXPECT_EQ(capture_.count("Seems like snapdump is hung, taking a sample"), 1u);
    EXPECT_EQ(capture_.count("No need to queue a snapdump, because one is already queued"), 51u);
    std::vector<std::string> samples = hungSamples();
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_EQ(test::readFile(samples[0]), "sampled snapdump\n");
    fs::remove(gate());

    auto errors = callbacks.waitFor(2);
    ASSERT_TRUE(errors.size() == 2 && !errors[0] && !errors[1]);
    EXPECT_EQ(capture_.count("Snapdump succeeded"), 2u);

    // The second capture waited out the spacing after the end of the first.
    std::vector<double> starts = eventTimes("start"), ends = eventTimes("end");
    ASSERT_TRUE(starts.size() == 2 && ends.size() == 2);
    EXPECT_GE(starts[1] - ends[0], 0.59);
    EXPECT_TRUE(logged(1,
                       "Waiting to take a snapdump for a bit to avoid capturing too many "
                       "back to back snapdumps"));

    // Both done: a request five minutes after the last capture waits out the other five.
    time::sleepFor(300);
    auto requested = std::chrono::system_clock::now();
    EXPECT_TRUE(trigger.request(callbacks.callback()));
    EXPECT_EQ(callbacks.waitFor(3).size(), 3u);
    ASSERT_EQ(eventTimes("start").size(), 3u);
    EXPECT_GE(eventTimes("start")[2] -
                  std::chrono::duration<double>(requested.time_since_epoch()).count(),
              0.25);
  }
  // The dropped requests' callbacks never ran.
  EXPECT_EQ(callbacks.waitFor(0).size(), 3u);
}

TEST_F(ArchiveDevice, CaptureErrorsReachTheCallbackAndAKilledCaptureHoldsUpNothing) {
  time::ScopedScale fast(0.0001);
  SnapdumpTrigger trigger;
  Callbacks callbacks;
  setPreferences(Dictionary{});
  ASSERT_TRUE(trigger.request(callbacks.callback()));
  auto errors = callbacks.waitFor(1);
  ASSERT_TRUE(errors.size() == 1 && errors[0]);
  EXPECT_NE(errors[0]->userInfo.get("Reason").stringOr("").find("\"SnapdumpCommand\""),
            std::string::npos);
  EXPECT_TRUE(logged(1, format("Snapdump failed with error '%@'", errors[0]->description())));

  // The first run of the hanging command starts a background job that would hold its output open
  // for half a minute; the second run succeeds.
  const std::string ran = sandbox_.path("ran");
  tools_.add("failing_capture", "echo 'disk full' >&2; exit 3");
  tools_.add("hanging_capture",
             format("if [ ! -e %s ]; then touch %s; sleep 33.1 & sleep 100; fi", ran, ran));
  const char* reasons[] = {"exited with status 3: disk full", "was ended by signal 9"};
  for (const char* name : {"failing_capture", "hanging_capture"}) {
    setPreferences(Dictionary{{"SnapdumpCommand", tools_.file(name)}});
    ASSERT_TRUE(trigger.request(callbacks.callback()));
    errors = callbacks.waitFor(errors.size() + 1);
    ASSERT_TRUE(errors.back());
    EXPECT_EQ(errors.back()->userInfo.get("Reason").stringOr(""),
              format("The snapdump command \"%s\" %s", tools_.file(name),
                     reasons[std::string(name) == "hanging_capture"]));
  }
  ASSERT_TRUE(trigger.request(callbacks.callback()));
  EXPECT_FALSE(callbacks.waitFor(4).back());
  EXPECT_TRUE(test::endedWithin({"sleep", "33.1"}, 5));
}

class ThrowingArchiver : public DiagnosticArchiver {
 public:
  explicit ThrowingArchiver(bool foreign) : foreign_(foreign) {}
  std::optional<Error> snapdump(const Dictionary& metadata) override {
    EXPECT_TRUE(metadata.empty());
    if (foreign_) throw 42;
    throw std::runtime_error("archive service went away");
  }
  int createLogArchive(const std::string&, int64_t, int64_t, uint32_t,
                       const std::function<void(const char*)>&) override {
    throw std::runtime_error("no log archive");
  }

 private:
  bool foreign_;
};

// The synchronous capture bypasses the queue; a queued capture that throws is logged and the
// trigger's state recovers.
TEST_F(ArchiveDevice, CapturesThatThrowAreLoggedAndTheStateRecovers) {
  EXPECT_FALSE(VLTriggerSnapdumpSync());
  EXPECT_TRUE(capture_.contains(1, "Default", "Triggering snapdump via libssnapdump"));
  EXPECT_EQ(eventTimes("end").size(), 1u);
  setPreferences(Dictionary{});
  EXPECT_TRUE(VLTriggerSnapdumpSync());
  setDiagnosticArchiver(std::make_shared<ThrowingArchiver>(false));
  EXPECT_FALSE(VLTriggerSnapdumpSync());
  setDiagnosticArchiver(nullptr);

  capture_.clear();
  time::ScopedScale fast(0.0001);
  Callbacks callbacks;
  {
    SnapdumpTrigger trigger(std::make_shared<ThrowingArchiver>(false));
    ASSERT_TRUE(trigger.request(callbacks.callback()));
    auto errors = callbacks.waitFor(1);
    ASSERT_TRUE(errors.size() == 1 && !errors[0]);
    EXPECT_TRUE(logged(1, "Snapdump failed with error 'archive service went away'"));
  }
  {
    // Not an exception the system knows: no callback, but the count is reset before it goes on.
    SnapdumpTrigger trigger(std::make_shared<ThrowingArchiver>(true));
    Callbacks none;
    ASSERT_TRUE(trigger.request(none.callback()));
    ASSERT_TRUE(
        eventually([&] { return capture_.count("Triggering snapdump via libssnapdump") == 2; }));
    capture_.clear();
    ASSERT_TRUE(eventually([&] {
      if (!trigger.request(none.callback())) return false;
      return logged(0, "Triggering a snapdump because there is no active snapdump");
    }));
  }
}

TEST_F(ArchiveDevice, AFailedLogWriteRequestsAnArchive) {
  // The process's trigger keeps its state: a capture after an earlier one waits out the spacing.
  time::ScopedScale fast(0.001);
  // /var of the device lies on a file system without free space, so the write gives up at once.
  fs::create_directory_symlink("/proc", sandbox_.root() + "/var");
  setPreferences(Dictionary{});
  VLLogger logger;
  EXPECT_THROW(logger.logMessage("cannot be written", "/dev/full"), VLException);
  EXPECT_TRUE(logged(0, "Triggering a snapdump because there is no active snapdump"));
  // The process's trigger captures through the Linux archiver, which finds no command here.
  EXPECT_TRUE(eventually([&] {
    std::vector<CapturedLine> lines = capture_.lines();
    return std::any_of(lines.begin(), lines.end(), [](const CapturedLine& line) {
      return line.message.rfind("Snapdump failed with error 'Error Domain=com.brindle.Vorlund",
                                0) == 0;
    });
  }));
}

TEST_F(ArchiveDevice, PriorityLogsAreCopiedOnce) {
  const std::string log = sandbox_.path("radio.log");
  const std::string saved = sandbox_.home() + "/Library/Logs/PriorityLogs/radio.log";
  test::writeFile(log, "radio trouble\n");
  VLSaveLogAsPriority(log);
  EXPECT_EQ(test::readFile(saved), "radio trouble\n");
  EXPECT_TRUE(logged(0, "Saving file as a priority log..." + log));

  VLSaveLogAsPriority(log);
  EXPECT_TRUE(lastLineStartsWith("Saw an error copying priority log file Error Domain="));

  setPreferences(Dictionary{{"StartedFromUI", true}});
  fs::remove(saved);
  VLSaveLogAsPriority(log);
  EXPECT_FALSE(test::fileExists(saved));
  EXPECT_TRUE(logged(0, "Test started from the UI, not moving logs.  Would have moved " + log));

  setPreferences(Dictionary{});
  fs::remove_all(sandbox_.home() + "/Library/Logs/PriorityLogs");
  test::writeFile(sandbox_.home() + "/Library/Logs/PriorityLogs", "a file in the way");
  VLSaveLogAsPriority(log);
  EXPECT_TRUE(lastLineStartsWith("Unable to save priority log " + log + "...Error Domain="));
}

TEST_F(ArchiveDevice, MemoryWarningsWriteTheReport) {
  const std::string faultbin = sandbox_.root() + "/var/mobile/Library/Logs/Faultbin";
  fs::create_directories(faultbin);
  tools_.add("fbthreadgrab", format("pwd > %s", sandbox_.path("grabbed_in")));
  for (const char* name : {"culler_rank", "arenalist", "heap", "sample", "leaks"}) {
    tools_.add(name, format("echo \"%s $*\"", name));
  }
  const std::string reports = sandbox_.path("reports/memory");
  process::ScopedName name("memwatcher");

  VLSaveMemoryWarning(std::to_string(getpid()), reports);
  EXPECT_EQ(test::readFile(sandbox_.path("grabbed_in")), faultbin + "\n");
  ASSERT_EQ(std::distance(fs::directory_iterator(reports), fs::directory_iterator()), 1);
  const std::string file = fs::directory_iterator(reports)->path().filename();
  EXPECT_TRUE(std::regex_match(
      file, std::regex(R"(memwatcher_\d{4}-\d\d-\d\d-\d{6}_ExceededMemoryLimit\.txt)")))
      << file;
  std::string report = test::readFile(reports + "/" + file);
  const std::string pid = std::to_string(getpid());
  for (const std::string& expected : std::vector<std::string>{
           "=== UNAME ===\nLinux", "=== CULLER_RANK ===\nculler_rank \n",
           "=== ARENALIST ===\narenalist -v " + pid + "\n",
           "heap -guessNonObjects -sumObjectFields " + pid + "\n", "=== SAMPLE ===\nsample " + pid,
           "=== LEAKS ===\nleaks " + pid + "\n"}) {
    EXPECT_NE(report.find(expected), std::string::npos) << expected << " in\n" << report;
  }

  VLSaveMemoryWarning("locationd", reports);
  EXPECT_EQ(std::distance(fs::directory_iterator(reports), fs::directory_iterator()), 2);

  test::writeFile(sandbox_.path("blocked"), "");
  VLSaveMemoryWarning("locationd", sandbox_.path("blocked/reports"));
  EXPECT_TRUE(lastLineStartsWith("Saw an error while creating " + sandbox_.path("blocked/reports") +
                                 ".  Cant save the log... Error Domain="));
}

TEST_F(ArchiveDevice, LogCollectExportsTheJournalSinceTheStart) {
  tools_.add("journalctl", "echo \"exported $*\"; echo 'Hint: some entries are hidden' >&2");
  const Date start{1767225600};  // 2026-01-01 00:00:00 UTC
  std::optional<std::string> path = VLTriggerLogCollect(start, "wifi drop");
  ASSERT_TRUE(path);
  const std::string prefix = sandbox_.root() + "/var/root/Library/Logs/Vorlund/LogCollect/start" +
                             dateString(start) + "-end";
  EXPECT_EQ(path->rfind(prefix, 0), 0u) << *path;
  EXPECT_EQ(test::readFile(*path), "exported --since=@1767225600 --output=export\n");
  EXPECT_TRUE(logged(1, "Triggering log collect for: 'wifi drop'"));
  EXPECT_TRUE(logged(16,
                     "Got warning while creating log archive: 'Hint: some entries are "
                     "hidden'"));

  // Without a journal tool the path comes back all the same.
  tools_.add("journalctl", "exit 127");
  EXPECT_TRUE(VLTriggerLogCollect(start, "no journal"));

  fs::remove_all(sandbox_.root() + "/var/root/Library/Logs/Vorlund/LogCollect");
  test::writeFile(sandbox_.root() + "/var/root/Library/Logs/Vorlund/LogCollect", "in the way");
  EXPECT_FALSE(VLTriggerLogCollect(start, "blocked"));
  EXPECT_TRUE(logged(16, "Failed to create log collect directory. Cannot continue"));
}

}  // namespace
}  // namespace vl
