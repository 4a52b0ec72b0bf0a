// The stress service program, run for real on the test's private bus.
#include "support/daemon.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "support/test_support.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/client.h"
#include "vorlund/ipm/results_service.h"
#include "vorlund/ipm/service.h"
#include "vorlund/ipm/service_client.h"
#include "vorlund/results/results.h"
#include "vorlund/results/run_lock.h"

namespace vl::ipm {
namespace {

#ifdef VORLUND_DAEMON_PATH

std::shared_ptr<VLTestCaseResult> finishedResult(const std::string& name, bool passed) {
  auto result = VLTestCaseResult::withName(name);
  result->setType(std::string(kVLTestCaseResultTypePassFail));
  if (passed) {
    result->pass();
  } else {
    result->failWithReason("Radio off");
  }
  result->setStartTime(Date::now());
  result->setEndTime(Date::now());
  return result;
}

const Dictionary* testCaseIn(const Dictionary& summary, const std::string& name) {
  const Array* cases = summary.get("TestCases").asArray();
  for (size_t i = 0; cases && i < cases->size(); ++i) {
    const Dictionary* d = (*cases)[i].asDictionary();
    if (d && d->get("Name") == Value(name)) return d;
  }
  return nullptr;
}

// A message of the given type carrying an archived record under key.
IpmValue archivedMessage(const char* type, const char* key, const Value& record) {
  IpmDictionary message;
  message.set(kVLMessageKeyType, IpmValue::ofString(type));
  message.set(key, IpmValue::ofData(VLConvertObjectToData(record)->bytes));
  return IpmValue::ofDictionary(std::move(message));
}

// Other processes post results and issues; messages other than test case requests go to the
// router: a posted result joins the run, and manager results and bare replies are taken (and
// dropped when nobody waits), never refused.
TEST(DaemonTest, KeepsTheRunOfOtherProcessesResultsAndIssues) {
  test::Sandbox sandbox;
  test::Daemon daemon(VORLUND_DAEMON_PATH);
  ASSERT_TRUE(daemon.waitUntilServing());

  Error error;
  ASSERT_TRUE(addResultToServiceRun(finishedResult("Attach", true), &error)) << error.description();
  ASSERT_TRUE(addResultToServiceRun(finishedResult("Attach", false), &error))
      << error.description();
  auto issue = VLIssue::make();
  issue->setProcess("wpa_supplicant");
  issue->setReason("SIGSEGV");
  issue->setType("Crash");
  // (Issues carry whole seconds; one dated in the run's first second would be "in the past".)
  issue->setTime(Date{Date::now().secondsSince1970 + 2});
  issue->setInstances(1);
  ASSERT_TRUE(addIssueToServiceRun(issue, &error)) << error.description();

  // Refused input names the reason and leaves the run as it was.
  auto unfinished = VLTestCaseResult::withName("Attach");  // neither passed nor failed
  unfinished->setType(std::string(kVLTestCaseResultTypePassFail));
  EXPECT_FALSE(addResultToServiceRun(unfinished, &error));
  EXPECT_EQ(error.code, static_cast<int64_t>(IpmErrorCode::kRemote));
  EXPECT_FALSE(addIssueToServiceRun(VLIssue::make(), &error));
  EXPECT_EQ(error.code, static_cast<int64_t>(IpmErrorCode::kRemote));
  IpmDictionary unknown;
  unknown.set(kVLMessageKeyType, IpmValue::ofString(kResultsRequestMessageType));
  unknown.set(kResultsKeyAction, IpmValue::ofString("Rewind"));
  EXPECT_FALSE(sendMessage(IpmValue::ofDictionary(unknown), kNoTimeout, &error));
  EXPECT_EQ(error.localizedDescription(), "Unknown results action \"Rewind\"");

  IpmDictionary managerResult;
  managerResult.set(kVLMessageKeyType, IpmValue::ofString(kVLMessageTypeManagerCommandResult));
  managerResult.set(kVLMessageKeyUUID, IpmValue::ofString("0C6B7D5E-0000-4000-8000-000000000001"));
  IpmDictionary bareReply;
  bareReply.set(kVLMessageKeyUUID, IpmValue::ofString("0C6B7D5E-0000-4000-8000-000000000002"));
  for (const IpmValue& message :
       {archivedMessage(kVLMessageTypeTestCaseResult, kVLMessageKeyResult,
                        Value(finishedResult("Posted", true))),
        IpmValue::ofDictionary(managerResult), IpmValue::ofDictionary(bareReply)}) {
    auto reply = sendMessage(message, kNoTimeout, &error);
    ASSERT_TRUE(reply) << error.description();
    EXPECT_TRUE(reply->asDictionary()->empty());
  }

  std::optional<Dictionary> summary = serviceRunSummary(&error);
  ASSERT_TRUE(summary) << error.description();
  EXPECT_NE(testCaseIn(*summary, "Posted"), nullptr) << summary->description();
  const Dictionary* attach = testCaseIn(*summary, "Attach");
  ASSERT_NE(attach, nullptr) << summary->description();
  EXPECT_EQ(attach->get("FailureRate"), Value(0.5));
  EXPECT_EQ(summary->get("Issues").asArray()->size(), 1u);

  // A reset leaves the run in its results file and starts a new one in the service.
  std::optional<std::string> saved = resetServiceRun(&error);
  ASSERT_TRUE(saved) << error.description();
  EXPECT_TRUE(test::fileExists(*saved));
  EXPECT_NE(test::readFile(*saved).find("wpa_supplicant"), std::string::npos);
  summary = serviceRunSummary(&error);
  ASSERT_TRUE(summary) << error.description();
  EXPECT_TRUE(summary->get("TestCases").asArray()->empty());
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

TEST(DaemonTest, IsTheRunsOnlyWriterWhileItServes) {
  test::Sandbox sandbox;
  {
    // A front end that is writing the run holds the service back until it is done.
    std::unique_ptr<RunLock> frontEnd = RunLock::take(true);
    ASSERT_TRUE(frontEnd);
    test::Daemon daemon(VORLUND_DAEMON_PATH);
    // Long enough for a daemon that did not wait to be on the bus.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    Error error;
    EXPECT_FALSE(serviceRunSummary(&error));
    EXPECT_EQ(error.localizedDescription(), "the stress service is not running");
    frontEnd.reset();
    ASSERT_TRUE(daemon.waitUntilServing());

    // Then it holds the lock as long as it serves.
    Error lockError;
    EXPECT_FALSE(RunLock::take(false, &lockError));
    EXPECT_TRUE(lockError.domain.empty()) << lockError.description();
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
  }
  EXPECT_TRUE(RunLock::take(false));
}

TEST(DaemonTest, LeavesWhenItsBusGoesAwayAndKeepsTheRun) {
  test::Sandbox sandbox;
  std::filesystem::create_directories(sandbox.path("bus"));
  {
    test::PrivateBus bus(sandbox.path("bus"));
    ASSERT_TRUE(bus.started());
    test::Daemon daemon(VORLUND_DAEMON_PATH);
    ASSERT_TRUE(daemon.waitUntilServing());
    Error error;
    ASSERT_TRUE(addResultToServiceRun(finishedResult("Roam", true), &error)) << error.description();

    bus.stop();
    EXPECT_EQ(daemon.waitForExit(), 1) << "the daemon holds the run without a bus";
  }
  ASSERT_TRUE(VLResults::hasResumeData());
  const std::string suspended = test::readFile(VLResults::resumeDataPath());
  EXPECT_NE(suspended.find("Roam"), std::string::npos);

  // A daemon that cannot reach a bus at all leaves the suspended run for the next one.
  test::ScopedEnv noBus("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + sandbox.path("no-bus"));
  test::Daemon unreachable(VORLUND_DAEMON_PATH);
  EXPECT_EQ(unreachable.waitForExit(), 1);
  ASSERT_TRUE(VLResults::hasResumeData());
  EXPECT_NE(test::readFile(VLResults::resumeDataPath()).find("Roam"), std::string::npos);
}

// While it serves, the run is saved every interval: killed without warning, the service loses at
// most the last interval.
TEST(DaemonTest, AKilledServiceLosesAtMostTheLastSaveInterval) {
  test::Sandbox sandbox;
  test::ScopedEnv fast("VORLUND_TIME_SCALE", "0.01");  // 60 s between saves becomes 0.6 s
  test::Daemon daemon(VORLUND_DAEMON_PATH);
  ASSERT_TRUE(daemon.waitUntilServing());
  Error error;
  ASSERT_TRUE(addResultToServiceRun(finishedResult("Kept", true), &error)) << error.description();
  std::string saved;
  for (int i = 0; i < 200 && saved.find("Kept") == std::string::npos; ++i) {
    vl::time::sleepFor(0.05);
    if (VLResults::hasResumeData()) saved = test::readFile(VLResults::resumeDataPath());
  }
  kill(daemon.pid(), SIGKILL);
  daemon.waitForExit();
  ASSERT_TRUE(VLResults::hasResumeData());
  EXPECT_NE(test::readFile(VLResults::resumeDataPath()).find("Kept"), std::string::npos);
}

// Under a name that is not a host process the service still runs test cases itself instead of
// sending them to the stress service, which is itself.
TEST(DaemonTest, RunsTestCasesItselfWhateverItIsCalled) {
  test::Sandbox sandbox;
  test::ScopedEnv name("VORLUND_PROCESS_NAME", "stress-runner");
  test::Daemon daemon(VORLUND_DAEMON_PATH);
  ASSERT_TRUE(daemon.waitUntilServing());
  auto object = VLTestCaseObject::make();
  object->setName("ImplementedNowhere");
  object->setSelector("runNowhere");
  Error error;
  auto reply = sendMessage(
      archivedMessage(kVLMessageTypeTestCaseRequest, kVLMessageKeyTestCase, Value(object)),
      std::chrono::seconds(10), &error);
  ASSERT_TRUE(reply) << error.description();
  const IpmValue* result = reply->asDictionary()->find(kVLMessageKeyResult);
  ASSERT_TRUE(result && result->asData());
  auto decoded = VLConvertDataToObject(*result->asData(), &error).record<VLTestCaseResult>();
  ASSERT_TRUE(decoded);
  EXPECT_TRUE(decoded->isNoOp());
  EXPECT_EQ(reply->asDictionary()->find(kVLMessageKeyUUID), nullptr) << "none asked, none given";
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

#ifdef VORLUND_SAMPLE_BUNDLE_DIR
// A manager asks by name and options only: the service completes the test case from its own
// bundles, runs it with the request's options and answers under the request's UUID.
TEST(DaemonTest, CompletesANamedTestCaseFromItsCatalogueAndAnswersUnderTheRequestsUUID) {
  test::Sandbox sandbox;
  const std::string bundles = sandbox.root() + "/BrindleInternal/Library/Bundles/Stress";
  std::filesystem::create_directories(bundles);
  std::filesystem::copy(std::string(VORLUND_SAMPLE_BUNDLE_DIR) + "/SampleStress.bundle",
                        bundles + "/SampleStress.bundle", std::filesystem::copy_options::recursive);
  test::Daemon daemon(VORLUND_DAEMON_PATH);
  ASSERT_TRUE(daemon.waitUntilServing());

  auto send = [](const std::string& name, const char* uuid) {
    auto object = VLTestCaseObject::make();
    object->setName(name);
    object->setOptions(Dictionary{{"Reason", Value("Cable cut")}});
    IpmValue message =
        archivedMessage(kVLMessageTypeTestCaseRequest, kVLMessageKeyTestCase, Value(object));
    IpmDictionary withUUID = *message.asDictionary();
    withUUID.set(kVLMessageKeyUUID, IpmValue::ofString(uuid));
    Error error;
    auto reply = sendMessage(IpmValue::ofDictionary(std::move(withUUID)), kNoTimeout, &error);
    return std::make_pair(reply, error);
  };
  const char* kUUID = "6F1C2A44-0000-4000-8000-00000000BEEF";
  auto [reply, error] = send("Sample Failure", kUUID);
  ASSERT_TRUE(reply) << error.description();
  const IpmValue* uuid = reply->asDictionary()->find(kVLMessageKeyUUID);
  ASSERT_TRUE(uuid && uuid->asString());
  EXPECT_EQ(*uuid->asString(), kUUID);
  const IpmValue* archived = reply->asDictionary()->find(kVLMessageKeyResult);
  ASSERT_TRUE(archived && archived->asData());
  auto result = VLConvertDataToObject(*archived->asData()).record<VLTestCaseResult>();
  ASSERT_TRUE(result);
  EXPECT_FALSE(result->didPass()) << "the bundle's failWithOption: ran";
  EXPECT_EQ(result->getFailureReason(), "Cable cut") << "with the request's options over the bundle's";

  auto [refused, refusal] = send("Sample Nothing", kUUID);
  EXPECT_FALSE(refused);
  EXPECT_EQ(refusal.localizedDescription(), "No bundle here offers a test case named Sample Nothing");
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
}
#endif

#endif

}  // namespace
}  // namespace vl::ipm
