// vorlundctl results: a run built by consecutive and concurrent commands, refused input, issues and
// resets, all through the real binary in a private home.
#include <gtest/gtest.h>

#include <thread>

#include "support/child_process.h"
#include "support/test_support.h"
#include "vorlund/foundation/json.h"

namespace vl {
namespace {

test::ChildResult ctl(std::vector<std::string> args) {
  args.insert(args.begin(), VORLUNDCTL_PATH);
  return test::runChild(args);
}

Dictionary showRun() {
  auto shown = ctl({"results", "show", "--json"});
  EXPECT_EQ(shown.exitStatus, 0) << shown.err;
  std::optional<Value> json = json::parse(shown.out);
  EXPECT_TRUE(json && json->isDictionary()) << shown.out;
  return json && json->isDictionary() ? *json->asDictionary() : Dictionary{};
}

const Dictionary* testCase(const Dictionary& run, const std::string& name) {
  const Array* cases = run.get("TestCases").asArray();
  for (size_t i = 0; cases && i < cases->size(); ++i) {
    const Dictionary* d = (*cases)[i].asDictionary();
    if (d && d->get("Name") == Value(name)) return d;
  }
  return nullptr;
}

class VorlundctlResultsTest : public ::testing::Test {
 protected:
  test::Sandbox sandbox_;
  test::ScopedEnv serial_{"VORLUND_SERIAL_NUMBER", "TESTSERIAL1"};
};

TEST_F(VorlundctlResultsTest, ConsecutiveCommandsBuildOneRunUntilReset) {
  ASSERT_EQ(ctl({"results", "add", "--name", "Ping", "--type", "PassFail", "--pass"}).exitStatus, 0);
  ASSERT_EQ(ctl({"results", "add", "--name", "Ping", "--type", "PassFail", "--fail", "No reply"}).exitStatus, 0);
  auto average = ctl({"results", "add", "--name", "Download", "--type", "Average", "--pass", "--metric",
                      "Mbps=42.5", "--metric", "Server=lab", "--tag", "band=5GHz"});
  ASSERT_EQ(average.exitStatus, 0) << average.err;
  ASSERT_EQ(ctl({"results", "add-issue", "--process", "wpa_supplicant", "--reason", "segfault", "--type",
                 "Crash"}).exitStatus, 0);

  Dictionary run = showRun();
  const Dictionary* ping = testCase(run, "Ping");
  ASSERT_NE(ping, nullptr) << run.description();
  EXPECT_EQ(ping->get("Instances"), Value(2));
  EXPECT_EQ(ping->get("FailureRate"), Value(0.5));
  EXPECT_TRUE(ping->get("Failures").asDictionary()->contains("No reply"));
  const Dictionary* download = testCase(run, "Download");
  ASSERT_NE(download, nullptr);
  EXPECT_EQ(download->get("Metrics").asDictionary()->get("Mbps").asDictionary()->get("Mean"), Value(42.5));

  const Array* issues = run.get("Issues").asArray();
  ASSERT_NE(issues, nullptr);
  bool found = false;
  for (const Value& issue : *issues) {
    found |= issue.asDictionary()->get("Process") == Value("wpa_supplicant");
  }
  EXPECT_TRUE(found) << run.get("Issues").description();
  EXPECT_TRUE(test::fileExists(run.get("Timeline").stringOr("")));

  // A reset starts a new run and keeps the old results file.
  std::string oldFile = run.get("ResultsFile").stringOr("");
  ASSERT_EQ(ctl({"results", "reset"}).exitStatus, 0);
  EXPECT_TRUE(test::fileExists(oldFile));
  Dictionary fresh = showRun();
  EXPECT_EQ(testCase(fresh, "Ping"), nullptr) << fresh.description();
}

TEST_F(VorlundctlResultsTest, InvalidInputIsRefusedAndLeavesTheRunAsItWas) {
  ASSERT_EQ(ctl({"results", "add", "--name", "Ping", "--type", "PassFail", "--pass"}).exitStatus, 0);
  Dictionary before = showRun();

  struct Case {
    std::vector<std::string> args;
    std::string reason;
  };
  std::vector<Case> cases = {
      {{"--name", "Ping", "--type", "PassFail"}, "Invalid Result: Result did not have pass/fail set"},
      {{"--name", "Ping", "--type", "Average", "--pass"},
       "Invalid Result: Result was an average test case without metrics."},
      {{"--name", "Ping", "--type", "Sometimes", "--pass"}, "unknown result type"},
      {{"--name", "Ping", "--type", "Average", "--pass", "--metric", "Mbps=4.2.1"}, "malformed number"},
      {{"--name", "Ping", "--type", "PassFail", "--pass", "--start", "yesterday"}, "--start"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"results", "add"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    auto refused = ctl(args);
    EXPECT_EQ(refused.exitStatus, 1) << c.reason;
    EXPECT_NE(refused.err.find(c.reason), std::string::npos) << refused.err;
  }
  auto badIssue = ctl({"results", "add-issue", "--process", "x", "--reason", "y", "--type", "Crash",
                       "--time", "not-a-date"});
  EXPECT_EQ(badIssue.exitStatus, 1);

  Dictionary after = showRun();
  EXPECT_EQ(after.get("TestCases"), before.get("TestCases"));
  EXPECT_EQ(after.get("Issues"), before.get("Issues"));
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
  Dictionary run = showRun();
  const Dictionary* walk = testCase(run, "Walk");
  ASSERT_NE(walk, nullptr);
  EXPECT_EQ(walk->get("Instances"), Value(kCommands));
}

}  // namespace
}  // namespace vl
