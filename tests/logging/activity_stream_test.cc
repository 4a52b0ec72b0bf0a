#include "vorlund/logging/activity_stream.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <regex>

#include "logging/logging_test_support.h"
#include "support/test_support.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/logging/log_hooks.h"
#include "vorlund/logging/logger.h"

namespace vl {
namespace {

using test::FakeStreams;

ActivityEvent plainEvent(const std::string& process, const std::string& message, double time) {
  ActivityEvent event;
  event.timestamp = Date{time};
  event.processName = process;
  event.message = message;
  return event;
}

ActivityEvent logEvent(const std::string& process, const std::string& category,
                       const std::string& message, double time) {
  ActivityEvent event = plainEvent(process, message, time);
  event.category = category;
  event.isLogMessage = true;
  return event;
}

std::string stamp(double time) { return formatLocalTime(Date{time}, "%Y-%m-%d %H:%M:%S.%f"); }

class LogStreaming : public testing::Test {
 protected:
  LogStreaming() { logger_.setActivityStreamFactory(streams_.factory()); }

  test::Sandbox sandbox_;
  test::TempDir dir_;
  FakeStreams streams_;
  VLLogger logger_;
  LogCapture capture_;
};

TEST_F(LogStreaming, OneStreamForAllFilesCopiesEventsIntoTheFilesOfTheirProcess) {
  std::string a = dir_.file("a.log");
  std::string b = dir_.file("deeper/b.log");
  EXPECT_TRUE(logger_.streamOSLogToFile(a, {"Vorlund", "iwd"}));
  EXPECT_TRUE(capture_.contains(
      VLLogLevelNotice, "Framework",
      "Attempting to start log stream at '" + a + "' with process list [Vorlund, iwd]"));
  ASSERT_EQ(streams_.made.size(), 1u);
  EXPECT_EQ(streams_.made[0]->options, 261u);
  EXPECT_FALSE(logger_.streamOSLogToFile(a, {"bluetoothd"}));
  EXPECT_TRUE(
      capture_.contains(VLLogLevelError, "Framework",
                        "Log already streaming to '" + a + "', cannot start redundant stream"));

  // Another file restarts the stream with every process; each file keeps its own list.
  logger_.streamOSLogToFile(b, {"bluetoothd", "Vorlund"});
  EXPECT_TRUE(capture_.contains(VLLogLevelNotice, "Framework",
                                "Invalidating current stream to modify stream parameters"));
  ASSERT_EQ(streams_.made.size(), 2u);
  EXPECT_TRUE(streams_.made[0]->stopped);
  EXPECT_EQ(streams_.made[1]->processes,
            (std::vector<std::string>{"bluetoothd", "Vorlund", "iwd"}));
  EXPECT_EQ(logger_.logStreams().get(a), Value(Array{"Vorlund", "iwd"}));

  EXPECT_TRUE(streams_.made[1]->deliver({logEvent("Vorlund", "Results", "merged", 1769847302.25),
                                         plainEvent("bluetoothd", "powered on", 1769847303.5),
                                         plainEvent("ModemManager", "not followed", 1769847304)}));
  EXPECT_EQ(test::readFile(a), stamp(1769847302.25) + " (Vorlund.Results) > merged\n");
  EXPECT_EQ(test::readFile(b), stamp(1769847302.25) + " (Vorlund.Results) > merged\n" +
                                   stamp(1769847303.5) + " (bluetoothd) > powered on\n");
}

TEST_F(LogStreaming, TellsLongProcessNamesByTheirExecutableOrCommandLine) {
  std::string a = dir_.file("a.log");
  logger_.streamOSLogToFile(a, {"wpa_supplicant_helper"});
  // The kernel keeps "wpa_supplicant_" for both this program and another of a similar name.
  auto cut = [](std::optional<std::string> exe, std::optional<std::string> cmdline,
                const std::string& message) {
    ActivityEvent event = plainEvent("wpa_supplicant_", message, 1769847302);
    event.executable = std::move(exe);
    event.commandLine = std::move(cmdline);
    return event;
  };
  EXPECT_TRUE(streams_.made[0]->deliver({
      cut("/usr/sbin/wpa_supplicant_helper", "wpa_supplicant_helper -i wlan0", "by exe"),
      cut(std::nullopt, "/usr/sbin/wpa_supplicant_helper -i wlan0", "by cmdline"),
      cut("/usr/sbin/wpa_supplicant_other", "wpa_supplicant_other -d", "other program"),
      cut(std::nullopt, std::nullopt, "unknown program"),
      plainEvent("wpa_supplicant", "shorter name", 1769847302),
  }));
  EXPECT_EQ(test::readFile(a), stamp(1769847302) + " (wpa_supplicant_) > by exe\n" +
                                   stamp(1769847302) + " (wpa_supplicant_) > by cmdline\n");
}

TEST_F(LogStreaming, AFileThatCannotBeOpenedSendsTheLineToStandardOutput) {
  test::writeFile(dir_.file("plain"), "");
  std::string a = dir_.file("a.log");
  logger_.streamOSLogToFile(dir_.file("plain/x.log"), {"Vorlund"});
  logger_.streamOSLogToFile(a, {"Vorlund"});
  testing::internal::CaptureStdout();
  streams_.made.back()->deliver(
      {plainEvent("Vorlund", "first", 1769847302), plainEvent("Vorlund", "abandoned", 1769847303)});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), stamp(1769847302) + " (Vorlund) > first\n");
  // The rest of the batch is abandoned.
  EXPECT_EQ(test::readFile(a).find("abandoned"), std::string::npos);
}

TEST_F(LogStreaming, DropsEventsWithoutDateOrMessageAndStopsOneFileOnly) {
  std::string a = dir_.file("a.log");
  std::string b = dir_.file("b.log");
  logger_.streamOSLogToFile(a, {"Vorlund"});
  logger_.streamOSLogToFile(b, {"Vorlund"});
  auto stream = streams_.made.back();
  std::vector<std::string> reasons;
  logging::setStatisticIssueRecorder([&](const std::string& reason) { reasons.push_back(reason); });
  ActivityEvent undated = logEvent("Vorlund", "Results", "undated", 0);
  undated.timestamp.reset();
  ActivityEvent empty = plainEvent("Vorlund", "", 1769847302);
  empty.message.reset();
  EXPECT_TRUE(stream->deliver({undated, empty, plainEvent("Vorlund", "to both", 1769847305)}));
  logging::setStatisticIssueRecorder(nullptr);
  EXPECT_EQ(reasons, std::vector<std::string>(
                         2, "Received activity stream event without date and/or message"));
  EXPECT_EQ(test::readFile(a), stamp(1769847305) + " (Vorlund) > to both\n");

  EXPECT_TRUE(logger_.stopSteamToFile(a));
  EXPECT_TRUE(capture_.contains(VLLogLevelNotice, "Framework",
                                "Attempting to stop log stream at '" + a + "'"));
  EXPECT_FALSE(stream->stopped);
  stream->deliver({plainEvent("Vorlund", "to b only", 1769847303)});
  EXPECT_EQ(test::readFile(a).find("to b only"), std::string::npos);
  EXPECT_NE(test::readFile(b).find("to b only"), std::string::npos);
  EXPECT_FALSE(logger_.stopSteamToFile(a));
  EXPECT_TRUE(capture_.contains(VLLogLevelError, "Framework",
                                "No log streaming to '" + a + "', cannot stop nonexistent stream"));

  // The stream's own reports find no file and leave the table alone.
  capture_.clear();
  logger_.streamDidStart(*stream);
  logger_.streamDidFail(*stream, Error::withDescription("com.brindle.Vorlund", 1, "gone"));
  logger_.streamDidStop(*stream);
  EXPECT_TRUE(capture_.lines().empty());
  EXPECT_EQ(logger_.logStreams().size(), 1u);
}

// Records what a real stream reports.
class RecordingDelegate : public ActivityStreamDelegate {
 public:
  bool activityStream(ActivityStream&, const std::vector<ActivityEvent>&) override { return true; }
  void streamDidStart(ActivityStream&) override { note("started"); }
  void streamDidFail(ActivityStream&, const Error& error) override {
    note("failed: " + error.localizedDescription());
  }
  void streamDidStop(ActivityStream&) override { note("stopped"); }

  void note(const std::string& what) {
    std::lock_guard lock(mutex_);
    notes_.push_back(what);
    changed_.notify_all();
  }
  // The notes once there are count of them, or after 10 s however many there are.
  std::vector<std::string> waitFor(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return notes_.size() >= count; });
    return notes_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> notes_;
};

TEST(JournalActivityStream, StartsAndStopsOverAnEmptyJournalAndReportsOneItCannotOpen) {
  test::TempDir dir;
  for (bool missing : {false, true}) {
    RecordingDelegate delegate;
    {
      auto stream = makeJournalActivityStream(missing ? dir.file("missing") : dir.path());
      stream->setFilterProcesses({"Vorlund"});
      stream->setOptions(261);
      stream->setDelegate(&delegate);
      stream->start();
      ASSERT_EQ(delegate.waitFor(1).size(), 1u);
      if (!missing) stream->stop();
    }
    std::vector<std::string> notes = delegate.waitFor(0);
    if (!missing)
      EXPECT_EQ(notes, (std::vector<std::string>{"started", "stopped"}));
    else
      EXPECT_TRUE(notes.size() == 1 && notes[0].rfind("failed: cannot open the journal: ", 0) == 0);
  }
}

}  // namespace
}  // namespace vl
