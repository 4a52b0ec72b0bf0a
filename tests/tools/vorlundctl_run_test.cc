// vorlundctl list and run against the real sample bundle, staged in a private device root.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "support/child_process.h"
#include "support/daemon.h"
#include "support/test_support.h"
#include "vorlund/foundation/json.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/results/results.h"

namespace vl {
namespace {

test::ChildResult ctl(std::vector<std::string> args) {
  args.insert(args.begin(), VORLUNDCTL_PATH);
  return test::runChild(args);
}

class VorlundctlRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string bundles = sandbox_.root() + "/BrindleInternal/Library/Bundles/Stress";
    std::filesystem::create_directories(bundles);
    std::filesystem::copy(std::string(VORLUND_SAMPLE_BUNDLE_DIR) + "/SampleStress.bundle",
                          bundles + "/SampleStress.bundle",
                          std::filesystem::copy_options::recursive);
  }

  const Dictionary* statistic(const std::string& name) {
    auto shown = ctl({"results", "show", "--json"});
    EXPECT_EQ(shown.exitStatus, 0) << shown.err;
    run_ = json::parse(shown.out).value_or(Value());
    const Array* cases =
        run_.asDictionary() ? run_.asDictionary()->get("TestCases").asArray() : nullptr;
    for (size_t i = 0; cases && i < cases->size(); ++i) {
      const Dictionary* d = (*cases)[i].asDictionary();
      if (d && d->get("Name") == Value(name)) return d;
    }
    return nullptr;
  }

  test::Sandbox sandbox_;
  Value run_;
};

TEST_F(VorlundctlRunTest, ListShowsTheBundlesTestCases) {
  auto listed = ctl({"list"});
  ASSERT_EQ(listed.exitStatus, 0) << listed.err;
  EXPECT_NE(listed.out.find("SampleStress"), std::string::npos) << listed.out;
  EXPECT_NE(listed.out.find("Sample Ping Gateway"), std::string::npos);
  auto json = ctl({"list", "--json"});
  ASSERT_EQ(json.exitStatus, 0) << json.err;
  EXPECT_TRUE(json::parse(json.out).has_value()) << json.out;
}

TEST_F(VorlundctlRunTest, LocalRunsJoinTheFileBackedRun) {
  auto pinged = ctl({"run", "Sample Ping Gateway", "--local", "--iterations", "3"});
  ASSERT_EQ(pinged.exitStatus, 0) << pinged.err;
  EXPECT_NE(pinged.out.find("[3/3] Sample Ping Gateway passed"), std::string::npos) << pinged.out;
  EXPECT_NE(pinged.out.find("3 run(s), 3 passed, 0 failed"), std::string::npos);
  EXPECT_NE(pinged.err.find("[1/3] running Sample Ping Gateway..."), std::string::npos);

  auto measured = ctl({"run", "Sample Throughput", "--local", "--option", "Megabits=240"});
  ASSERT_EQ(measured.exitStatus, 0) << measured.err;

  const Dictionary* ping = statistic("Sample Ping Gateway");
  ASSERT_NE(ping, nullptr) << run_.description();
  EXPECT_EQ(ping->get("Instances"), Value(3));
  const Dictionary* throughput = statistic("Sample Throughput");
  ASSERT_NE(throughput, nullptr);
  EXPECT_EQ(
      throughput->get("Metrics").asDictionary()->get("Throughput").asDictionary()->get("Mean"),
      Value(240));
}

// The library's own issues join the user's run: no run of the command's own, no stray timeline.
TEST_F(VorlundctlRunTest, AMissingBundleFolderIsAnIssueOfTheUsersRun) {
  ASSERT_EQ(ctl({"results", "add", "--name", "Setup", "--type", "PassFail", "--pass"}).exitStatus,
            0);
  // Issues dated in the run's first second count as older than the run.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  std::filesystem::remove_all(sandbox_.root() + "/BrindleInternal");
  ASSERT_EQ(ctl({"list"}).exitStatus, 0);

  auto shown = ctl({"results", "show", "--json"});
  ASSERT_EQ(shown.exitStatus, 0) << shown.err;
  EXPECT_NE(shown.out.find("No bundles could be loaded"), std::string::npos) << shown.out;
  size_t timelines = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(sandbox_.home() + "/Library/Logs/Vorlund/Results")) {
    timelines += entry.path().extension() == ".db";
  }
  EXPECT_EQ(timelines, 1u) << "a command started a run of its own";
}

TEST_F(VorlundctlRunTest, AFailedResultGivesExitStatusOneWithItsReason) {
  auto failed = ctl({"run", "Sample Failure", "--local", "--option", "Reason=Radio off"});
  EXPECT_EQ(failed.exitStatus, 1);
  EXPECT_NE(failed.out.find("failed: Radio off"), std::string::npos) << failed.out;
  const Dictionary* failure = statistic("Sample Failure");
  ASSERT_NE(failure, nullptr);
  EXPECT_TRUE(failure->get("Failures").asDictionary()->contains("Radio off"));
}

TEST_F(VorlundctlRunTest, AdHocTestCaseFromADictionary) {
  test::writeFile(
      sandbox_.path("adhoc.json"),
      R"({"Name": "Ad hoc ping", "Selector": "pingGateway:", "Technology": "WiFi", "Type": "PassFail"})");
  auto adhoc = ctl({"run", "--dict", sandbox_.path("adhoc.json"), "--local"});
  EXPECT_EQ(adhoc.exitStatus, 0) << adhoc.err;
  EXPECT_NE(adhoc.out.find("passed"), std::string::npos) << adhoc.out;

  test::writeFile(sandbox_.path("incomplete.json"), R"({"Name": "No selector"})");
  auto incomplete = ctl({"run", "--dict", sandbox_.path("incomplete.json"), "--local"});
  EXPECT_EQ(incomplete.exitStatus, 1);
  EXPECT_NE(incomplete.err.find("not a test case"), std::string::npos) << incomplete.err;
}

TEST_F(VorlundctlRunTest, UnknownTestCaseOrMissingServiceIsOneClearLine) {
  auto unknown = ctl({"run", "No Such Test", "--local"});
  EXPECT_EQ(unknown.exitStatus, 1);
  EXPECT_NE(unknown.err.find("offers a test case named 'No Such Test'"), std::string::npos)
      << unknown.err;

  // Without --local the test case goes to the stress service: here the bus is up, the service not.
  auto notRunning = ctl({"run", "Sample Ping Gateway"});
  EXPECT_EQ(notRunning.exitStatus, 1);
  EXPECT_EQ(notRunning.err.substr(notRunning.err.find("vorlundctl: ")),
            "vorlundctl: the stress service is not running\n");

  // And here there is no bus at all.
  test::ScopedEnv bus("VORLUND_BUS", "session");
  test::ScopedEnv address("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + sandbox_.path("no-bus"));
  auto noBus = ctl({"run", "Sample Ping Gateway"});
  EXPECT_EQ(noBus.exitStatus, 1);
  EXPECT_NE(noBus.err.find("vorlundctl: Unable to connect to the session bus: "), std::string::npos)
      << noBus.err;
}

// The service runs the bundle's test cases and keeps the run; the results commands go to it, and
// its suspended run is the one the files hold afterwards.
TEST_F(VorlundctlRunTest, WhileTheServiceRunsItKeepsTheOneRun) {
  {
    test::Daemon daemon(VORLUND_DAEMON_PATH);
    ASSERT_TRUE(daemon.waitUntilServing());

    auto pinged = ctl({"run", "Sample Ping Gateway", "--iterations", "2"});
    ASSERT_EQ(pinged.exitStatus, 0) << pinged.err;
    EXPECT_NE(pinged.out.find("[2/2] Sample Ping Gateway passed"), std::string::npos) << pinged.out;
    auto failed = ctl({"run", "Sample Failure", "--option", "Reason=Radio off"});
    EXPECT_EQ(failed.exitStatus, 1);
    EXPECT_NE(failed.out.find("failed: Radio off"), std::string::npos) << failed.out;
    auto local = ctl({"run", "Sample Throughput", "--local", "--option", "Megabits=120"});
    ASSERT_EQ(local.exitStatus, 0) << local.err;
    auto added = ctl({"results", "add", "--name", "Manual check", "--type", "PassFail", "--pass"});
    ASSERT_EQ(added.exitStatus, 0) << added.err;
    auto refused = ctl({"results", "add", "--name", "Manual check", "--type", "PassFail"});
    EXPECT_EQ(refused.exitStatus, 1);

    ASSERT_NE(statistic("Sample Ping Gateway"), nullptr) << run_.description();
    EXPECT_EQ(statistic("Sample Ping Gateway")->get("Instances"), Value(2));
    ASSERT_NE(statistic("Sample Failure"), nullptr);
    ASSERT_NE(statistic("Sample Throughput"), nullptr) << "--local results join the service's run";
    ASSERT_NE(statistic("Manual check"), nullptr);
    EXPECT_EQ(statistic("Manual check")->get("Instances"), Value(1));
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
  }
  // Without the service the commands read the run it suspended.
  const Dictionary* ping = statistic("Sample Ping Gateway");
  ASSERT_NE(ping, nullptr) << run_.description();
  EXPECT_EQ(ping->get("Instances"), Value(2));
  ASSERT_NE(statistic("Manual check"), nullptr);
}

// A stop signal suspends the run at once and ends the service within its bound even while a test
// case still runs.
TEST_F(VorlundctlRunTest, TerminationSuspendsTheRunWithoutWaitingForALongTestCase) {
  test::ScopedEnv fast("VORLUND_TIME_SCALE", "0.05");  // the 20 s stop bound becomes 1 s
  test::Daemon daemon(VORLUND_DAEMON_PATH);
  ASSERT_TRUE(daemon.waitUntilServing());
  ASSERT_EQ(ctl({"run", "Sample Ping Gateway"}).exitStatus, 0);
  test::Daemon sleeper({VORLUNDCTL_PATH, "run", "Sample Sleep", "--option", "Seconds=36000"});
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the request reaches the service

  kill(daemon.pid(), SIGTERM);
  EXPECT_EQ(daemon.waitForExit(), 0) << "the service waited for the test case";
  ASSERT_TRUE(VLResults::hasResumeData());
  EXPECT_NE(test::readFile(VLResults::resumeDataPath()).find("Sample Ping Gateway"),
            std::string::npos);
}

// The activation file the project ships starts the service on the first message: a bus of the
// test's own reads it from the build tree, where it names the built program.
TEST_F(VorlundctlRunTest, TheBusStartsTheServiceOnDemand) {
  std::filesystem::create_directories(sandbox_.path("bus"));
  std::optional<test::PrivateBus> bus;
  bus.emplace(sandbox_.path("bus"), VORLUND_DBUS_SERVICE_DIR);
  ASSERT_TRUE(bus->started());

  auto pinged = ctl({"run", "Sample Ping Gateway"});
  ASSERT_EQ(pinged.exitStatus, 0) << pinged.err;
  EXPECT_NE(pinged.out.find("[1/1] Sample Ping Gateway passed"), std::string::npos) << pinged.out;

  // The started service keeps the run until it is stopped, and then suspends it.
  ipm::ScopedBus connection = ipm::openBus();
  ASSERT_TRUE(connection);
  sd_bus_creds* creds = nullptr;
  ASSERT_GE(sd_bus_get_name_creds(connection.get(), ipm::kServiceName, SD_BUS_CREDS_PID, &creds),
            0);
  pid_t service = 0;
  sd_bus_creds_get_pid(creds, &service);
  sd_bus_creds_unref(creds);
  ASSERT_GT(service, 0);
  kill(service, SIGTERM);
  // (The bus, not the test, is its parent; it is gone once it no longer answers to signal 0.)
  for (int i = 0; i < 400 && kill(service, 0) == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  // (On the bus a command would start the service again; the files tell what it left.)
  bus.reset();
  const Dictionary* ping = statistic("Sample Ping Gateway");
  ASSERT_NE(ping, nullptr) << run_.description();
  EXPECT_EQ(ping->get("Instances"), Value(1));
}

}  // namespace
}  // namespace vl
