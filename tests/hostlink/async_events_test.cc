// The asynchronous event framework: answers delivered by the real message router to a waiting
// ManagerRemote, the waits that end without one, listener time-outs on their own queues, and the
// bookkeeping of the registry (sources, events notified twice, clean-up after each exchange).
#include "vorlund/hostlink/async_events.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/hostlink/manager_remote.h"
#include "vorlund/hostlink/socket_server.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/results/execution.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string kPrefix = kVLManagerCommandResultNotificationPrefix;

// Every call a handler receives, thread-safe.
struct Calls {
  struct Call {
    std::optional<vl::Dictionary> dictionary;
    std::optional<vl::Error> error;
  };
  std::vector<Call> all() const {
    std::lock_guard<std::mutex> lock(mutex);
    return calls;
  }
  AsyncHandler handler() {
    return [this](const std::optional<vl::Dictionary>& d, const std::optional<vl::Error>& e) {
      std::lock_guard<std::mutex> lock(mutex);
      calls.push_back({d, e});
    };
  }
  std::shared_ptr<const AsyncHandler> shared() {
    return std::make_shared<const AsyncHandler>(handler());
  }

  mutable std::mutex mutex;
  std::vector<Call> calls;
};

// Polls condition for up to ten real seconds.
template <typename Condition>
bool eventually(Condition condition) {
  auto deadline = Clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

bool hasPendingListener(const std::string& key) {
  auto events = AsyncEventRegistry::sharedInstance()->asyncEvents();
  auto found = events.find(key);
  return found != events.end() && !found->second->listeners().empty();
}

// The manager's answer to request uuid, as the bridge hands it to the router.
vl::Dictionary answer(const std::string& uuid,
                      const vl::Value& result = vl::Array{"SERIAL-A", "SERIAL-B"}) {
  return {
      {"MessageType", "ManagerCommandResult"}, {"UUID", uuid}, {"ManagerCommandResult", result}};
}

// The handler was called once, with dictionary (none by default) and the logged error.
void expectOneFailure(const Calls& calls, const vl::LogCapture& logs,
                      const std::string& description,
                      const std::optional<vl::Dictionary>& dictionary = std::nullopt) {
  auto all = calls.all();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].dictionary, dictionary);
  ASSERT_TRUE(all[0].error);
  EXPECT_EQ(all[0].error->domain, "ManagerRemote");
  EXPECT_EQ(all[0].error->code, -1);
  EXPECT_EQ(all[0].error->localizedDescription(), description);
  EXPECT_TRUE(logs.contains(VLLogLevelError, "ManagerRemote", description));
}

void expectRegistryEmpty() {
  const auto& registry = AsyncEventRegistry::sharedInstance();
  EXPECT_EQ(registry->eventCount(), 0);
  EXPECT_TRUE(registry->sources().empty());
}

// Every test runs in a sandbox, at a hundredth of the nominal time, with its log lines captured and
// a handler that records its calls.
class AsyncTest : public ::testing::Test {
 protected:
  vl::test::Sandbox sandbox;
  vl::time::ScopedScale fast{0.01};
  vl::LogCapture logs;
  Calls calls;
};
using ManagerRemoteTest = AsyncTest;
using AsyncListenerTest = AsyncTest;
using AsyncEventTest = AsyncTest;
using AsyncEventRegistryTest = AsyncTest;

TEST_F(ManagerRemoteTest, AnAnswerRoutedWithinTheTimeOutReachesTheHandlerOnce) {
  std::string uuid = vl::Uuid::randomString();
  std::string key = kPrefix + "." + uuid;

  // The router runs on a thread of its own, as it does when the bridge delivers a message.
  std::jthread router([&] {
    if (eventually([&] { return hasPendingListener(key); })) VLFindObjectForMessage(answer(uuid));
  });
  ManagerRemote().processAsyncRequest({{"UUID", uuid}, {"MessageType", "ManagerCommandRequest"}},
                                      30, calls.handler());
  router.join();

  auto all = calls.all();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].dictionary, answer(uuid));
  EXPECT_FALSE(all[0].error);
  EXPECT_TRUE(
      logs.contains(VLLogLevelInfo, "ManagerRemote", "Registering for event with UUID " + key));
  EXPECT_TRUE(logs.contains(VLLogLevelInfo, "AsyncManagerEventSource",
                            "Registering for events with :" + key));
  EXPECT_TRUE(logs.contains(VLLogLevelInfo, "AyncManagerEventSource",
                            "Got event " + vl::format("%@", answer(uuid))));
  EXPECT_EQ(logs.count("Removed observer"), 1u);
  expectRegistryEmpty();

  // A second answer comes after the exchange: nobody listens and the registry stays empty.
  VLFindObjectForMessage(answer(uuid));
  EXPECT_EQ(calls.all().size(), 1u);
  AsyncEventRegistry::sharedInstance()->clean();
  expectRegistryEmpty();
}

TEST_F(ManagerRemoteTest, NoAnswerEndsTheWaitAfterTheTimeOutAndGrace) {
  auto start = Clock::now();
  ManagerRemote().processAsyncRequest({{"UUID", vl::Uuid::randomString()}}, 10, calls.handler());
  auto waited = Clock::now() - start;

  EXPECT_GE(waited, vl::time::scaled(10 + vl::kManagerRemoteGraceSeconds));
  expectOneFailure(calls, logs, "Peding event never fired!");
  expectRegistryEmpty();
}

TEST_F(ManagerRemoteTest, ARequestWithoutUUIDIsHandedBackWithAnError) {
  vl::Dictionary request{{"MessageType", "ManagerCommandRequest"}};
  ManagerRemote().processAsyncRequest(request, 30, calls.handler());

  expectOneFailure(calls, logs, "Unable to parse manager result: Missing UUID?", request);
  expectRegistryEmpty();
}

// The listener's own time-out marks it done on its queue and never calls the callback, not even
// with its error; an event after that is turned away too.
TEST_F(AsyncListenerTest, ItsTimeOutEndsItSilently) {
  auto callback = calls.shared();
  auto listener = AsyncListener::withBlock(callback, 1);
  EXPECT_FALSE(listener->done());

  std::string alreadyDone =
      "Got event, But not going to notify because we are already done. " + listener->description();
  // The time-out's last line, written after done is set.
  ASSERT_TRUE(eventually([&] { return logs.count(alreadyDone) == 1; }));
  EXPECT_TRUE(listener->done());
  EXPECT_TRUE(logs.contains(VLLogLevelDebug, "AsyncListener",
                            "Timeout HAPPENING NOW " + listener->description()));
  vl::Error timeoutError = vl::Error::withDescription("com.brindle.vorlund.asynclistener", -1,
                                                      "Timeout waiting for event to fire");
  EXPECT_TRUE(logs.contains(VLLogLevelInfo, "AsyncListener",
                            vl::format("Got %@, %@", nullptr, timeoutError)));
  listener->notifyEvent(vl::Dictionary{{"late", true}}, std::nullopt);
  EXPECT_EQ(logs.count(alreadyDone), 2u);
  EXPECT_TRUE(calls.all().empty());
}

TEST_F(AsyncEventTest, ANotificationReachesEachListenerOnceAndIsCountedEveryTime) {
  Calls& first = calls;
  Calls second;
  auto firstCallback = first.shared(), secondCallback = second.shared();
  auto event = AsyncEvent::eventWithUUID("key");
  EXPECT_TRUE(event->isExpired());  // no listener has set an expiry yet
  event->addListenerWithTimeout(60, firstCallback);
  auto shorter = event->addListenerWithTimeout(30, secondCallback);
  ASSERT_TRUE(event->expires());
  EXPECT_GT(*event->expires(), shorter->expires());
  EXPECT_FALSE(event->isExpired());

  // Listeners hold their callbacks weakly: one whose owner let it go is called no more.
  Calls dropped;
  auto droppedCallback = dropped.shared();
  event->addListenerWithTimeout(60, droppedCallback);
  droppedCallback.reset();

  vl::Error error = vl::Error::withDescription("test", 3, "went wrong");
  event->notifyEvent(vl::Dictionary{{"n", 1}}, error);
  event->notifyEvent(vl::Dictionary{{"n", 2}}, std::nullopt);

  EXPECT_EQ(event->notifyCount(), 2);
  EXPECT_TRUE(event->listeners().empty());
  for (const Calls* recorded : {&first, &second}) {
    auto all = recorded->all();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].dictionary, (vl::Dictionary{{"n", 1}}));
    ASSERT_TRUE(all[0].error);
    EXPECT_EQ(all[0].error->code, 3);
  }
  EXPECT_TRUE(dropped.all().empty());
}

TEST_F(AsyncEventRegistryTest, ASourceIsTrackedOnceAndFeedsTheEventOfItsDomain) {
  auto registry = AsyncEventRegistry::make();
  auto source = AsyncSource::sourceWithDomain("domain");

  EXPECT_TRUE(registry->registerSource(source));
  EXPECT_FALSE(registry->registerSource(source));
  EXPECT_TRUE(logs.contains(VLLogLevelError, "Default",
                            "Error: Registry alreay has an entry for this source."));

  auto callback = calls.shared();
  ASSERT_TRUE(registry->registerForEventWithUUID("domain", 60, callback));
  source->send(vl::Dictionary{{"answer", 42}}, std::nullopt);
  ASSERT_EQ(calls.all().size(), 1u);
  EXPECT_EQ(calls.all()[0].dictionary, (vl::Dictionary{{"answer", 42}}));
  EXPECT_TRUE(logs.contains(
      VLLogLevelInfo, "AsyncEventRegistry",
      vl::format("Notify eventListerners for UUID domain [%@]", vl::Dictionary{{"answer", 42}})));

  EXPECT_TRUE(registry->unregiserSource(source));
  EXPECT_FALSE(registry->unregiserSource(source));
  EXPECT_TRUE(logs.contains(VLLogLevelNotice, "Default",
                            "Warn: Registry is not tracking the source provided: domain"));
}

// The registry keeps a manager source alive on its own; the source's observer does not, and
// dropping the source removes the observer.
TEST_F(AsyncEventRegistryTest, AManagerSourceLivesWhileTrackedAndStopsObservingWhenDropped) {
  auto registry = AsyncEventRegistry::make();
  std::string key = kPrefix + ".ABC";
  auto source = AsyncManagerEventSource::withUUID("ABC");
  EXPECT_EQ(source->domain(), key);
  registry->registerSource(source);
  std::weak_ptr<AsyncManagerEventSource> weakSource = source;
  source.reset();

  vl::NotificationCenter::defaultCenter().post(key, {{"n", 1}});
  ASSERT_TRUE(registry->asyncEvents().contains(key));
  auto event = registry->asyncEvents().at(key);
  EXPECT_EQ(event->notifyCount(), 1);

  registry->unregisterAllSources();
  EXPECT_TRUE(weakSource.expired());
  EXPECT_EQ(logs.count("Removed observer"), 1u);
  vl::NotificationCenter::defaultCenter().post(key, {{"n", 2}});
  EXPECT_EQ(event->notifyCount(), 1);
}

TEST_F(AsyncEventRegistryTest, CleanDropsOnlyExpiredEventsAndEmptyKeysMakeNoEvent) {
  auto registry = AsyncEventRegistry::make();
  auto callback = calls.shared();
  ASSERT_TRUE(registry->registerForEventWithUUID("pending", 600, callback));
  ASSERT_TRUE(registry->registerForEventWithUUID("short", 1, callback));
  registry->mockEventWithUUID("unheard", vl::Dictionary{}, std::nullopt);
  EXPECT_EQ(registry->eventCount(), 3);

  registry->clean();  // "unheard" never had a listener, so it has no expiry
  EXPECT_EQ(registry->eventCount(), 2);
  ASSERT_TRUE(eventually([&] { return registry->asyncEvents().at("short")->isExpired(); }));
  registry->clean();
  EXPECT_EQ(registry->eventCount(), 1);
  EXPECT_TRUE(registry->asyncEvents().contains("pending"));
  registry->unregisterForEventWithUUID("pending");
  EXPECT_EQ(registry->eventCount(), 0);
  EXPECT_TRUE(calls.all().empty());

  EXPECT_EQ(registry->eventListenerForUUID(""), nullptr);
  EXPECT_FALSE(registry->registerForEventWithUUID("", 1, callback));
  EXPECT_TRUE(logs.contains(VLLogLevelError, "Default", "Could not create an event listener for "));
}

// The gateway on this machine, played by a loopback server: it records each request and has the
// message router deliver the manager's answer under the request's UUID, as the bridge would.
class FakeGateway {
 public:
  explicit FakeGateway(vl::Value answer) : answer_(std::move(answer)) {}
  std::vector<vl::Dictionary> requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

 private:
  void serve(int fd) {
    if (fd < 0) return;
    auto data = VLReadDataFromSocket(fd, 10);
    ::close(fd);
    vl::Value message = data ? VLConvertDataToObject(*data) : vl::Value();
    const vl::Dictionary* request = message.asDictionary();
    if (!request) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(*request);
    }
    std::string uuid = vl::format("%@", request->get("UUID"));
    // A real manager answers long after the device has begun to wait; this one waits for that.
    if (eventually([&] { return hasPendingListener(kPrefix + "." + uuid); })) {
      VLFindObjectForMessage(answer(uuid, answer_));
    }
  }

  const vl::Value answer_;
  mutable std::mutex mutex_;
  std::vector<vl::Dictionary> requests_;
  vl::ServerThread server_{0, false, [this](int fd) { serve(fd); }};
  vl::test::ScopedEnv port_{"VORLUND_GATEWAY_PORT", std::to_string(server_.port())};
};

TEST_F(ManagerRemoteTest, CommandsGoThroughTheGatewayAndTheirAnswersComeBackByUUID) {
  vl::time::ScopedScale roomy(0.1);  // 3 s for the manager's answer on a busy machine
  const vl::Array serials{"SERIAL-A", "SERIAL-B"};
  const vl::Array wifi{"wifi"};
  const vl::Dictionary lab{{"lab", "B"}};
  struct Case {
    std::function<void(ManagerRemote&, const AsyncHandler&)> call;
    std::string key;
    vl::Value expected;
  } cases[] = {
      {[&](ManagerRemote& r, const AsyncHandler& h) { r.findDevicesWith(wifi, h); }, "FindDevices",
       vl::Dictionary{{"characteristics", wifi}}},
      {[&](ManagerRemote& r, const AsyncHandler& h) { r.findDevicesWithout(wifi, h); },
       "FindDevicesWithout", vl::Dictionary{{"characteristics", wifi}}},
      {[&](ManagerRemote& r, const AsyncHandler& h) { r.findDevicesWithAttributes(lab, h); },
       "FindDevicesWithAttributes", vl::Dictionary{{"attributes", lab}}},
      {[&](ManagerRemote& r, const AsyncHandler& h) { r.runCommand(lab, 30, h); }, "lab", "B"},
      {[&](ManagerRemote& r, const AsyncHandler& h) {
         r.setTestCase("Ping");
         r.setCharacteristics(wifi);
         r.run(h);
       },
       "characteristics", wifi},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    FakeGateway gateway(serials);
    Calls received;
    ManagerRemote remote;
    c.call(remote, received.handler());

    auto requests = gateway.requests();
    ASSERT_EQ(requests.size(), 1u);
    auto command = vl::json::parse(*requests[0].get("command").asString());
    ASSERT_TRUE(command && command->asDictionary());
    EXPECT_EQ(command->asDictionary()->get(c.key), c.expected);
    if (c.key == "characteristics") {
      const vl::Dictionary* runTestCase =
          command->asDictionary()->get("RunTestCase").asDictionary();
      EXPECT_EQ(runTestCase ? runTestCase->get("Name") : vl::Value(), vl::Value("Ping"));
    }
    auto all = received.all();
    ASSERT_EQ(all.size(), 1u);
    std::string uuid = *requests[0].get("UUID").asString();
    EXPECT_EQ(all[0].dictionary, answer(uuid, serials));
    EXPECT_FALSE(all[0].error);
    expectRegistryEmpty();
  }
}

TEST_F(ManagerRemoteTest, AnUnreachableGatewayFailsBothKindsOfRequestAlike) {
  vl::test::ScopedEnv port(
      "VORLUND_GATEWAY_PORT",
      std::to_string(vl::ServerThread(0, false, [](int fd) { ::close(fd); }).port()));
  ManagerRemote remote;
  remote.runCommand({{"FindDevices", vl::Dictionary{}}}, 30, calls.handler());
  expectOneFailure(calls, logs, "Did not get result for runTest");
  Calls second;
  remote.runTest("Ping", {}, vl::Value(), 30, second.handler());
  expectOneFailure(second, logs, "Did not get result for runTest");
  expectRegistryEmpty();
}

}  // namespace
