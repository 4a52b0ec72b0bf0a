// VorlundBridge run for real: device-side frames come in on its gateway port, the manager is played
// by the test on a loopback port of its own, and the stress service runs on the test's private bus.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>

#include "support/child_process.h"
#include "support/daemon.h"
#include "support/test_support.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/hostlink/gateway.h"
#include "vorlund/hostlink/manager_frames.h"
#include "vorlund/hostlink/socket_server.h"
#include "vorlund/ipm/results_service.h"
#include "vorlund/results/execution.h"
#include "vorlund/results/test_case_result.h"

namespace vl {
namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kMachineId = "5eed0000b41d9e0000000000000000aa";
const std::string kRecorded = std::string(VORLUND_TESTDATA_DIR) + "/hostlink/manager_frames/";

std::string framed(std::string_view payload) {
  return std::string(VLPrependDataWithLength(Data::fromString(payload)).view());
}
std::string archived(const Value& object) {
  return std::string(VLConvertObjectToData(object)->view());
}

// A manager's request to run object here, answered under uuid.
std::string testCaseRequestFrame(const std::string& uuid,
                                 const std::shared_ptr<VLTestCaseObject>& object) {
  return framed(
      archived(Value(Dictionary{{"MessageType", Value("TestCaseRequest")},
                                {"UUID", Value(uuid)},
                                {"TestCase", Value(*VLConvertObjectToData(Value(object)))}})));
}

bool readableWithin(int descriptor, double seconds) {
  pollfd entry{descriptor, POLLIN, 0};
  return ::poll(&entry, 1, static_cast<int>(seconds * 1000)) > 0;
}

// One end of a TCP connection that the test holds.
class Connection {
 public:
  explicit Connection(int descriptor = -1) : fd_(descriptor) {}
  Connection(Connection&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ~Connection() { close(); }
  void close() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }
  bool valid() const { return fd_ >= 0; }
  bool write(std::string_view bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
  }
  void endWriting() { ::shutdown(fd_, SHUT_WR); }
  // The next frame's payload; none on damage, end or 20 s of silence.
  std::optional<Data> read() {
    if (!valid() || !readableWithin(fd_, 20)) return std::nullopt;
    bridge::Receipt receipt = bridge::receiveFrame(fd_);
    if (receipt.status != bridge::ReceiptStatus::Frame) return std::nullopt;
    return std::move(receipt.payload);
  }
  std::optional<Dictionary> readMessage() {
    std::optional<Data> payload = read();
    std::string reason;
    return payload ? bridge::decodeManagerFrame(*payload, &reason) : std::nullopt;
  }
  // Whether the peer closes within 20 s; what it still sends is skipped.
  bool closedByPeer() {
    char buffer[4096];
    for (auto end = Clock::now() + std::chrono::seconds(20); Clock::now() < end;) {
      if (!readableWithin(fd_, 1)) continue;
      if (::recv(fd_, buffer, sizeof buffer, 0) <= 0) return true;
    }
    return false;
  }

 private:
  int fd_;
};

// The run's manager, played by the test: every connection the bridge makes is handed to the test.
class FakeManager {
 public:
  explicit FakeManager(int port = 0)
      : server_(port, false, [this](int descriptor) {
          std::lock_guard lock(mutex_);
          accepted_.push_back(descriptor);
          changed_.notify_all();
        }) {}
  ~FakeManager() {
    server_.stop();
    for (int descriptor : accepted_) ::close(descriptor);
  }
  int port() const { return server_.port(); }
  // The bridge's next connection, its hello already read into *hello when given.
  Connection next(Dictionary* hello = nullptr) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(20), [this] { return !accepted_.empty(); })) {
      return Connection();
    }
    Connection connection(accepted_.front());
    accepted_.pop_front();
    lock.unlock();
    std::optional<Dictionary> first = connection.readMessage();
    EXPECT_TRUE(first && first->get(kVLMessageKeyType) == Value("BridgeHello")) << "hello first";
    if (hello && first) *hello = *first;
    return connection;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<int> accepted_;
  ServerThread server_;  // last: its thread uses the members above
};

int freePort() {
  int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(probe, reinterpret_cast<sockaddr*>(&address), size);
  ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(probe);
  return ntohs(address.sin_port);
}

// The result in the next message on link, which must answer the request uuid; nullptr otherwise.
std::shared_ptr<VLTestCaseResult> resultAnswering(Connection& link, const std::string& uuid) {
  std::optional<Dictionary> reply = link.readMessage();
  if (!reply || reply->get("UUID") != Value(uuid) || !reply->get("Result").asData()) {
    ADD_FAILURE() << "no result under " << uuid << ": " << (reply ? reply->description() : "");
    return nullptr;
  }
  return VLConvertDataToObject(*reply->get("Result").asData()).record<VLTestCaseResult>();
}

class BridgeTest : public ::testing::Test {
 protected:
  BridgeTest() {
    std::filesystem::create_directories(sandbox_.root() + "/etc");
    test::writeFile(sandbox_.root() + "/etc/machine-id", std::string(kMachineId) + "\n");
  }

  // The bridge with args, its standard error in the sandbox.
  std::unique_ptr<test::Daemon> startBridge(std::vector<std::string> args) {
    std::vector<std::string> argv = {"/bin/sh", "-c", R"(log=$1; shift; exec "$0" "$@" 2>>"$log")",
                                     VORLUND_BRIDGE_PATH, log_};
    argv.insert(argv.end(), args.begin(), args.end());
    return std::make_unique<test::Daemon>(argv);
  }
  std::string managerArgument(const FakeManager& manager) {
    return "127.0.0.1:" + std::to_string(manager.port());
  }
  // Sends bytes on a new gateway connection, as a device-side process does, and closes it.
  bool sendFromDevice(std::string_view bytes) {
    Connection device(VLGetClientForServer("localhost", gatewayPort(), 500));
    return device.valid() && device.write(bytes);
  }
  // Waits until the bridge's standard error holds text.
  bool logged(const std::string& text) {
    for (auto end = Clock::now() + std::chrono::seconds(20); Clock::now() < end;) {
      if (test::fileExists(log_) && test::readFile(log_).find(text) != std::string::npos)
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ADD_FAILURE() << "not logged: " << text << "\n" << test::readFile(log_);
    return false;
  }
  static int stopped(test::Daemon& daemon) {
    ::kill(daemon.pid(), SIGTERM);
    return daemon.waitForExit();
  }

  test::Sandbox sandbox_;
  std::string log_ = sandbox_.path("bridge.log");
  // Back-off pauses, time-outs and the service's waits run a hundred times faster.
  time::ScopedScale scale_{0.01};
  test::ScopedEnv fast_{"VORLUND_TIME_SCALE", "0.01"};
  test::ScopedEnv serial_{"VORLUND_SERIAL_NUMBER", "BRIDGE0001"};
  test::ScopedEnv gateway_{"VORLUND_GATEWAY_PORT", std::to_string(freePort())};
};

TEST_F(BridgeTest, SaysHelloThenRelaysDeviceFramesUnchanged) {
  auto usage = test::runChild({VORLUND_BRIDGE_PATH});
  EXPECT_EQ(usage.exitStatus, 2);
  EXPECT_NE(usage.err.find("give --manager HOST:PORT"), std::string::npos) << usage.err;

  FakeManager manager;
  VLSavePreference(Value(managerArgument(manager)), bridge::kManagerAddressPreference);
  VLSavePreference(Value("s3cret"), bridge::kManagerTokenPreference);
  auto bridge = startBridge({});
  Dictionary hello;
  Connection link = manager.next(&hello);
  ASSERT_TRUE(link.valid());
  EXPECT_EQ(hello, (Dictionary{{"MessageType", Value("BridgeHello")},
                               {"RequestingDevice", Value("BRIDGE0001")},
                               {"UDID", Value(kMachineId)},
                               {"Hostname", Value(VLGetHostname())},
                               {"Token", Value("s3cret")}}));
  EXPECT_EQ(test::readFile("/proc/" + std::to_string(bridge->pid()) + "/comm"), "VorlundBridge\n");

  for (size_t size : {0, 1, 1999, 2000, 2001, 65536, 100000}) {
    std::string payload(size, '\0');
    for (size_t i = 0; i < size; ++i) payload[i] = static_cast<char>((i * 31 + size) % 251);
    ASSERT_TRUE(sendFromDevice(framed(payload))) << size;
    std::optional<Data> relayed = link.read();
    ASSERT_TRUE(relayed) << size;
    EXPECT_TRUE(relayed->view() == payload) << size << " bytes came as " << relayed->size();
  }
  // A header split over two writes with a pause between them is waited for.
  {
    Connection device(VLGetClientForServer("localhost", gatewayPort(), 500));
    ASSERT_TRUE(device.write("0000"));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_TRUE(device.write("0005split"));
    EXPECT_EQ(link.read(), Data::fromString("split"));
  }
  // A device connection that sends garbage or nothing is closed; the others are relayed, in order.
  Connection silent(VLGetClientForServer("localhost", gatewayPort(), 5));
  ASSERT_TRUE(sendFromDevice("garbage!" + framed("never relayed")));
  ASSERT_TRUE(sendFromDevice(framed("first") + framed("second")));
  EXPECT_EQ(link.read(), Data::fromString("first"));
  EXPECT_EQ(link.read(), Data::fromString("second"));
  logged("Dropping a gateway connection: The frame header \"garbage!\" is not eight digits");
  EXPECT_TRUE(silent.closedByPeer());

  // With no stress service on the bus, a requested test case is answered as failed at once.
  auto object = VLTestCaseObject::make();
  object->setName("Sample Failure");
  ASSERT_TRUE(link.write(testCaseRequestFrame("0A0A0A0A-0000-4000-8000-000000000001", object)));
  auto failed = resultAnswering(link, "0A0A0A0A-0000-4000-8000-000000000001");
  ASSERT_TRUE(failed);
  EXPECT_NE(failed->getFailureReason().value_or("").find("the stress service is not running"),
            std::string::npos);
  EXPECT_EQ(stopped(*bridge), 0);
}

// The manager's frames reach the stress service: a test case request is run there and answered
// under its UUID (a long one does not hold up the next), posted results and manager command results
// go to its message router.
TEST_F(BridgeTest, HandsTheManagersFramesToTheServiceAndSendsItsRepliesBack) {
  const std::string bundles = sandbox_.root() + "/BrindleInternal/Library/Bundles/Stress";
  std::filesystem::create_directories(bundles);
  std::filesystem::copy(std::string(VORLUND_SAMPLE_BUNDLE_DIR) + "/SampleStress.bundle",
                        bundles + "/SampleStress.bundle", std::filesystem::copy_options::recursive);
  test::Daemon service(VORLUND_DAEMON_PATH);
  ASSERT_TRUE(service.waitUntilServing());
  FakeManager manager;
  auto bridge = startBridge({"--manager", managerArgument(manager)});
  Connection link = manager.next();
  ASSERT_TRUE(link.valid());

  auto sleeper = VLTestCaseObject::make();
  sleeper->setName("Sample Sleep");
  sleeper->setOptions(Dictionary{{"Seconds", Value(6000)}});  // a minute at this scale
  ASSERT_TRUE(link.write(testCaseRequestFrame("5EEB0000-0000-4000-8000-000000000001", sleeper)));
  // Recorded as the manager sends it: "Sample Failure" by name, with "Reason" "Cable cut".
  ASSERT_TRUE(link.write(test::readFile(kRecorded + "test_case_request.frame")));
  auto ran = resultAnswering(link, "7E57CA5E-1D0A-4B1E-9C3A-00000000F00D");
  ASSERT_TRUE(ran) << "the long test case before it does not hold it up";
  EXPECT_FALSE(ran->didPass());
  EXPECT_EQ(ran->getFailureReason(), "Cable cut");

  auto posted = VLTestCaseResult::withName("Relayed");
  posted->setType(std::string(kVLTestCaseResultTypePassFail));
  posted->pass();
  posted->setStartTime(Date::now());
  posted->setEndTime(Date::now());
  ASSERT_TRUE(link.write(framed(
      archived(Value(Dictionary{{"MessageType", Value("TestCaseResult")},
                                {"Result", Value(*VLConvertObjectToData(Value(posted)))}})))));
  ASSERT_TRUE(link.write(test::readFile(kRecorded + "manager_command_result.frame")));
  bool joined = false;
  for (int i = 0; i < 200 && !joined; ++i) {
    std::optional<Dictionary> run = ipm::serviceRunSummary();
    joined = run && run->description().find("Relayed") != std::string::npos;
    if (!joined) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_TRUE(joined) << "the posted result joins the service's run";
  // The router's line names the message it got (the service's log files are the sandbox's).
  const std::string logs = sandbox_.home() + "/Library/Logs/Vorlund";
  bool routed = false;
  for (int i = 0; i < 200 && !routed; ++i) {
    std::error_code missing;
    for (const auto& file : std::filesystem::directory_iterator(logs, missing)) {
      std::string text = test::readFile(file.path());
      for (size_t at = text.find("Got manager command result!"); at != std::string::npos && !routed;
           at = text.find("Got manager command result!", at + 1)) {
        routed =
            text.substr(at, 2000).find("7E57CA5E-1D0A-4B1E-9C3A-00000000BEEF") != std::string::npos;
      }
    }
    if (!routed) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_TRUE(routed) << "the manager command result reaches the service's router";

  // Stopped while the long test case runs and a device connection is silent, it ends at once.
  Connection silent(VLGetClientForServer("localhost", gatewayPort(), 5));
  auto started = Clock::now();
  EXPECT_EQ(stopped(*bridge), 0);
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(10));
  EXPECT_EQ(stopped(service), 0);
}

TEST_F(BridgeTest, QueuesFramesWhileTheManagerIsAwayAndSendsThemAfterTheNextHello) {
  auto first = std::make_unique<FakeManager>();
  const int port = first->port();
  auto bridge = startBridge({"--manager", "127.0.0.1:" + std::to_string(port), "--queue", "3"});
  Connection link = first->next();
  ASSERT_TRUE(link.valid());
  ASSERT_TRUE(sendFromDevice(framed("before")));
  EXPECT_EQ(link.read(), Data::fromString("before"));

  link.close();
  first.reset();
  ASSERT_TRUE(logged("Disconnected from the manager"));
  logged("Unable to reach the manager at 127.0.0.1:" + std::to_string(port));
  ASSERT_TRUE(sendFromDevice(framed("one") + framed("two") + framed("three") + framed("four") +
                             framed("five")));
  // (No event tells that the bridge has taken the five from its gateway connection.)
  std::this_thread::sleep_for(std::chrono::milliseconds(300));

  FakeManager second(port);
  ASSERT_EQ(second.port(), port);
  Connection again = second.next();
  ASSERT_TRUE(again.valid()) << "hello again, before anything else";
  for (const char* expected : {"three", "four", "five"}) {
    EXPECT_EQ(again.read(), Data::fromString(expected));
  }
  logged(
      "Dropped 2 frame(s) while the manager was unreachable (the queue holds 3; 2 dropped in all)");
  EXPECT_EQ(stopped(*bridge), 0);
}

// Whatever the manager sends that is not a whole dictionary frame ends that connection; the bridge
// connects again, says hello and goes on relaying. A refused hello is logged and retried.
TEST_F(BridgeTest, DropsAConnectionThatSendsGarbageAndConnectsAgain) {
  FakeManager manager;
  auto bridge = startBridge({"--manager", managerArgument(manager)});
  std::string noise(64, '\0');
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>(i * 97 % 256);
  struct Case {
    const char* name;
    std::string bytes;
    bool thenEndWriting;
    const char* logLine;
  } cases[] = {
      {"not digits", "12345abc" + noise, false, "header \"12345abc\" is not eight digits"},
      {"over the limit", "00100001" + noise, false, "announces 100001 bytes"},
      {"truncated", "00000100" + noise.substr(0, 10), true, "cut short: 10 of 100 bytes"},
      {"random payload", framed(noise), false, "The frame does not decode"},
      {"not a dictionary", framed(archived(Value(Array{Value(1)}))), false, "not a dictionary"},
      {"refused",
       framed(archived(Value(
           Dictionary{{"MessageType", Value("BridgeRefused")}, {"error", Value("wrong token")}}))),
       true, "The manager refused the bridge: wrong token"},
  };
  for (const Case& c : cases) {
    Connection link = manager.next();
    ASSERT_TRUE(link.valid()) << c.name;
    ASSERT_TRUE(link.write(c.bytes)) << c.name;
    if (c.thenEndWriting) link.endWriting();
    EXPECT_TRUE(link.closedByPeer()) << c.name;
    logged(c.logLine);
  }
  Connection link = manager.next();
  ASSERT_TRUE(link.valid());
  ASSERT_TRUE(sendFromDevice(framed("still relaying")));
  EXPECT_EQ(link.read(), Data::fromString("still relaying"));
  EXPECT_EQ(stopped(*bridge), 0);
}

}  // namespace
}  // namespace vl
