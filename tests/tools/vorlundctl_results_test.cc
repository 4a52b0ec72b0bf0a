// vorlundctl results: a run built by consecutive and concurrent commands, refused input, issues and
// resets, all through the real binary in a private home.
#include <gtest/gtest.h>

#include <thread>

#include "support/daemon.h"
#include "tools/ctl.h"
#include "vorlund/foundation/property_list.h"

namespace vl {
namespace {

using test::caseNamed;
using test::ctl;
using test::shownRun;

class VorlundctlResultsTest : public ::testing::Test {
 protected:
  test::Sandbox sandbox_;
  test::ScopedEnv serial_{"VORLUND_SERIAL_NUMBER", "TESTSERIAL1"};
};

TEST_F(VorlundctlResultsTest, CommandsBuildOneRunRefuseBadInputAndReset) {
  const std::vector<std::vector<std::string>> accepted = {
      {"add", "--name", "Ping", "--type", "PassFail", "--pass"},
      {"add", "--name", "Ping", "--type", "PassFail", "--fail", "No reply"},
      {"add", "--name", "Download", "--type", "Average", "--pass", "--metric", "Mbps=42.5",
       "--metric", "Server=lab", "--tag", "band=5GHz"},
      {"add-issue", "--process", "wpa_supplicant", "--reason", "segfault", "--type", "Crash"}};
  for (std::vector<std::string> args : accepted) {
    args.insert(args.begin(), "results");
    auto added = ctl(args);
    ASSERT_EQ(added.exitStatus, 0) << added.err;
  }
  Dictionary run = shownRun();

  const std::pair<std::vector<std::string>, std::string> refused[] = {
      {{"add", "--name", "Ping", "--type", "PassFail"},
       "Invalid Result: Result did not have pass/fail set"},
      {{"add", "--name", "Ping", "--type", "Average", "--pass"},
       "Invalid Result: Result was an average test case without metrics."},
      {{"add", "--name", "Ping", "--type", "Sometimes", "--pass"}, "unknown result type"},
      {{"add", "--name", "Ping", "--type", "Average", "--pass", "--metric", "Mbps=4.2.1"},
       "malformed number"},
      {{"add", "--name", "Ping", "--type", "PassFail", "--pass", "--start", "yesterday"},
       "--start"},
      {{"add-issue", "--process", "x", "--reason", "y", "--type", "Crash", "--time", "not-a-date"},
       "--time"},
  };
  for (auto [args, reason] : refused) {
    args.insert(args.begin(), "results");
    auto result = ctl(args);
    EXPECT_EQ(result.exitStatus, 1) << reason;
    EXPECT_NE(result.err.find(reason), std::string::npos) << result.err;
  }
  Dictionary after = shownRun();  // as it was
  EXPECT_EQ(after.get("TestCases"), run.get("TestCases"));
  EXPECT_EQ(after.get("Issues"), run.get("Issues"));

  const Dictionary* ping = caseNamed(run, "Ping");
  ASSERT_NE(ping, nullptr) << run.description();
  EXPECT_EQ(ping->get("FailureRate"), Value(0.5));
  const Dictionary* download = caseNamed(run, "Download");
  ASSERT_NE(download, nullptr);
  EXPECT_EQ(download->get("Metrics").asDictionary()->get("Mbps").asDictionary()->get("Mean"),
            Value(42.5));
  EXPECT_NE(run.get("Issues").description().find("wpa_supplicant"), std::string::npos);
  EXPECT_TRUE(test::fileExists(run.get("Timeline").stringOr("")));

  // A save writes the results file as the run stands, and the run goes on.
  auto saved = ctl({"results", "save"});
  ASSERT_EQ(saved.exitStatus, 0) << saved.err;
  EXPECT_EQ(saved.out, "Results file: " + run.get("ResultsFile").stringOr("") +
                           "\nTimeline:     " + run.get("Timeline").stringOr("") + "\n");
  std::optional<Dictionary> file = plist::readDictionary(run.get("ResultsFile").stringOr(""));
  ASSERT_TRUE(file);
  EXPECT_EQ(file->get("TestCases").asDictionary()->size(), 2u) << file->description();
  EXPECT_NE(caseNamed(shownRun(), "Ping"), nullptr);

  // A reset starts a new run and keeps the old results file.
  ASSERT_EQ(ctl({"results", "reset"}).exitStatus, 0);
  EXPECT_TRUE(test::fileExists(run.get("ResultsFile").stringOr("")));
  EXPECT_EQ(caseNamed(shownRun(), "Ping"), nullptr);
}

// With the stress service running, the service writes its own run and names its files.
TEST_F(VorlundctlResultsTest, SaveAsksTheServiceToWriteItsRun) {
  test::Daemon service(VORLUND_DAEMON_PATH);
  ASSERT_TRUE(service.waitUntilServing());
  ASSERT_EQ(ctl({"results", "add", "--name", "Ping", "--type", "PassFail", "--pass"}).exitStatus,
            0);
  auto saved = ctl({"results", "save"});
  ASSERT_EQ(saved.exitStatus, 0) << saved.err;
  Dictionary run = shownRun();
  EXPECT_NE(saved.out.find(run.get("ResultsFile").stringOr("?")), std::string::npos) << saved.out;
  std::optional<Dictionary> file = plist::readDictionary(run.get("ResultsFile").stringOr(""));
  ASSERT_TRUE(file) << saved.out;
  EXPECT_EQ(file->get("TestCases").asDictionary()->size(), 1u);
  EXPECT_EQ(service.stop(SIGTERM), 0);
}

TEST_F(VorlundctlResultsTest, ConcurrentCommandsLoseNothing) {
  constexpr int kCommands = 8;
  std::vector<std::thread> threads;
  std::vector<int> statuses(kCommands, -1);
  for (int i = 0; i < kCommands; ++i) {
    threads.emplace_back([i, &statuses] {
      statuses[static_cast<size_t>(i)] =
          ctl({"results", "add", "--name", "Walk", "--type", "PassFail", "--pass"}).exitStatus;
    });
  }
  for (auto& t : threads) t.join();
  for (int status : statuses) EXPECT_EQ(status, 0);
  Dictionary run = shownRun();
  const Dictionary* walk = caseNamed(run, "Walk");
  ASSERT_NE(walk, nullptr);
  EXPECT_EQ(walk->get("Instances"), Value(kCommands));
}

}  // namespace
}  // namespace vl
