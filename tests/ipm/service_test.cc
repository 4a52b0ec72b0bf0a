#include "vorlund/ipm/service.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/daemon.h"
#include "support/test_support.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/client.h"
#include "vorlund/ipm/message_codec.h"
#include "vorlund/ipm/service_client.h"
#include "vorlund/logging/log_capture.h"

namespace vl::ipm {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr auto kTimeout = std::chrono::duration_cast<std::chrono::microseconds>(seconds(20));

IpmValue request(std::string type, IpmDictionary extra = {}) {
  extra.set(kVLMessageKeyType, IpmValue::ofString(std::move(type)));
  return IpmValue::ofDictionary(std::move(extra));
}

// Echoes the request back with "Echoed" set, reading a descriptor's contents when one came.
IpmValue echo(const IpmValue& req) {
  IpmDictionary reply = *req.asDictionary();
  reply.set("Echoed", IpmValue::ofBool(true));
  if (const IpmValue* fd = req.asDictionary()->find("Pipe")) {
    char buffer[64] = {};
    ssize_t n = ::read((*fd->asFileHandle())->fileDescriptor(), buffer, sizeof buffer);
    reply.set("PipeContents", IpmValue::ofString(std::string(buffer, n > 0 ? n : 0)));
  }
  return IpmValue::ofDictionary(std::move(reply));
}

std::unique_ptr<Service> startService(std::map<std::string, Service::Handler> handlers) {
  Error error;
  auto service = Service::start(std::move(handlers), &error);
  EXPECT_TRUE(service) << error.description() << " (run the tests under dbus-run-session)";
  return service;
}

// The D-Bus error name of a failed exchange.
std::string dbusErrorName(const Error& error) {
  const Value* name = error.userInfo.find("DBusErrorName");
  return name ? name->stringOr("") : "";
}

TEST(ServiceTest, AnswersMessagesEndToEnd) {
  auto service = startService({{"Echo", echo}});
  ASSERT_TRUE(service);

  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  ASSERT_EQ(write(fds[1], "through the bus", 15), 15);
  close(fds[1]);
  IpmDictionary extra;
  extra.set("Pipe", IpmValue::ofFileHandle(FileHandle::adopt(fds[0])));

  Error error;
  auto reply = sendMessage(request("Echo", extra), kTimeout, &error);
  ASSERT_TRUE(reply) << error.description();
  const IpmDictionary& d = *reply->asDictionary();
  EXPECT_EQ(*d.find("PipeContents")->asString(), "through the bus");
  ASSERT_NE(d.find("Pipe")->asFileHandle(), nullptr) << "a descriptor also travels back";

  // The name has one owner at a time.
  auto second = Service::start({{"Echo", echo}}, &error);
  EXPECT_FALSE(second);
  EXPECT_EQ(error.code, static_cast<int64_t>(IpmErrorCode::kNameTaken));
  EXPECT_EQ(error.localizedDescription(), "Another process already owns com.brindle.Vorlund");
}

TEST(ServiceTest, RefusesMalformedRequestsAndKeepsServing) {
  test::Sandbox sandbox;
  auto service = startService(
      {{"Echo", echo},
       {"Throws", [](const IpmValue&) -> IpmValue { throw std::runtime_error("boom"); }},
       {"NotADictionary", [](const IpmValue&) { return IpmValue::ofInt64(1); }},
       {kVLMessageTypeTestCaseRequest,
        testCaseRequestHandler([](const auto&) { return nullptr; })}});
  ASSERT_TRUE(service);

  auto testCaseRequest = [](std::vector<uint8_t> bytes) {
    IpmDictionary extra;
    extra.set(kVLMessageKeyTestCase, IpmValue::ofData(std::move(bytes)));
    return request(kVLMessageTypeTestCaseRequest, extra);
  };
  auto silent = VLTestCaseObject::make();
  silent->setName("Silent");
  silent->setSelector("runSilently:");
  // Without a selector the handler looks the name up in the (empty) catalogue first.
  auto unnamed = VLTestCaseObject::make();
  auto unlisted = VLTestCaseObject::make();
  unlisted->setName("Unlisted");
  struct Case {
    const char* name;
    IpmValue message;
    const char* dbusName;
    const char* description;  // (none: any)
  } cases[] = {
      {"no type", IpmValue::ofDictionary({}), kErrorInvalidMessage,
       "The message has no string \"MessageType\""},
      {"unknown type", request("Frobnicate"), kErrorUnsupportedMessage,
       "Unsupported message type \"Frobnicate\""},
      {"handler throws", request("Throws"), kErrorFailed, "The request failed: boom"},
      {"handler replies with no dictionary", request("NotADictionary"), kErrorInvalidMessage,
       "The service's reply does not fit a message: A message must be a dictionary, not int64"},
      {"no test case", request(kVLMessageTypeTestCaseRequest), kErrorFailed,
       "The request holds no \"TestCase\" data"},
      {"garbage test case", testCaseRequest({1, 2, 3}), kErrorFailed, nullptr},
      {"no result", testCaseRequest(VLConvertObjectToData(Value(silent))->bytes), kErrorFailed,
       "Running Silent gave no result"},
      {"neither selector nor name", testCaseRequest(VLConvertObjectToData(Value(unnamed))->bytes),
       kErrorFailed, "The test case has neither a selector nor a name"},
      {"a name no bundle offers", testCaseRequest(VLConvertObjectToData(Value(unlisted))->bytes),
       kErrorFailed, "No bundle here offers a test case named Unlisted"},
  };
  for (const Case& c : cases) {
    Error error;
    EXPECT_FALSE(sendMessage(c.message, kTimeout, &error)) << c.name;
    EXPECT_EQ(error.code, static_cast<int64_t>(IpmErrorCode::kRemote)) << c.name;
    EXPECT_EQ(dbusErrorName(error), c.dbusName) << c.name;
    if (c.description) {
      EXPECT_EQ(error.localizedDescription(), c.description) << c.name;
    }
  }

  // A message that no IPM client would build: a type outside the mapping.
  Error error;
  ScopedBus bus = openBus(&error);
  ASSERT_TRUE(bus);
  sd_bus_error callError = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  EXPECT_LT(
      sd_bus_call_method(bus.get(), kServiceName, kObjectPath, kInterfaceName, kMethodName,
                         &callError, &reply, "a{sv}", 2, "MessageType", "s", "Echo", "Odd", "i", 5),
      0);
  EXPECT_TRUE(sd_bus_error_has_name(&callError, kErrorInvalidMessage)) << callError.name;
  EXPECT_STREQ(callError.message, "The D-Bus type i has no IPM form");
  sd_bus_error_free(&callError);

  auto answer = sendMessage(request("Echo"), kTimeout, &error);
  ASSERT_TRUE(answer) << error.description();
  EXPECT_TRUE(*answer->asDictionary()->find("Echoed")->asBool());
}

TEST(ServiceTest, NotRunningIsReportedAtOnce) {
  test::Sandbox sandbox;
  LogCapture capture;
  auto started = std::chrono::steady_clock::now();
  auto object = VLTestCaseObject::make();
  object->setName("Lonely");
  Error error;
  EXPECT_EQ(executeTestCaseInService(object, &error), nullptr);
  EXPECT_EQ(error.code, static_cast<int64_t>(IpmErrorCode::kNotRunning));
  EXPECT_LT(std::chrono::steady_clock::now() - started, seconds(5));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "Unable to run Lonely in the stress service: the stress service is "
                               "not running"));
}

// A handler that waits until the test releases it.
struct Gate {
  std::mutex mutex;
  std::condition_variable cv;
  bool entered = false;
  bool open = false;
  IpmValue pass(const IpmValue& req) {
    std::unique_lock lock(mutex);
    entered = true;
    cv.notify_all();
    cv.wait(lock, [&] { return open; });
    return req;
  }
  void waitEntered() {
    std::unique_lock lock(mutex);
    cv.wait(lock, [&] { return entered; });
  }
  void release() {
    std::lock_guard lock(mutex);
    open = true;
    cv.notify_all();
  }
};

// The client's time-out ends its wait and its connection while the request still runs.
TEST(ServiceTest, ClientTimeOutEndsTheWaitAndTheServiceSurvivesTheClientLeaving) {
  Gate gate;
  auto service =
      startService({{"Echo", echo}, {"Slow", [&](const IpmValue& req) { return gate.pass(req); }}});
  ASSERT_TRUE(service);
  Error error;
  auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(sendMessage(request("Slow"), milliseconds(100), &error));
  EXPECT_EQ(error.code, static_cast<int64_t>(IpmErrorCode::kTimedOut));
  EXPECT_LT(std::chrono::steady_clock::now() - started, seconds(5));
  gate.release();

  // Other clients are served while and after the slow request ends.
  auto answer = sendMessage(request("Echo"), kTimeout, &error);
  ASSERT_TRUE(answer) << error.description();
  for (int i = 0; i < 100 && service->answeredCount() < 2; ++i) vl::time::sleepFor(0.01);
  EXPECT_EQ(service->answeredCount(), 2u);
}

TEST(ServiceTest, RunsAtMostItsWorkersAtOnceAndQueuesTheRest) {
  Gate gate;
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  ServiceOptions options;
  options.workers = 3;
  Error error;
  auto service = Service::start({{"Slow",
                                  [&](const IpmValue& req) {
                                    int now = ++running;
                                    for (int seen = most;
                                         now > seen && !most.compare_exchange_weak(seen, now);) {
                                    }
                                    IpmValue reply = gate.pass(req);
                                    --running;
                                    return reply;
                                  }}},
                                options, &error);
  ASSERT_TRUE(service) << error.description();
  constexpr int kClients = 12;
  std::atomic<int> answered{0};
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&] {
      Error failure;
      if (sendMessage(request("Slow"), kTimeout, &failure)) ++answered;
    });
  }
  gate.waitEntered();
  // Time for every request to reach the service, and for a service without a bound to start them.
  vl::time::sleepFor(0.5);
  EXPECT_EQ(running.load(), 3);
  gate.release();
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(answered.load(), kClients);
  EXPECT_EQ(most.load(), 3);
}

TEST(ServiceTest, ABoundedStopGivesUpOnAHandlerThatOutlastsIt) {
  Gate gate;
  auto service = startService({{"Slow", [&](const IpmValue& req) { return gate.pass(req); }}});
  ASSERT_TRUE(service);
  std::thread client([] {
    Error error;
    sendMessage(request("Slow"), kTimeout, &error);
  });
  gate.waitEntered();
  auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(service->stop(milliseconds(200)));
  EXPECT_LT(std::chrono::steady_clock::now() - started, seconds(5));
  Error error;
  EXPECT_FALSE(sendMessage(request("Slow"), kTimeout, &error))
      << "a stopping service takes no more";
  gate.release();
  client.join();
  service.reset();  // the handler has ended: the service finishes its stop
}

// Callers as other users, through the bus's own command-line client.
TEST(ServiceTest, WithAGroupItServesOnlyRootAndTheGroupsMembers) {
  if (geteuid() != 0) GTEST_SKIP() << "calling as other users needs root";
  test::TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  test::PrivateBus bus(dir.path());
  ASSERT_TRUE(bus.started());
  ServiceOptions options;
  options.allowedGroup = 4242;
  Error error;
  auto service = Service::start({{"Echo", echo}}, options, &error);
  ASSERT_TRUE(service) << error.description();
  auto callAs = [&](std::vector<std::string> identity) {
    std::vector<std::string> argv = {"setpriv"};
    argv.insert(argv.end(), identity.begin(), identity.end());
    argv.insert(argv.end(), {"busctl", "--address=unix:path=" + dir.path() + "/bus-socket", "call",
                             kServiceName, kObjectPath, kInterfaceName, kMethodName, "a{sv}", "1",
                             "MessageType", "s", "Echo"});
    return test::runChild(argv);
  };
  vl::LogCapture capture;
  auto outsider = callAs({"--reuid=65534", "--regid=65534", "--clear-groups"});
  EXPECT_NE(outsider.exitStatus, 0);
  EXPECT_NE(outsider.err.find("Access denied"), std::string::npos) << outsider.err;
  EXPECT_TRUE(capture.contains(VLLogLevelError, "IPM",
                               "Refusing a message from a caller outside the service's group"));
  auto member = callAs({"--reuid=65534", "--regid=65534", "--groups=4242"});
  EXPECT_EQ(member.exitStatus, 0) << member.err;
  auto root = callAs({"--reuid=0", "--regid=0", "--clear-groups"});
  EXPECT_EQ(root.exitStatus, 0) << root.err;
}

}  // namespace
}  // namespace vl::ipm
