// vorlundctl list and run against the real sample bundle, staged in a private device root.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "support/daemon.h"
#include "tools/ctl.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/results/results.h"

namespace vl {
namespace {

using test::ctl;
using test::shownRun;

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
    run_ = test::shownRun();
    return test::caseNamed(run_, name);
  }

  test::Sandbox sandbox_;
  Dictionary run_;
};

TEST_F(VorlundctlRunTest, LocalCommandsRunTheBundleAndJoinTheFileBackedRun) {
  test::writeFile(
      sandbox_.path("adhoc.json"),
      R"({"Name": "Ad hoc ping", "Selector": "pingGateway:", "Technology": "WiFi", "Type": "PassFail"})");
  test::writeFile(sandbox_.path("incomplete.json"), R"({"Name": "No selector"})");
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
  };
  const Case cases[] = {
      {{"list"}, 0, "Sample Ping Gateway", ""},
      {{"list", "--json"}, 0, "\"SampleStress\"", ""},
      {{"run", "Sample Ping Gateway", "--local", "--iterations", "3"},
       0,
       "3 run(s), 3 passed, 0 failed",
       "[1/3] running Sample Ping Gateway..."},
      {{"run", "Sample Throughput", "--local", "--option", "Megabits=240"}, 0, "passed", ""},
      {{"run", "Sample Failure", "--local", "--option", "Reason=Radio off"},
       1,
       "failed: Radio off",
       ""},
      {{"run", "--dict", sandbox_.path("adhoc.json"), "--local"}, 0, "passed", ""},
      {{"run", "--dict", sandbox_.path("incomplete.json"), "--local"}, 1, "", "not a test case"},
      {{"run", "No Such Test", "--local"}, 1, "", "offers a test case named 'No Such Test'"},
      // Without --local the test case goes to the stress service: the bus is up, the service not.
      {{"run", "Sample Ping Gateway"}, 1, "", "vorlundctl: the stress service is not running\n"},
  };
  for (const Case& c : cases) {
    auto result = ctl(c.args);
    EXPECT_EQ(result.exitStatus, c.status) << c.args[1] << ": " << result.err;
    EXPECT_NE(result.out.find(c.out), std::string::npos) << result.out;
    EXPECT_NE(result.err.find(c.err), std::string::npos) << result.err;
  }
  ASSERT_NE(statistic("Sample Ping Gateway"), nullptr) << run_.description();
  EXPECT_EQ(statistic("Sample Ping Gateway")->get("Instances"), Value(3));
  const Dictionary* throughput = statistic("Sample Throughput");
  ASSERT_NE(throughput, nullptr);
  EXPECT_EQ(
      throughput->get("Metrics").asDictionary()->get("Throughput").asDictionary()->get("Mean"),
      Value(240));

  // And here there is no bus at all.
  test::ScopedEnv bus("VORLUND_BUS", "session");
  test::ScopedEnv address("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + sandbox_.path("no-bus"));
  auto noBus = ctl({"run", "Sample Ping Gateway"});
  EXPECT_EQ(noBus.exitStatus, 1);
  EXPECT_NE(noBus.err.find("vorlundctl: Unable to connect to the session bus: "), std::string::npos)
      << noBus.err;
}

// The library's own issues join the user's run: no run of the command's own, no stray timeline.
TEST_F(VorlundctlRunTest, AMissingBundleFolderIsAnIssueOfTheUsersRun) {
  ASSERT_EQ(ctl({"results", "add", "--name", "Setup", "--type", "PassFail", "--pass"}).exitStatus,
            0);
  // Issues dated in the run's first second count as older than the run.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  std::filesystem::remove_all(sandbox_.root() + "/BrindleInternal");
  ASSERT_EQ(ctl({"list"}).exitStatus, 0);

  EXPECT_NE(test::shownRun().description().find("No bundles could be loaded"), std::string::npos);
  size_t timelines = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(sandbox_.home() + "/Library/Logs/Vorlund/Results")) {
    timelines += entry.path().extension() == ".db";
  }
  EXPECT_EQ(timelines, 1u) << "a command started a run of its own";
}

// The service runs the bundle's test cases and keeps the run; the results commands go to it, and
// its suspended run is the one the files hold afterwards.
TEST_F(VorlundctlRunTest, WhileTheServiceRunsItKeepsTheOneRun) {
  {
    test::Daemon daemon(VORLUND_DAEMON_PATH);
    ASSERT_TRUE(daemon.waitUntilServing());
    const std::pair<std::vector<std::string>, int> commands[] = {
        {{"run", "Sample Ping Gateway", "--iterations", "2"}, 0},
        {{"run", "Sample Failure", "--option", "Reason=Radio off"}, 1},
        {{"run", "Sample Throughput", "--local", "--option", "Megabits=120"}, 0},
        {{"results", "add", "--name", "Manual check", "--type", "PassFail", "--pass"}, 0},
        {{"results", "add", "--name", "Manual check", "--type", "PassFail"}, 1},
    };
    for (const auto& [args, status] : commands) {
      auto result = ctl(args);
      EXPECT_EQ(result.exitStatus, status) << args[1] << ": " << result.out << result.err;
    }
    ASSERT_NE(statistic("Sample Failure"), nullptr) << run_.description();
    ASSERT_NE(statistic("Sample Throughput"), nullptr) << "--local results join the service's run";
    ASSERT_NE(statistic("Manual check"), nullptr);
    EXPECT_EQ(statistic("Manual check")->get("Instances"), Value(1));
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
  }
  // Without the service the commands read the run it suspended.
  const Dictionary* ping = statistic("Sample Ping Gateway");
  ASSERT_NE(ping, nullptr) << run_.description();
  EXPECT_EQ(ping->get("Instances"), Value(2));
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

// The sample helper crashes on purpose and, with no system crash handler to rely on, reports
// itself; the scan then adds the crash to the run. Aborts and stack overflows report too, and each
// still dies of its own signal.
TEST_F(VorlundctlRunTest, ACrashingHelperBecomesACrashIssueOfTheRun) {
  // The run takes no issue dated at or before its start, and report names keep whole seconds: the
  // run starts, then the crash comes in a later second.
  ASSERT_EQ(ctl({"run", "Sample Ping Gateway", "--local"}).exitStatus, 0);
  // Under the sanitizers their own fatal-signal handlers would take the crash first.
  const char* sanitizerOptions = getenv("ASAN_OPTIONS");
  test::ScopedEnv asan("ASAN_OPTIONS",
                       std::string(sanitizerOptions ? sanitizerOptions : "") +
                           ":handle_segv=0:handle_abort=0:allow_user_segv_handler=1");
  const auto started = std::chrono::system_clock::now();
  std::this_thread::sleep_until(std::chrono::ceil<std::chrono::seconds>(started));
  auto crashed = ctl({"run", "Sample Crashing Helper", "--local", "--option", "OwnReport=YES"});
  ASSERT_EQ(crashed.exitStatus, 0) << crashed.out << crashed.err;
  auto scanned = ctl({"scan", "--json"});
  ASSERT_EQ(scanned.exitStatus, 0) << scanned.err;
  std::optional<Value> issues = json::parse(scanned.out);
  ASSERT_TRUE(issues && issues->isArray() && issues->asArray()->size() == 1u) << scanned.out;
  const Dictionary& issue = *(*issues->asArray())[0].asDictionary();
  EXPECT_EQ(issue.get("process"), Value("SampleCrasher"));
  EXPECT_EQ(issue.get("type"), Value("Crash"));
  EXPECT_EQ(issue.get("reason"), Value("SampleCrasher - Crash"));
  EXPECT_NE(shownRun().get("Issues").description().find("SampleCrasher - Crash"),
            std::string::npos);

  const std::string crasher =
      std::string(VORLUND_SAMPLE_BUNDLE_DIR) + "/SampleStress.bundle/SampleCrasher";
  for (auto [how, signal] : {std::pair{"abort", SIGABRT}, std::pair{"overflow", SIGSEGV}}) {
    EXPECT_EQ(test::runChild({crasher, how, "--own-report"}).exitStatus, 128 + signal) << how;
  }
  const std::string folder =
      sandbox_.root() +
      (getuid() == 0 ? "/Library/Logs/Faultbin" : "/var/mobile/Library/Logs/Faultbin");
  std::string exceptions;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string report = test::readFile(entry.path());
    EXPECT_NE(report.find("\nThread 0 Crashed: tid "), std::string::npos) << report;
    const size_t line = report.find("Exception Type:");
    exceptions += report.substr(line, report.find('\n', line) - line) + "|";
  }
  // One report per crash, in no particular order of listing.
  EXPECT_EQ(std::count(exceptions.begin(), exceptions.end(), '|'), 3) << exceptions;
  // The fault and the overflow each name the address they touched.
  size_t faults = 0;
  for (size_t at = 0; (at = exceptions.find("SIGSEGV at 0x", at)) != std::string::npos; ++at)
    ++faults;
  EXPECT_EQ(faults, 2u) << exceptions;
  EXPECT_NE(exceptions.find("SIGABRT"), std::string::npos) << exceptions;
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
