// The asynchronous event framework: answers delivered by the real message router to a waiting
// ManagerRemote, the waits that end without one, listener time-outs on their own queues, and the
// bookkeeping of the registry (sources, events notified twice, clean-up after each exchange).
#include "vorlund/hostlink/async_events.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/manager_remote.h"
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
  return {{"MessageType", "ManagerCommandResult"}, {"UUID", uuid}, {"ManagerCommandResult", result}};
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

  ASSERT_TRUE(eventually([&] { return listener->done(); }));
  EXPECT_TRUE(logs.contains(VLLogLevelDebug, "AsyncListener",
                            "Timeout HAPPENING NOW " + listener->description()));
  vl::Error timeoutError = vl::Error::withDescription("com.brindle.vorlund.asynclistener", -1,
                                                      "Timeout waiting for event to fire");
  EXPECT_TRUE(logs.contains(VLLogLevelInfo, "AsyncListener",
                            vl::format("Got %@, %@", nullptr, timeoutError)));
  listener->notifyEvent(vl::Dictionary{{"late", true}}, std::nullopt);
  EXPECT_EQ(logs.count("Got event, But not going to notify because we are already done. " +
                       listener->description()),
            2u);
  EXPECT_TRUE(calls.all().empty());
  EXPECT_TRUE(listener->isExpired());
}

// A listener holds its callback weakly: once the owner lets it go, a notification calls nothing.
TEST_F(AsyncListenerTest, HoldsItsCallbackWeakly) {
  auto callback = calls.shared();
  auto listener = AsyncListener::withBlock(callback, 60);
  EXPECT_EQ(listener->block(), callback);
  callback.reset();
  EXPECT_EQ(listener->block(), nullptr);
  listener->notifyEvent(vl::Dictionary{}, std::nullopt);
  EXPECT_TRUE(calls.all().empty());
  EXPECT_TRUE(listener->done());
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
}

TEST_F(AsyncEventRegistryTest, ASourceIsTrackedOnceAndFeedsTheEventOfItsDomain) {
  auto registry = AsyncEventRegistry::make();
  auto source = AsyncSource::sourceWithDomain("domain");

  EXPECT_TRUE(registry->registerSource(source));
  EXPECT_FALSE(registry->registerSource(source));
  EXPECT_TRUE(logs.contains(VLLogLevelError, "Default",
                            "Error: Registry alreay has an entry for this source."));
  EXPECT_EQ(source->responderCount(), 1u);

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
  registry->registerSource(AsyncSource::withDomain("other"));
  registry->unregisterAllSources();
  EXPECT_TRUE(registry->sources().empty());

  // The responder holds the registry weakly: a source outliving its registry calls nothing.
  registry.reset();
  source->send(vl::Dictionary{}, std::nullopt);
  EXPECT_EQ(calls.all().size(), 1u);
}

// The registry keeps a manager source alive on its own; the source's observer does not, and
// dropping the source removes the observer.
TEST_F(AsyncEventRegistryTest, AManagerSourceLivesWhileTrackedAndStopsObservingWhenDropped) {
  auto registry = AsyncEventRegistry::make();
  std::string key = kPrefix + ".ABC";
  auto source = AsyncManagerEventSource::withUUID("ABC");
  EXPECT_EQ(source->domain(), key);
  EXPECT_NE(source->managerObserver(), 0u);
  EXPECT_EQ(AsyncManagerEventSource::make()->domain(), kPrefix);
  EXPECT_EQ(logs.count("Removed observer"), 1u);
  registry->registerSource(source);
  std::weak_ptr<AsyncManagerEventSource> weakSource = source;
  source.reset();

  vl::NotificationCenter::defaultCenter().post(key, {{"n", 1}});
  ASSERT_TRUE(registry->asyncEvents().contains(key));
  auto event = registry->asyncEvents().at(key);
  EXPECT_EQ(event->notifyCount(), 1);

  registry->unregisterAllSources();
  EXPECT_TRUE(weakSource.expired());
  EXPECT_EQ(logs.count("Removed observer"), 2u);
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

}  // namespace
