// Lookup, execution and message routing of test cases, with a test case class compiled into this
// binary: a registered provider for the execution tests, a sandboxed bundle folder for lookup.

#include "vorlund/results/execution.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

#include "results/run_sandbox.h"
#include "support/test_support.h"
#include "vorlund/catalogue/bundle_registration.h"
#include "vorlund/catalogue/lookup.h"
#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/notification_center.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/results/issue.h"

class ExecutionProbe : public VLTestCaseClass {
 public:
  std::shared_ptr<VLTestCaseResult> runProbe(const std::shared_ptr<VLTestCaseObject>& testCase) {
    ++calls;
    return VLTestCaseResult::quickPassWithTestCaseObject(testCase);
  }
  std::shared_ptr<VLTestCaseResult> explode(const std::shared_ptr<VLTestCaseObject>&) {
    throw std::runtime_error("radio on fire");
  }
  std::shared_ptr<VLTestCaseResult> bundledProbe(
      const std::shared_ptr<VLTestCaseObject>& testCase) {
    return runProbe(testCase);
  }
  std::shared_ptr<VLTestCaseResult> giveNothing(const std::shared_ptr<VLTestCaseObject>&) {
    return nullptr;
  }
  // How many probes ran in this process.
  static inline std::atomic<int> calls{0};
};

VORLUND_BUNDLE_CLASS(ExecutionProbe);
VORLUND_TEST_METHOD(ExecutionProbe, runProbe);
VORLUND_TEST_METHOD(ExecutionProbe, explode);
VORLUND_TEST_METHOD(ExecutionProbe, giveNothing);
VORLUND_TEST_METHOD(ExecutionProbe, bundledProbe);

namespace vl {
namespace {

using test::RunSandbox;

constexpr const char* kProviderPath = "/probe/ExecutionProbe.bundle";

std::shared_ptr<VLTestCaseObject> testCase(const std::string& name, const std::string& selector) {
  auto object = VLTestCaseObject::make();
  object->setName(name);
  object->setSelector(selector);
  object->setType("PassFail");
  object->setTechnology("WiFi");
  return object;
}

bool hasIssue(const std::shared_ptr<VLResults>& results, const std::string& reason) {
  for (const auto& issue : results->issueList()) {
    if (issue->reason() == reason) return true;
  }
  return false;
}

class ExecutionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    registerTestCaseProvider(testCaseProviderFor<ExecutionProbe>(
        kProviderPath, "ExecutionProbe",
        {"Probe Pass", "Probe Other", "Probe Explode", "Probe Nothing", "Probe Unimplemented"},
        {"runProbe", "explode:", "giveNothing", "missingMethod:"}));
    ExecutionProbe::calls = 0;
  }
  void TearDown() override { removeTestCaseProvider(kProviderPath); }

  test::ScopedEnv forge_{"__FORGE_BUILT_PRODUCTS_DIR_PATHS", std::nullopt};
  RunSandbox run_;
  process::ScopedName host_{"Vorlund"};
};

TEST_F(ExecutionTest, TestCasesThatCannotRunGiveNoOpResultsAndIssues) {
  LogCapture capture;

  auto unimplemented = testCase("Probe Unimplemented", "missingMethod:");
  auto nil = VLExecuteTestCase(std::shared_ptr<VLTestCaseObject>());
  EXPECT_TRUE(nil && nil->isNoOp());
  for (const Value& request :
       {Value("Probe Pass"), Value(testCase("Probe Nowhere", "noSuchSelector")),
        Value(unimplemented)}) {
    auto noOp = VLExecuteTestCase(request);
    EXPECT_TRUE(noOp && noOp->isNoOp()) << request.description();
  }
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Default", "Unable to perform a nil test case"));
  EXPECT_EQ(test::linesStartingWith(
                capture, VLLogLevelError, "Default",
                "Recevied a test case object that was of the wrong type (NSString)...")
                .size(),
            1u);
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Default",
                               "Unable to execute Probe Nowhere, no object found"));
  EXPECT_TRUE(
      hasIssue(run_.results(), "Probe Nowhere requested but not implemented in any bundles"));
  EXPECT_TRUE(hasIssue(run_.results(),
                       "Action Required - ExecutionProbe declared but didnt implement "
                       "missingMethod:"));
  auto implementer = VLGetClassForTestCase(unimplemented);
  EXPECT_TRUE(capture.contains(
      VLLogLevelError, "Default",
      format("%@ declared support for %@, but it does not have an implementation!!!",
             Value(implementer), Value(unimplemented))));
  EXPECT_EQ(ExecutionProbe::calls, 0);
}

TEST_F(ExecutionTest, AThrowingOrSilentTestMethodGivesAFailedResult) {
  auto thrown = VLExecuteTestCase(testCase("Probe Explode", "explode"));
  ASSERT_TRUE(thrown && thrown->didFail());
  EXPECT_EQ(thrown->getFailureReason(), "explode: threw an exception: radio on fire");
  auto silent = VLExecuteTestCase(testCase("Probe Nothing", "giveNothing:"));
  ASSERT_TRUE(silent && silent->didFail());
  EXPECT_EQ(silent->getFailureReason(), "giveNothing: returned no result");
}

TEST_F(ExecutionTest, OutsideTheHostProcessesTheServiceExecutorRunsIt) {
  process::ScopedName client("vorlundctl");
  EXPECT_FALSE(isTestHostProcess());
  Error error;
  // This binary carries no stress service client, so the exchange fails with an error.
  EXPECT_EQ(VLExecuteTestCase(testCase("Probe Pass", "runProbe"), &error), nullptr);
  EXPECT_EQ(error.localizedDescription(), "the stress service cannot be reached from this program");

  // An installed executor's answer, result or error, is the caller's.
  std::vector<std::string> sent;
  auto remote = VLTestCaseResult::withName("Probe Pass");
  setServiceExecutor([&](const std::shared_ptr<VLTestCaseObject>& object, Error* failure) {
    sent.push_back(object->name().value_or(""));
    if (sent.size() == 1) return remote;
    *failure = Error::withDescription("test", 7, "the service went away");
    return std::shared_ptr<VLTestCaseResult>();
  });
  EXPECT_EQ(VLExecuteTestCase(testCase("Probe Pass", "runProbe"), &error), remote);
  EXPECT_EQ(VLExecuteTestCase(testCase("Probe Pass", "runProbe"), &error), nullptr);
  EXPECT_EQ(error.localizedDescription(), "the service went away");
  setServiceExecutor({});
  EXPECT_EQ(sent, (std::vector<std::string>{"Probe Pass", "Probe Pass"}));
  EXPECT_EQ(ExecutionProbe::calls, 0) << "nothing ran in this process";
}

// Routing of incoming messages.

TEST_F(ExecutionTest, AReplyGoesToTheObjectWaitingForItsUUID) {
  auto idle = VLTestCaseClass::make<ExecutionProbe>();
  auto waiting = VLTestCaseClass::make<ExecutionProbe>();
  const std::string uuid = Uuid::randomString();
  waiting->setPendingMessageIDs(Array{Value(uuid)});
  addRemoteExecutionObject(idle);
  addRemoteExecutionObject(waiting);

  std::atomic<bool> woken = false;
  std::thread waiter([&] {
    auto condition = waiting->lock();
    std::unique_lock lock(*condition);
    Date limit{Date::now().secondsSince1970 + 10};
    while (waiting->responses().empty()) {
      if (!condition->waitUntil(limit)) return;
    }
    woken = true;
  });
  Dictionary reply{{"UUID", uuid}, {"MessageType", "ManagerCommandResult"}, {"Answer", 42}};
  LogCapture capture;
  VLFindObjectForMessage(reply);
  waiter.join();

  EXPECT_TRUE(woken);
  EXPECT_EQ(waiting->responses(), Array{Value(reply)});
  EXPECT_TRUE(idle->responses().empty());
  // A reply for a waiting object is not also posted as a manager command result.
  EXPECT_EQ(capture.count("Got manager command result! " + reply.description()), 0u);
  removeRemoteExecutionObject(idle.get());
  removeRemoteExecutionObject(waiting.get());
}

TEST_F(ExecutionTest, UnclaimedMessagesAreRoutedByType) {
  LogCapture capture;
  const std::string uuid = Uuid::randomString();
  const std::string name = "com.brindle.vorlund.ManagerCommandResult." + uuid;
  std::vector<Notification> posted;
  auto& center = NotificationCenter::defaultCenter();
  auto token = center.addObserver(name, [&](const Notification& n) { posted.push_back(n); });
  Dictionary command{{"UUID", uuid}, {"MessageType", "ManagerCommandResult"}};
  VLFindObjectForMessage(command);
  center.removeObserver(token);
  ASSERT_EQ(posted.size(), 1u);
  EXPECT_EQ(posted[0].userInfo, command);
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "VLCore",
                               "Sending Manager Command with Notification Name! " + name));

  auto result = VLTestCaseResult::quickPassWithTestCaseObject(testCase("Probe Routed", "runProbe"));
  std::optional<Data> archived = VLConvertObjectToData(Value(result));
  ASSERT_TRUE(archived);
  VLFindObjectForMessage(Dictionary{
      {"UUID", Uuid::randomString()}, {"MessageType", "TestCaseResult"}, {"Result", *archived}});
  EXPECT_TRUE(run_.results()->statisticForName("Probe Routed"));

  const std::string lost = Uuid::randomString();
  VLFindObjectForMessage(Dictionary{{"UUID", lost}, {"MessageType", "Gossip"}});
  EXPECT_TRUE(capture.contains(
      VLLogLevelError, "Framework",
      "No object was waiting for " + lost + ", must've timed out.  Message is being dropped"));
}

// Lookup through a bundle folder in the sandbox's bundle directory. The bundle's code is this
// binary's ExecutionProbe; its "Executable" is a shared library already in the process.

std::string sharedLibraryInProcess() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&sqlite3_libversion), &info) == 0 || !info.dli_fname) {
    return "";
  }
  return info.dli_fname;
}

class LookupTest : public ExecutionTest {
 protected:
  void SetUp() override {
    ExecutionTest::SetUp();
    std::string library = sharedLibraryInProcess();
    ASSERT_NE(library.find(".so"), std::string::npos) << library;
    bundlePath_ = paths::resolve("/BrindleInternal/Library/Bundles/Stress") + "/Lookup.bundle";
    std::filesystem::create_directories(bundlePath_);
    std::filesystem::create_symlink(library, bundlePath_ + "/Lookup.so");
    Dictionary lookup{{"Name", "Probe Lookup"},
                      {"Selector", "runProbe"},
                      {"Technology", "WiFi"},
                      {"Type", "PassFail"},
                      {"Environments", Array{"Bundle Default"}},
                      {"Options", Dictionary{{"Count", 1}, {"Mode", "a"}, {"Host", "x"}}}};
    Dictionary bundledOnly{{"Name", "Probe Bundled Only"}, {"Selector", "bundledProbe"}};
    Dictionary info{
        {"Executable", "Lookup.so"},
        {"Principal Class", "ExecutionProbe"},
        {"Supported Test Cases",
         Dictionary{{"first", "not a dictionary"}, {"second", lookup}, {"third", bundledOnly}}}};
    ASSERT_TRUE(plist::writeFile(Value(info), bundlePath_ + "/Info.plist"));
  }
  void TearDown() override {
    removeTestCaseProvider(bundlePath_);
    ExecutionTest::TearDown();
  }

  std::string bundlePath_;
};

TEST_F(LookupTest, PreferencesReplaceDeclaredOptionsAndNeverAddOnes) {
  run_.setPreference("Count", 5);
  run_.setPreference("Unrelated", "y");
  run_.setPreference("Host", "from preferences");
  std::string overlay = paths::expandTilde(kVLOptionPreferencesPath);
  std::filesystem::create_directories(std::filesystem::path(overlay).parent_path());
  ASSERT_TRUE(plist::writeFile(Value(Dictionary{{"Count", 7}, {"Mode", "b"}}), overlay));

  LogCapture capture;
  auto object = VLGetObjectForTestCase("Probe Lookup");
  ASSERT_TRUE(object);
  EXPECT_EQ(test::linesStartingWith(capture, VLLogLevelDebug, "Framework",
                                    "Default Environments for Probe Lookup...")
                .size(),
            1u);
  EXPECT_EQ(object->options(),
            (Dictionary{{"Count", 7}, {"Mode", "b"}, {"Host", "from preferences"}}));
  // Without "Environments" in the preferences the bundle's own list stays.
  EXPECT_EQ(object->environments(), Array{"Bundle Default"});

  EXPECT_EQ(VLGetObjectForTestCase(""), nullptr);
}

TEST_F(LookupTest, EnvironmentsAreRecomputedFromTheConfiguration) {
  run_.setPreference(
      "Environments",
      Dictionary{
          {"Night", Array{"Probe Lookup", "Probe Lookup"}},
          {"Day", Dictionary{{"TestCaseArray", Array{Dictionary{{"Name", "Probe Lookup"}}}}}},
          {"Idle", Array{"Something Else"}}});
  auto object = VLGetObjectForTestCase("Probe Lookup");
  ASSERT_TRUE(object && object->environments());
  std::vector<Value> environments(object->environments()->begin(), object->environments()->end());
  std::sort(environments.begin(), environments.end(),
            [](const Value& a, const Value& b) { return a.stringOr("") < b.stringOr(""); });
  EXPECT_EQ(Array(environments), (Array{"Day", "Night"}));

  auto other = testCase("Probe Elsewhere", "runProbe");
  other->setEnvironments(Array{"Kept"});
  VLAdjustTestCaseEnvironments(other, Dictionary{{"StressType", "wifi"}});
  EXPECT_EQ(other->environments(), Array{"Kept"});
  VLAdjustTestCaseEnvironments(other, VLGetPreferences());
  EXPECT_EQ(other->environments(), Array());
}

TEST_F(LookupTest, AdHocTestCasesNeedEveryMandatoryField) {
  LogCapture capture;
  Dictionary nameless{{"Selector", "runProbe"}};
  EXPECT_EQ(VLGetObjectForDictionary(nameless), nullptr);
  EXPECT_TRUE(
      capture.contains(VLLogLevelError, "Framework",
                       "No name defined in test case dictionary: " + nameless.description()));

  const Dictionary complete{{"Name", "Ad Hoc"},
                            {"Selector", "runProbe"},
                            {"Technology", "WiFi"},
                            {"Type", "PassFail"},
                            {"Options", Dictionary{{"Count", 3}}}};
  // A selector that no bundle lists fails even with "Technology" and "Type".
  Dictionary unlisted = complete;
  unlisted.set("Selector", "unlisted");
  EXPECT_EQ(VLGetObjectForDictionary(unlisted), nullptr);
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "No bundle found which list selector 'unlisted' as a viable test "
                               "case"));
  for (const char* missing : {"Selector", "Technology", "Type"}) {
    Dictionary request = complete;
    request.erase(missing);
    EXPECT_EQ(VLGetObjectForDictionary(request), nullptr) << missing;
    EXPECT_TRUE(
        capture.contains(VLLogLevelError, "Framework",
                         format("Mandatory field (%@) missing from ad hoc test case definition: %@",
                                missing, request)))
        << missing;
  }
  auto adHoc = VLGetObjectForDictionary(complete);
  ASSERT_TRUE(adHoc);
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "Could not find predefined test case for 'Ad Hoc'. Ad hoc test case "
                               "will be built from dictionary."));
  EXPECT_EQ(adHoc->options(), (Dictionary{{"Count", 3}}));
  // An ad hoc test case runs on the class of the bundle that lists its selector.
  auto result = VLExecuteTestCase(adHoc);
  EXPECT_TRUE(result && result->didPass());
}

}  // namespace
}  // namespace vl
