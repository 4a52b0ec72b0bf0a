// Manager commands, remote test cases and host commands against a real loopback gateway that
// decodes each frame and answers through the message router, as the bridge does: envelopes,
// outcomes, the renewed and single deadlines, the time-out check and its statistics.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <utility>

#include "catalogue/value_printers.h"
#include "support/test_support.h"
#include "vorlund/catalogue/test_case_class.h"
#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/hostlink/manager_commands.h"
#include "vorlund/hostlink/remote_execution.h"
#include "vorlund/hostlink/socket_server.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/results/execution.h"
#include "vorlund/results/issue_reporting.h"

namespace {

using vl::Array;
using vl::Dictionary;
using vl::Value;

constexpr const char* kSerialNumber = "SN-LOOPBACK-1";
constexpr const char* kMachineId = "0f1e2d3c4b5a69788796a5b4c3d2e1f0";
constexpr int64_t kTechnology = 4;

// Reads each connection's frame, records the envelope and hands it to answer on the server's
// thread. Announced to the library through $VORLUND_GATEWAY_PORT.
class LoopbackGateway {
 public:
  explicit LoopbackGateway(std::function<void(const Dictionary&)> answer = {})
      : answer_(std::move(answer)),
        server_(0, false,
                [this](int fd) {
                  std::optional<vl::Data> frame = VLReadDataFromSocket(fd, 10);
                  ::close(fd);
                  const Value decoded = frame ? VLConvertDataToObject(*frame) : Value();
                  if (!decoded.asDictionary()) return;
                  {
                    std::lock_guard lock(mutex_);
                    envelopes_.push_back(*decoded.asDictionary());
                  }
                  if (answer_) answer_(*decoded.asDictionary());
                }),
        port_("VORLUND_GATEWAY_PORT", std::to_string(server_.port())) {}

  size_t count() const {
    std::lock_guard lock(mutex_);
    return envelopes_.size();
  }
  // The n-th envelope (from 1), waiting for it up to 10 s (real time); empty when none came.
  Dictionary envelope(size_t n) const {
    for (int i = 0; i < 5000 && count() < n; ++i) ::usleep(2000);
    std::lock_guard lock(mutex_);
    return envelopes_.size() >= n ? envelopes_[n - 1] : Dictionary();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Dictionary> envelopes_;
  std::function<void(const Dictionary&)> answer_;
  vl::ServerThread server_;  // after what its handler uses, so that it stops first
  vl::test::ScopedEnv port_;
};

// The reply-owner role on its own, outside the test case classes.
class PlainOwner : public VLPendingReplyOwner {
 public:
  std::shared_ptr<vl::Condition> lock() const override { return lock_; }
  Array pendingMessageIDs() const override { return copy(pending_); }
  Array responses() const override { return copy(responses_); }
  void updatePendingMessageIDs(const std::function<void(Array&)>& change) override {
    std::lock_guard guard(mutex_);
    change(pending_);
  }
  void updateResponses(const std::function<void(Array&)>& change) override {
    std::lock_guard guard(mutex_);
    change(responses_);
  }

 private:
  Array copy(const Array& array) const {
    std::lock_guard guard(mutex_);
    return array;
  }
  mutable std::mutex mutex_;
  Array pending_, responses_;
  std::shared_ptr<vl::Condition> lock_ = std::make_shared<vl::Condition>();
};

class TechnologyOwner : public VLTestCaseClass {
 public:
  TechnologyOwner() { setTechnology(kTechnology); }
};

// Reaches into the window between a wait's time-out and its check: atSecondUpdate runs before the
// second change of pendingMessageIDs once set, which for an unanswered request is the check's (the
// first listed the UUID).
template <typename Owner>
class Hooked : public Owner {
 public:
  void updatePendingMessageIDs(const std::function<void(Array&)>& change) override {
    if (atSecondUpdate && ++updates == 2) atSecondUpdate();
    Owner::updatePendingMessageIDs(change);
  }
  std::function<void()> atSecondUpdate;
  int updates = 0;
};

// A sandboxed device with known identities, time 100 times faster, and the statistics the library
// records collected here.
class RemoteRequestTest : public ::testing::Test {
 protected:
  RemoteRequestTest() {
    vl::test::writeFile(sandbox_.root() + "/etc/machine-id", std::string(kMachineId) + "\n");
    vl::setIssueRecorder([this](const std::shared_ptr<VLIssue>& issue) {
      std::lock_guard lock(mutex_);
      statistics_.push_back(issue->reason().value_or(""));
    });
  }
  ~RemoteRequestTest() override {
    vl::setIssueRecorder({});
    for (const auto& owner : owners_) vl::removeRemoteExecutionObject(owner.get());
  }
  // An owner that leaves the loaded remote-execution objects with the test.
  template <typename T>
  std::shared_ptr<T> owner(std::shared_ptr<T> made) {
    owners_.push_back(made);
    return made;
  }
  std::vector<std::string> takeStatistics() {
    std::lock_guard lock(mutex_);
    return std::exchange(statistics_, {});
  }

  vl::test::Sandbox sandbox_;
  vl::test::ScopedEnv serial_{"VORLUND_SERIAL_NUMBER", kSerialNumber};
  vl::time::ScopedScale fast_{0.01};

 private:
  std::mutex mutex_;
  std::vector<std::string> statistics_;
  std::vector<std::shared_ptr<VLPendingReplyOwner>> owners_;
};

Dictionary managerReply(const Value& uuid, Value answer) {
  return {
      {"UUID", uuid}, {"MessageType", "ManagerCommandResult"}, {"ManagerCommandResult", answer}};
}

// The command a manager envelope carries, the rest of the envelope checked on the way.
Dictionary sentCommand(const Dictionary& envelope) {
  const std::string uuid = envelope.get("UUID").stringOr("");
  EXPECT_EQ(envelope, Dictionary({{"MessageType", "ManagerCommandRequest"},
                                  {"UUID", uuid},
                                  {"RequestingDevice", kSerialNumber},
                                  {"command", envelope.get("command")},
                                  {"destination", "manager"}}));
  EXPECT_EQ(vl::Uuid::fromString(uuid).value_or(vl::Uuid()).string(), uuid) << "upper-case";
  const std::string json = envelope.get("command").stringOr("");
  EXPECT_NE(json.find("\n  \"UDID\": \"" + std::string(kMachineId)), std::string::npos) << json;
  Value command = vl::json::parse(json).value_or(Value());
  return command.asDictionary() ? *command.asDictionary() : Dictionary();
}

TEST_F(RemoteRequestTest, EveryManagerCommandSendsItsDictionary) {
  auto sends = [](std::function<void()> call) {
    return [call] {
      call();
      return std::optional<Dictionary>();
    };
  };
  const Value wifi(Array{Value("wifi")}), t1("T-1"), rack(Dictionary{{"rack", 4}});
  const struct {
    std::function<std::optional<Dictionary>()> call;  // none for the commands without a result
    Dictionary command;
  } cases[] = {
      {sends([&] { VLManagerSetCharacteristics(wifi, 17e8); }),
       {{"SetCharacteristics", wifi}, {"ts", 17e8}}},
      {sends([&] { VLManagerAddCharacteristic(wifi); }), {{"AddCharacteristic", wifi}}},
      {sends([&] { VLManagerAddCharacteristicWithTimeout(wifi, 30); }),
       {{"AddCharacteristic", wifi}, {"timeout", 30}}},
      {sends([&] { VLManagerAddCharacteristicForUUID(t1, wifi); }),
       {{"AddCharacteristic", wifi}, {"target", t1}}},
      {sends([&] { VLManagerAddCharacteristicForUUIDWithTimeout(t1, wifi, 30); }),
       {{"AddCharacteristic", wifi}, {"target", t1}, {"timeout", 30}}},
      {sends([&] { VLManagerRemoveCharacteristic(wifi); }), {{"RemoveCharacteristic", wifi}}},
      {sends([&] { VLManagerRemoveCharacteristicForUUID(t1, wifi); }),
       {{"RemoveCharacteristic", wifi}, {"target", t1}}},
      {sends([&] { VLManagerSetAttribute("rack", 4); }),
       {{"SetAttribute", Dictionary{{"name", "rack"}, {"value", 4}}}}},
      {[&] { return VLManagerFindDevicesWith(wifi); },
       {{"FindDevices", Dictionary{{"characteristics", wifi}}}}},
      {[&] { return VLManagerFindDevicesWithout(wifi); },
       {{"FindDevicesWithout", Dictionary{{"characteristics", wifi}}}}},
      {[&] { return VLManagerFindDevicesWithAttribute(rack); },
       {{"FindDevicesWithAttributes", Dictionary{{"attributes", rack}}}}},
  };
  LoopbackGateway gateway;
  size_t sent = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command.keys()[0] + " #" + std::to_string(sent + 1));
    std::optional<Dictionary> returned = c.call();
    Dictionary envelope = gateway.envelope(++sent);
    Dictionary expected = c.command;
    expected.set("UDID", kMachineId);
    EXPECT_EQ(sentCommand(envelope), expected);
    // The finds return what they sent, which is how their callers learn the UUID to listen for.
    if (c.command.keys()[0].starts_with("Find")) {
      EXPECT_EQ(returned, envelope);
    }
  }
  // What JSON cannot hold is refused before anything is sent.
  std::optional<Dictionary> refused = VLManagerCommand(nullptr, {{"ts", vl::Date::now()}});
  EXPECT_TRUE(
      refused && refused->keys() == std::vector<std::string>{"error"} &&
      refused->get("error").stringOr("").starts_with("Problem encountered generating report: "));
  VLManagerAddCharacteristic(wifi);
  EXPECT_EQ(sentCommand(gateway.envelope(sent + 1)).get("AddCharacteristic"), wifi);
  EXPECT_EQ(gateway.count(), sent + 1);
}

TEST_F(RemoteRequestTest, RunTestCaseTakesItsReplyOrTimesOutLeavingNothingBehind) {
  enum class AtTimeout { Nothing, Reply, UuidTaken };
  // A 30 s wait is 0.9 s here: margin enough for the renewed wait on a busy machine.
  vl::time::ScopedScale scale(0.03);
  const Dictionary answer{{"Device", "SN-2"}, {"Result", vl::Data::fromString("archived")}};
  const Dictionary options{{"peer", "SN-2"}};
  const std::string timedOut =
      "Timed out waiting for ManagerCommand to finish.  Waited 30.000000 seconds";
  const struct {
    const char* name;
    std::vector<std::pair<double, bool>> replies;  // after nominal seconds, for this request
    AtTimeout atTimeout;
    bool answered;
    std::vector<std::string> statistics, lines;  // "%@": the request's UUID, then the reply
  } cases[] = {
      {"reply", {{0, true}}, AtTimeout::Nothing, true, {}, {"Received a response to %@"}},
      // The right reply comes 40 s after the request: only a renewed wait still takes it.
      {"another request's reply renews the wait",
       {{20, false}, {20, true}},
       AtTimeout::Nothing,
       true,
       {},
       {"Received a response, but it was not %@", "Received a response to %@"}},
      {"no reply", {}, AtTimeout::Nothing, false, {}, {timedOut}},
      {"reply at the time-out",
       {},
       AtTimeout::Reply,
       true,
       {"Found response in timeout check"},
       {"Received a response to %@ : %@"}},
      {"UUID taken by someone else",
       {},
       AtTimeout::UuidTaken,
       false,
       {"Reached ManagerCommand timeout without the uuid in the pending uuid list"},
       {timedOut}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto holder = owner(VLTestCaseClass::make<Hooked<VLTestCaseClass>>());
    const std::string other = vl::Uuid::randomString();
    holder->updatePendingMessageIDs([&](Array& pending) { pending.push_back(Value(other)); });
    LoopbackGateway gateway([&](const Dictionary& envelope) {
      auto listed = vl::loadedRemoteExecutionObjects();
      EXPECT_NE(std::find(listed.begin(), listed.end(), holder), listed.end())
          << "listed before sending, or a quick reply would be dropped";
      for (const auto& [afterSeconds, forThis] : c.replies) {
        vl::time::sleepFor(afterSeconds);
        VLFindObjectForMessage(managerReply(forThis ? envelope.get("UUID") : other, answer));
      }
    });
    holder->atSecondUpdate = [&] {
      const Value uuid = gateway.envelope(1).get("UUID");
      if (c.atTimeout == AtTimeout::Reply) VLFindObjectForMessage(managerReply(uuid, answer));
      if (c.atTimeout == AtTimeout::UuidTaken) {
        // [other, this request's UUID]
        holder->VLTestCaseClass::updatePendingMessageIDs([&](Array& pending) { pending.erase(1); });
      }
    };
    vl::LogCapture capture;

    std::optional<Dictionary> result = VLManagerRunTestCase(holder, "RemoteEcho", options, "wifi");

    EXPECT_EQ(result, c.answered ? std::optional(Dictionary{{"Result", answer}}) : std::nullopt);
    EXPECT_EQ(takeStatistics(), c.statistics);
    const Value uuid = gateway.envelope(1).get("UUID");
    for (const std::string& line : c.lines) {
      EXPECT_EQ(capture.count(vl::format(line, uuid, managerReply(uuid, answer))), 1u) << line;
    }
    EXPECT_EQ(holder->pendingMessageIDs(), Array{Value(other)}) << "only the other request's";
    for (const Value& response : holder->responses()) {
      EXPECT_EQ(response.asDictionary()->get("UUID"), Value(other));
    }
    Dictionary run = *sentCommand(gateway.envelope(1)).get("RunTestCase").asDictionary();
    EXPECT_EQ(run.get("Name"), Value("RemoteEcho"));
    Dictionary sentOptions = *run.get("Options").asDictionary();
    EXPECT_TRUE(vl::Uuid::fromString(sentOptions.get("commandId").stringOr("")));
    sentOptions.erase("commandId");
    EXPECT_EQ(sentOptions, options) << "the caller's options stay as they were";
  }
}

// The remote side: a passed result named after the request's test case.
Dictionary testCaseReply(const Dictionary& envelope) {
  auto sent = VLConvertDataToObject(envelope.get("TestCase").asData()).record<VLTestCaseObject>();
  auto result = VLTestCaseResult::withName(sent ? *sent->name() + " on peer" : "?");
  result->pass();
  return {{"UUID", envelope.get("UUID")}, {"Result", *VLConvertObjectToData(Value(result))}};
}

std::shared_ptr<VLTestCaseObject> remoteEcho(double timeout) {
  auto testCase = VLTestCaseObject::make();
  testCase->setName("RemoteEcho");
  testCase->setType("PassFail");
  testCase->setOptions(Dictionary{{"payload", "ping"}});
  testCase->setTimeout(timeout);
  testCase->setDestinationClass("device");
  testCase->setDestinationIdentifier("SN-PEER-2");
  return testCase;
}

TEST_F(RemoteRequestTest, ARemoteTestCaseReturnsTheRemoteResultOrFailsOnItsDeadline) {
  enum class Reply { Late, None, AtTimeout, Unreadable };
  const struct {
    const char* name;
    double timeout;
    Reply reply;
    std::vector<std::string> statistics;
  } cases[] = {
      {"no time limit: a reply 60 s later", -1, Reply::Late, {}},
      {"no reply", 5, Reply::None, {}},
      {"reply at the time-out", 5, Reply::AtTimeout, {"Found response in timeout check"}},
      // Taken, its UUID dropped, but no result: the check finds neither.
      {"reply that is not a result",
       5,
       Reply::Unreadable,
       {"Reached ExecuteRemoteTestCase timeout without the uuid in the pending uuid list"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto holder = owner(VLTestCaseClass::make<Hooked<TechnologyOwner>>());
    LoopbackGateway gateway([&](const Dictionary& envelope) {
      vl::time::sleepFor(c.reply == Reply::Late ? 60 : 0);
      if (c.reply == Reply::Late) VLFindObjectForMessage(testCaseReply(envelope));
      if (c.reply == Reply::Unreadable) {
        VLFindObjectForMessage({{"UUID", envelope.get("UUID")}, {"Result", vl::Data()}});
      }
    });
    holder->atSecondUpdate = [&] {
      if (c.reply == Reply::AtTimeout) VLFindObjectForMessage(testCaseReply(gateway.envelope(1)));
    };
    auto testCase = remoteEcho(c.timeout);
    vl::LogCapture capture;

    std::shared_ptr<VLTestCaseResult> result = VLExecuteRemoteTestCase(holder, testCase);

    EXPECT_EQ(takeStatistics(), c.statistics);
    const bool remote = c.reply == Reply::Late || c.reply == Reply::AtTimeout;
    EXPECT_EQ(result->name(), remote ? "RemoteEcho on peer" : "RemoteEcho");
    if (!remote) {
      EXPECT_EQ(result->getFailureReason(), "5.000000 second timer expired");
      EXPECT_EQ(result->type(), "PassFail");
      EXPECT_EQ(result->technologiesInvolved(), kTechnology);
      EXPECT_LE(result->getStartTime().value(), result->getEndTime().value());
      EXPECT_TRUE(
          capture.contains(VLLogLevelError, "Default",
                           "Timed out waiting for RemoteEcho to finish.  Waited 5.000000 seconds"));
    }
    // The device travels in the options, on the caller's object too.
    const Dictionary withDevice{{"payload", "ping"}, {"RequestingDevice", kSerialNumber}};
    EXPECT_EQ(testCase->options(), withDevice);
    const Dictionary envelope = gateway.envelope(1);
    auto sent = VLConvertDataToObject(envelope.get("TestCase").asData()).record<VLTestCaseObject>();
    EXPECT_EQ(sent ? sent->options() : std::nullopt, withDevice);
    EXPECT_EQ(envelope, Dictionary({{"MessageType", "TestCaseRequest"},
                                    {"UUID", envelope.get("UUID")},
                                    {"TestCase", envelope.get("TestCase")},
                                    {"RequestingDevice", kSerialNumber},
                                    {"destination", "device"},
                                    {"identifier", "SN-PEER-2"}}));
    EXPECT_TRUE(holder->pendingMessageIDs().empty());
    EXPECT_TRUE(holder->responses().empty());
  }
}

TEST_F(RemoteRequestTest, AHostCommandIsJudgedByItsReply) {
  const std::string expired = "2.000000 second timer expired";
  const std::string lostUuid =
      "Reached ExecuteRemoteTestCase timeout without the uuid in the pending uuid list";
  const struct {
    const char* name;
    std::optional<Dictionary> reply;  // without its UUID
    bool atTimeout;
    double timeout;
    std::optional<std::string> outcome;
    std::vector<std::string> statistics;
  } cases[] = {
      {"succeeded wins over an error",
       Dictionary{{"succeeded", true}, {"error", "x"}},
       false,
       2,
       "Success!",
       {}},
      {"failed with a reason",
       Dictionary{{"succeeded", false}, {"error", "disk full"}},
       false,
       2,
       "disk full",
       {}},
      // Taken and its UUID dropped, yet judged as no reply.
      {"failed without a reason", Dictionary{{"succeeded", false}}, false, 2, expired, {lostUuid}},
      {"no reply", std::nullopt, false, 2, expired, {}},
      {"reply at the time-out",
       Dictionary{{"succeeded", true}},
       true,
       2,
       "Success!",
       {"Found response in timeout check"}},
      {"time-out 0: sent, not awaited",
       Dictionary{{"succeeded", true}},
       false,
       0,
       std::nullopt,
       {}},
  };
  const Value command(Dictionary{{"reboot", "peer"}});
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto holder = owner(std::make_shared<Hooked<PlainOwner>>());
    auto replyTo = [&](const Dictionary& envelope) {
      Dictionary reply = *c.reply;
      reply.set("UUID", envelope.get("UUID"));
      VLFindObjectForMessage(reply);
    };
    LoopbackGateway gateway([&](const Dictionary& envelope) {
      if (c.reply && !c.atTimeout && c.timeout != 0) replyTo(envelope);
    });
    holder->atSecondUpdate = [&] {
      if (c.atTimeout) replyTo(gateway.envelope(1));
    };
    vl::LogCapture capture;

    EXPECT_EQ(VLExecuteKingCommandOnHost(holder, 7, command, c.timeout), c.outcome);

    EXPECT_EQ(takeStatistics(), c.statistics);
    const Dictionary envelope = gateway.envelope(1);
    EXPECT_EQ(envelope, Dictionary({{"UUID", envelope.get("UUID")},
                                    {"request", 7},
                                    {"command", command},
                                    {"RequestingDevice", kSerialNumber},
                                    {"destination", "service"},
                                    {"identifier", "com.brindle.Vorlund.king"}}));
    EXPECT_TRUE(capture.contains(VLLogLevelNotice, "Default",
                                 vl::format("Adding a pending message with UUID %@ to %@",
                                            envelope.get("UUID"), holder->description())));
    if (c.timeout == 0) {
      EXPECT_TRUE(
          capture.contains(VLLogLevelNotice, "Default", "No timeout requested for king request"));
    } else if (c.reply) {
      // The router lists the owners it looks through, a plain owner by its own description.
      auto lines = capture.lines();
      EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const vl::CapturedLine& line) {
        return line.level == VLLogLevelDebug && line.category == "Framework" &&
               line.message.starts_with("Currently loaded classes are (") &&
               line.message.find(holder->description()) != std::string::npos;
      }));
    }
    if (c.outcome == expired) {
      EXPECT_TRUE(
          capture.contains(VLLogLevelError, "Default",
                           "Timed out waiting for king to finish.  Waited 2.000000 seconds"));
    }
  }
}

TEST_F(RemoteRequestTest, EveryCallReportsAGatewayThatIsNotThere) {
  const int port = vl::ServerThread(0, false, [](int fd) { ::close(fd); }).port();
  vl::test::ScopedEnv gatewayPort("VORLUND_GATEWAY_PORT", std::to_string(port));
  auto holder = owner(VLTestCaseClass::make<TechnologyOwner>());
  vl::LogCapture capture;

  EXPECT_EQ(VLManagerCommandString(nullptr, "{}"), std::nullopt);
  EXPECT_EQ(VLManagerRunTestCase(holder, "RemoteEcho", {}, Value()), std::nullopt);
  EXPECT_EQ(capture.find("Cannot get gateway socket").size(), 2u);
  EXPECT_TRUE(capture.contains(VLLogLevelError, "VLCore", "Cannot get gateway socket"));
  EXPECT_EQ(VLExecuteKingCommandOnHost(holder, 7, Value("status"), 2), "No Host Connection");
  auto testCase = remoteEcho(5);
  std::shared_ptr<VLTestCaseResult> result = VLExecuteRemoteTestCase(holder, testCase);
  EXPECT_EQ(result->getFailureReason(), "No Host Connection");
  EXPECT_EQ(result->technologiesInvolved(), kTechnology);
  EXPECT_TRUE(result->getEndTime());
  EXPECT_EQ(testCase->options(), Dictionary({{"payload", "ping"}})) << "nothing was prepared";
  EXPECT_TRUE(holder->pendingMessageIDs().empty());
}

TEST(RemoteRequestDeathTest, ARemoteTestCaseWithoutTimeOutStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto holder = VLTestCaseClass::make<TechnologyOwner>();
  EXPECT_DEATH(VLExecuteRemoteTestCase(holder, remoteEcho(0)),
               "RemoteEcho has a time-out of 0; a remote test case needs a time-out");
}

}  // namespace
