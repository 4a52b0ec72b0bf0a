// vorlund-manager run for real on a free loopback port, with two or three bridges played by the
// test over the project's framing: hellos and tokens, characteristics and their time-outs, the
// finds, test cases routed between devices, host requests, the status and garbage on the wire.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <regex>
#include <thread>

#include "support/child_process.h"
#include "support/test_support.h"
#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/json.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/results/test_case_result.h"

extern char** environ;

namespace vl {
namespace {

using Clock = std::chrono::steady_clock;

// The manager as a child process, its standard error in a file; killed and reaped if the test
// ends first. It listens on a port of the kernel's choice, read back from its log.
class ManagerProcess {
 public:
  ManagerProcess(const test::TempDir& dir, std::vector<std::string> arguments)
      : logPath_(dir.file("manager-" + std::to_string(++count_) + ".log")) {
    arguments.insert(arguments.begin(), {VORLUND_MANAGER_PATH, "--port", "0"});
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, logPath_.c_str(), O_WRONLY | O_CREAT, 0644);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    static const std::regex listening("Listening on [0-9.]+:([0-9]+)");
    std::smatch match;
    for (auto until = Clock::now() + std::chrono::seconds(10); pid_ > 0 && Clock::now() < until;) {
      std::string text = log();
      if (std::regex_search(text, match, listening)) {
        port_ = std::stoi(match[1]);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  // Starts the manager with VORLUND_TIME_SCALE set to scale; the test's own children keep theirs.
  static std::unique_ptr<ManagerProcess> scaled(const test::TempDir& dir,
                                                std::vector<std::string> arguments,
                                                const char* scale) {
    test::ScopedEnv fast("VORLUND_TIME_SCALE", scale);
    return std::make_unique<ManagerProcess>(dir, std::move(arguments));
  }
  ~ManagerProcess() {
    if (pid_ > 0) stop(SIGKILL);
  }

  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  std::string log() const { return test::readFile(logPath_); }

  // Sends signal and returns the exit status (128 + signal when killed by one); the manager is
  // killed after 10 seconds.
  int stop(int signal) {
    kill(pid_, signal);
    int status = 0;
    for (auto until = Clock::now() + std::chrono::seconds(10);
         waitpid(pid_, &status, WNOHANG) == 0;) {
      if (Clock::now() > until) kill(pid_, SIGKILL);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  static inline int count_ = 0;
  std::string logPath_;
  pid_t pid_ = -1;
  int port_ = -1;
};

// One bridge's connection to the manager, as the test plays it.
class Bridge {
 public:
  explicit Bridge(int port) : fd_(VLGetClientForServer("127.0.0.1", port, 3)) {}
  ~Bridge() {
    if (fd_ >= 0) close(fd_);
  }
  // Says hello as serial (the UDID is "UDID-" + serial) and waits until the manager has taken it:
  // each bridge has a thread of its own there, so another bridge could otherwise overtake it.
  Bridge(int port, const std::string& serial) : Bridge(port) {
    sendMessage({{"MessageType", "BridgeHello"},
                 {"RequestingDevice", serial},
                 {"UDID", "UDID-" + serial},
                 {"Hostname", "host-" + serial}});
    serial_ = serial;
    command({{"FindDevices", Dictionary{{"characteristics", Array{}}}}});
  }

  void sendMessage(const Dictionary& message) { sendBytes(VLConvertObjectToData(message)->view()); }
  void sendBytes(std::string_view payload) {
    sendRaw(format("%08zu", payload.size()) + std::string(payload));
  }
  void sendRaw(const std::string& bytes) {
    if (splitHeaders_ && bytes.size() > 4) {
      ASSERT_EQ(write(fd_, bytes.data(), 4), 4);
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      ASSERT_EQ(write(fd_, bytes.data() + 4, bytes.size() - 4), ssize_t(bytes.size() - 4));
      return;
    }
    ASSERT_EQ(write(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // Sends each frame's header in two writes with a pause between them.
  void splitHeaders() { splitHeaders_ = true; }

  // The next message, or none when none comes within 10 seconds or the manager closed the
  // connection.
  std::optional<Dictionary> receive() {
    if (fd_ < 0) return std::nullopt;
    FrameReadReport report;
    std::optional<Data> data = VLReadDataFromSocket(fd_, 10, &report);
    if (report.status == FrameReadStatus::TimedOut) fd_ = -1;  // the reader closed it
    if (!data || data->size() == 0) return std::nullopt;
    Value object = VLConvertDataToObject(*data);
    const Dictionary* message = object.asDictionary();
    return message ? std::optional(*message) : std::nullopt;
  }
  // Whether the manager has closed the connection (without sending anything more).
  bool closedByManager() {
    FrameReadReport report;
    return !VLReadDataFromSocket(fd_, 10, &report) && report.status == FrameReadStatus::ShortHeader;
  }

  // Sends a manager command and returns its "ManagerCommandResult".
  Value command(const Dictionary& command) { return commandText(*json::serialize(command, true)); }
  Value commandText(const std::string& text) {
    const std::string uuid = Uuid::randomString();
    sendMessage({{"MessageType", "ManagerCommandRequest"},
                 {"UUID", uuid},
                 {"RequestingDevice", serial_},
                 {"command", text},
                 {"destination", "manager"}});
    std::optional<Dictionary> answer = receive();
    if (!answer || answer->get("MessageType") != Value("ManagerCommandResult") ||
        answer->get("UUID") != Value(uuid)) {
      ADD_FAILURE() << "no answer to " << text << ": " << (answer ? answer->description() : "");
      return Value();
    }
    return answer->get("ManagerCommandResult");
  }

 private:
  int fd_;
  std::string serial_;
  bool splitHeaders_ = false;
};

// Waits up to 10 seconds for condition; whether it became true.
bool eventually(const std::function<bool()>& condition) {
  for (auto until = Clock::now() + std::chrono::seconds(10); Clock::now() < until;) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return condition();
}

Value serials(std::initializer_list<const char*> names) {
  Array array;
  for (const char* name : names) array.push_back(name);
  return array;
}

Value errorOf(const Value& answer) {
  const Dictionary* dictionary = answer.asDictionary();
  return dictionary ? dictionary->get("error") : Value();
}

Data archivedTestCase(const std::string& name, const Dictionary& options) {
  auto testCase = VLTestCaseObject::make();
  testCase->setName(name);
  testCase->setOptions(options);
  return *VLConvertObjectToData(Value(testCase));
}

std::shared_ptr<VLTestCaseResult> resultOf(const Value& archive) {
  return archive.asData() ? VLConvertDataToObject(*archive.asData()).record<VLTestCaseResult>()
                          : nullptr;
}

class ManagerTest : public testing::Test {
 protected:
  test::Sandbox sandbox_;
  test::TempDir dir_;
};

TEST_F(ManagerTest, HelloNeedsTheTokenAndANewHelloReplacesTheOldConnection) {
  ManagerProcess manager(dir_, {"--token", "secret"});
  ASSERT_GT(manager.port(), 0) << manager.log();
  struct Case {
    const char* name;
    Dictionary hello;
    const char* refusal;  // nullptr: accepted
  };
  const Case cases[] = {
      {"right token", {{"RequestingDevice", "A"}, {"Token", "secret"}}, nullptr},
      {"wrong token", {{"RequestingDevice", "B"}, {"Token", "guess"}}, "token is wrong"},
      {"no token", {{"RequestingDevice", "C"}}, "has none"},
      {"no device", {{"Token", "secret"}}, "names no device"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bridge bridge(manager.port());
    Dictionary hello = c.hello;
    hello.set("MessageType", "BridgeHello");
    bridge.sendMessage(hello);
    if (!c.refusal) {
      EXPECT_EQ(bridge.command({{"FindDevices", Dictionary{{"characteristics", Array{}}}}}),
                serials({"A"}));
      continue;
    }
    std::optional<Dictionary> answer = bridge.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->get("MessageType"), Value("BridgeRefused"));
    EXPECT_NE(answer->get("error").stringOr("").find(c.refusal), std::string::npos)
        << answer->description();
    EXPECT_TRUE(bridge.closedByManager());
  }

  Bridge first(manager.port());
  first.sendMessage(
      {{"MessageType", "BridgeHello"}, {"RequestingDevice", "D"}, {"Token", "secret"}});
  // Each connection has a reader of its own: the first hello must be taken before the second is
  // sent, or the second could be taken first and then be the one replaced.
  ASSERT_TRUE(eventually([&] { return manager.log().find("Connected: D ") != std::string::npos; }))
      << manager.log();
  Bridge second(manager.port());
  second.sendMessage(
      {{"MessageType", "BridgeHello"}, {"RequestingDevice", "D"}, {"Token", "secret"}});
  EXPECT_TRUE(first.closedByManager());
  std::string log = manager.log();
  EXPECT_NE(log.find("Refused B ("), std::string::npos) << log;
  EXPECT_NE(log.find("D connects again from"), std::string::npos) << log;
}

TEST_F(ManagerTest, CharacteristicsAttributesTimeOutsAndFinds) {
  // The 150-second time-out lasts 1.5 seconds.
  std::unique_ptr<ManagerProcess> process = ManagerProcess::scaled(dir_, {}, "0.01");
  ManagerProcess& manager = *process;
  ASSERT_GT(manager.port(), 0) << manager.log();
  Bridge a(manager.port(), "A"), b(manager.port(), "B"), c(manager.port(), "C");
  const Value done = Dictionary{{"succeeded", true}};
  ASSERT_EQ(a.command({{"SetCharacteristics", Array{"wifi", "cell"}}, {"ts", 10.0}}), done);
  ASSERT_EQ(b.command({{"AddCharacteristic", "wifi"}}), done);
  ASSERT_EQ(c.command({{"AddCharacteristic", "bt"}, {"timeout", 150}}), done);
  ASSERT_EQ(c.command({{"AddCharacteristic", "gps"}, {"target", "UDID-A"}}), done);
  ASSERT_EQ(b.command({{"AddCharacteristic", "cell"}}), done);
  ASSERT_EQ(a.command({{"RemoveCharacteristic", "cell"}, {"target", "B"}}), done);
  ASSERT_EQ(a.command({{"SetAttribute", Dictionary{{"name", "rack"}, {"value", 3}}}}), done);
  ASSERT_EQ(b.command({{"SetAttribute", Dictionary{{"name", "rack"}, {"value", 4}}}}), done);
  ASSERT_EQ(b.command({{"SetAttribute", Dictionary{{"name", "lab"}, {"value", "north"}}}}), done);

  struct Find {
    const char* command;
    const char* key;
    Value argument;
    Value expected;
  };
  const Find finds[] = {
      {"FindDevices", "characteristics", "wifi", serials({"A", "B"})},
      {"FindDevices", "characteristics", Array{"wifi", "cell"}, serials({"A"})},
      {"FindDevices", "characteristics", "gps", serials({"A"})},
      {"FindDevices", "characteristics", "bt", serials({"C"})},
      {"FindDevicesWithout", "characteristics", "wifi", serials({"C"})},
      {"FindDevicesWithout", "characteristics", Array{"cell", "bt"}, serials({"B"})},
      {"FindDevicesWithAttributes", "attributes", Dictionary{{"rack", 3}}, serials({"A"})},
      {"FindDevicesWithAttributes", "attributes", Dictionary{{"rack", 4}, {"lab", "north"}},
       serials({"B"})},
      {"FindDevicesWithAttributes", "attributes", Dictionary{}, serials({"A", "B", "C"})},
  };
  for (const Find& find : finds) {
    SCOPED_TRACE(std::string(find.command) + " " + find.argument.description());
    EXPECT_EQ(c.command({{find.command, Dictionary{{find.key, find.argument}}}}), find.expected);
  }

  struct Refusal {
    const char* command;  // JSON text
    const char* error;
  };
  const Refusal refusals[] = {
      {"{\"AddCharacteristic\": ", "not a JSON dictionary"},
      {"[1, 2]", "not a JSON dictionary"},
      {R"({"SetCharacteristics": ["old"], "ts": 5})", "older than"},
      {R"({"AddCharacteristic": "x", "target": "NOBODY"})", "NOBODY"},
      {R"({"AddCharacteristic": "x", "timeout": -1})", "positive"},
      {R"({"AddCharacteristic": {"x": 1}})", "a name or an array of names"},
      {R"({"FindDevices": {}})", "\"characteristics\""},
      {R"({"SetAttribute": {"value": 1}})", "\"name\""},
      {R"({"Reboot": true})", "Unknown manager command"},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.command);
    EXPECT_NE(errorOf(a.commandText(refusal.command)).stringOr("").find(refusal.error),
              std::string::npos);
  }
  EXPECT_EQ(c.command({{"FindDevices", Dictionary{{"characteristics", "old"}}}}), serials({}));

  // The status shows when "bt" expires; then it does.
  std::optional<Value> devices =
      json::parse(test::runChild({VORLUND_MANAGER_PATH, "--status", "--manager",
                                  "127.0.0.1:" + std::to_string(manager.port())})
                      .out);
  ASSERT_TRUE(devices && devices->asArray() && devices->asArray()->size() == 3);
  const Dictionary& deviceC = *(*devices->asArray())[2].asDictionary();
  EXPECT_EQ(deviceC.get("SerialNumber"), Value("C"));
  const Array* characteristicsC = deviceC.get("Characteristics").asArray();
  ASSERT_TRUE(characteristicsC && characteristicsC->size() == 1) << deviceC.description();
  EXPECT_TRUE((*characteristicsC)[0].asDictionary()->get("Expires").isString());
  EXPECT_TRUE(eventually([&] {
    return c.command({{"FindDevices", Dictionary{{"characteristics", "bt"}}}}) == serials({});
  }));
}

TEST_F(ManagerTest, RunTestCaseGoesToAnotherDeviceAndItsResultComesBack) {
  ManagerProcess manager(dir_, {});
  ASSERT_GT(manager.port(), 0) << manager.log();
  Bridge a(manager.port(), "A");
  auto b = std::make_unique<Bridge>(manager.port(), "B");
  const Value done = Dictionary{{"succeeded", true}};
  ASSERT_EQ(a.command({{"AddCharacteristic", Array{"echo", "solo"}}}), done);
  ASSERT_EQ(b->command({{"AddCharacteristic", "echo"}}), done);

  // Both have "echo": the device other than the requester runs it.
  const std::string commandUUID = Uuid::randomString();
  Dictionary runCommand{
      {"RunTestCase", Dictionary{{"Name", "Echo"}, {"Options", Dictionary{{"count", 3}}}}},
      {"characteristics", "echo"}};
  a.sendMessage({{"MessageType", "ManagerCommandRequest"},
                 {"UUID", commandUUID},
                 {"RequestingDevice", "A"},
                 {"command", *json::serialize(runCommand, true)},
                 {"destination", "manager"}});
  std::optional<Dictionary> request = b->receive();
  ASSERT_TRUE(request);
  EXPECT_EQ(request->get("MessageType"), Value("TestCaseRequest"));
  EXPECT_EQ(request->get("RequestingDevice"), Value("A"));
  auto testCase =
      VLConvertDataToObject(*request->get("TestCase").asData()).record<VLTestCaseObject>();
  ASSERT_TRUE(testCase);
  EXPECT_EQ(testCase->name(), "Echo");
  EXPECT_EQ(testCase->options(), (Dictionary{{"count", 3}}));
  auto result = VLTestCaseResult::withName("Echo");
  result->pass();
  b->sendMessage(
      {{"UUID", request->get("UUID")}, {"Result", *VLConvertObjectToData(Value(result))}});
  std::optional<Dictionary> answer = a.receive();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->get("MessageType"), Value("ManagerCommandResult"));
  EXPECT_EQ(answer->get("UUID"), Value(commandUUID));
  const Dictionary* outcome = answer->get("ManagerCommandResult").asDictionary();
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->get("Device"), Value("B"));
  auto relayed = resultOf(outcome->get("Result"));
  ASSERT_TRUE(relayed);
  EXPECT_TRUE(relayed->didPass());
  EXPECT_EQ(relayed->name(), "Echo");

  // Only the requester has "solo": it runs there. Nobody has "none": an error.
  Dictionary solo = runCommand;
  solo.set("characteristics", "solo");
  a.sendMessage({{"MessageType", "ManagerCommandRequest"},
                 {"UUID", "SOLO"},
                 {"command", *json::serialize(solo, true)}});
  std::optional<Dictionary> toItself = a.receive();
  ASSERT_TRUE(toItself);
  EXPECT_EQ(toItself->get("MessageType"), Value("TestCaseRequest"));
  solo.set("characteristics", "none");
  EXPECT_NE(errorOf(a.command(solo)).stringOr("").find("No connected device"), std::string::npos);

  // B goes away before it answers: A hears so.
  Value pending;
  std::thread asker([&] { pending = a.command(runCommand); });
  EXPECT_TRUE(b->receive());
  b.reset();
  asker.join();
  EXPECT_NE(errorOf(pending).stringOr("").find("B disconnected"), std::string::npos)
      << pending.description();
}

TEST_F(ManagerTest, TestCaseRequestsGoToTheDeviceTheyNameAndRepliesComeBack) {
  ManagerProcess manager(dir_, {});
  ASSERT_GT(manager.port(), 0) << manager.log();
  Bridge a(manager.port(), "A"), b(manager.port(), "B");
  const Dictionary request{{"MessageType", "TestCaseRequest"},
                           {"UUID", "REQ-1"},
                           {"TestCase", archivedTestCase("Ping", {{"peer", "B"}})},
                           {"RequestingDevice", "A"},
                           {"destination", "VLTestCaseClass"},
                           {"identifier", "B"}};
  a.sendMessage(request);
  std::optional<Dictionary> forwarded = b.receive();
  ASSERT_TRUE(forwarded);
  EXPECT_EQ(*forwarded, request);
  const Dictionary reply{
      {"UUID", "REQ-1"},
      {"Result", *VLConvertObjectToData(Value(VLTestCaseResult::withName("Ping")))}};
  b.sendMessage(reply);
  std::optional<Dictionary> relayed = a.receive();
  ASSERT_TRUE(relayed);
  EXPECT_EQ(*relayed, reply);

  Dictionary lost = request;
  lost.set("UUID", "REQ-2");
  lost.set("identifier", "NOSUCH");
  a.sendMessage(lost);
  std::optional<Dictionary> failed = a.receive();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->get("UUID"), Value("REQ-2"));
  auto result = resultOf(failed->get("Result"));
  ASSERT_TRUE(result);
  EXPECT_TRUE(result->didFail());
  EXPECT_EQ(result->name(), "Ping");
  EXPECT_NE(result->getFailureReason().value_or("").find("NOSUCH"), std::string::npos);
}

// A king handler that keeps its input in king-input.json and answers by the command: "ok" succeeds,
// "fail" fails with a text, "silent" fails without one, anything else hangs (its pid in king.pid).
std::string writeKingHandler(const test::TempDir& tempDir) {
  const std::string dir = tempDir.path();
  const std::string path = tempDir.file("king.sh");
  test::writeFile(
      path,
      "#!/bin/sh\n"
      "input=$(cat)\n"
      "printf '%s' \"$input\" > " +
          dir +
          "/king-input.json\n"
          "case \"$input\" in\n"
          "  *'\"command\": \"ok\"'*) exit 0 ;;\n"
          "  *'\"command\": \"fail\"'*) printf '  the lab door is locked\\n\\n' >&2; exit 3 ;;\n"
          "  *'\"command\": \"silent\"'*) exit 4 ;;\n"
          "  *) echo $$ > " +
          dir +
          "/king.pid; exec sleep 30 ;;\n"
          "esac\n");
  chmod(path.c_str(), 0755);
  return path;
}

TEST_F(ManagerTest, HostRequestsRunTheKingHandler) {
  const std::string handler = writeKingHandler(dir_);
  // The 20-second deadline lasts 1 second.
  std::unique_ptr<ManagerProcess> process =
      ManagerProcess::scaled(dir_, {"--king-handler", handler, "--king-timeout", "20"}, "0.05");
  ManagerProcess& withHandler = *process;
  ManagerProcess without(dir_, {});
  ASSERT_GT(withHandler.port(), 0) << withHandler.log();
  ASSERT_GT(without.port(), 0) << without.log();
  Bridge a(withHandler.port(), "A"), lone(without.port(), "L");

  auto ask = [](Bridge& bridge, const char* uuid, const Value& command) {
    bridge.sendMessage({{"UUID", uuid},
                        {"request", 7},
                        {"command", command},
                        {"RequestingDevice", "A"},
                        {"destination", "service"},
                        {"identifier", "com.brindle.Vorlund.king"}});
  };
  struct Case {
    const char* command;
    bool succeeded;
    const char* error;
  };
  const Case cases[] = {
      {"ok", true, nullptr},
      {"fail", false, "the lab door is locked"},
      {"silent", false, "The king handler exited with status 4 and said nothing"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    ask(a, c.command, c.command);
    std::optional<Dictionary> reply = a.receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->get("UUID"), Value(c.command));
    EXPECT_EQ(reply->get("succeeded"), Value(c.succeeded));
    EXPECT_EQ(reply->get("error"), c.error ? Value(c.error) : Value());
  }
  std::optional<Value> input = json::parse(test::readFile(dir_.file("king-input.json")));
  ASSERT_TRUE(input && input->asDictionary());
  EXPECT_EQ(*input,
            Value(Dictionary{{"request", 7}, {"command", "silent"}, {"RequestingDevice", "A"}}));

  // A hanging handler holds up nothing else, and is killed at its deadline.
  ask(a, "hang", Dictionary{{"wait", true}});
  EXPECT_EQ(a.command({{"FindDevices", Dictionary{{"characteristics", Array{}}}}}), serials({"A"}));
  std::optional<Dictionary> late = a.receive();
  ASSERT_TRUE(late);
  EXPECT_EQ(late->get("UUID"), Value("hang"));
  EXPECT_EQ(late->get("error"), Value("The king handler did not finish within 20.0 seconds"));

  ask(lone, "none", "ok");
  std::optional<Dictionary> refused = lone.receive();
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->get("succeeded"), Value(false));
  EXPECT_NE(refused->get("error").stringOr("").find("No king handler is configured"),
            std::string::npos);
}

TEST_F(ManagerTest, StoppingEndsARunningKingHandler) {
  const std::string handler = writeKingHandler(dir_);
  ManagerProcess manager(dir_, {"--king-handler", handler});
  ASSERT_GT(manager.port(), 0) << manager.log();
  Bridge a(manager.port(), "A");
  a.sendMessage({{"UUID", "hang"},
                 {"request", 1},
                 {"command", "hang"},
                 {"destination", "service"},
                 {"identifier", "com.brindle.Vorlund.king"}});
  std::string pidFile = dir_.file("king.pid");
  ASSERT_TRUE(eventually([&] {
    return test::fileExists(pidFile) && test::readFile(pidFile).find('\n') != std::string::npos;
  }));
  pid_t handlerPid = std::stoi(test::readFile(pidFile));
  ASSERT_EQ(kill(handlerPid, 0), 0);
  EXPECT_EQ(manager.stop(SIGTERM), 0);
  EXPECT_NE(kill(handlerPid, 0), 0);  // gone, and reaped by the manager
}

TEST_F(ManagerTest, StatusPrintsTheDevicesOrSaysNoManagerAnswers) {
  ManagerProcess manager(dir_, {});
  ASSERT_GT(manager.port(), 0) << manager.log();
  Bridge a(manager.port(), "A");
  a.command({{"SetCharacteristics", Array{"wifi"}}, {"ts", 1.0}});
  a.command({{"SetAttribute", Dictionary{{"name", "rack"}, {"value", "r2"}}}});
  test::ChildResult status = test::runChild({VORLUND_MANAGER_PATH, "--status", "--manager",
                                             "localhost:" + std::to_string(manager.port())});
  ASSERT_EQ(status.exitStatus, 0) << status.err;
  EXPECT_EQ(
      status.out,
      json::displayString(Array{Dictionary{{"SerialNumber", "A"},
                                           {"UDID", "UDID-A"},
                                           {"Hostname", "host-A"},
                                           {"Connected", true},
                                           {"Characteristics", Array{Dictionary{{"Name", "wifi"}}}},
                                           {"Attributes", Dictionary{{"rack", "r2"}}}}}) +
          "\n");

  const std::string address = "127.0.0.1:" + std::to_string(manager.port());
  EXPECT_EQ(manager.stop(SIGINT), 0);
  EXPECT_NE(manager.log().find("Disconnected: A from 127.0.0.1:"), std::string::npos);
  test::ChildResult none = test::runChild({VORLUND_MANAGER_PATH, "--status", "--manager", address});
  EXPECT_EQ(none.exitStatus, 1);
  EXPECT_NE(none.err.find("no manager answers at " + address), std::string::npos) << none.err;
  test::ChildResult nowhere =
      test::runChild({VORLUND_MANAGER_PATH, "--listen", "lab.example", "--port", "0"});
  EXPECT_EQ(nowhere.exitStatus, 1);
  EXPECT_NE(nowhere.err.find("not an IPv4 address"), std::string::npos) << nowhere.err;
}

TEST_F(ManagerTest, AFrameThatIsNotAMessageDropsOnlyItsConnection) {
  ManagerProcess manager(dir_, {"--listen", "0.0.0.0"});
  ASSERT_GT(manager.port(), 0) << manager.log();
  // Neither a bridge that says nothing nor one stuck in the middle of a header holds anyone up.
  Bridge silent(manager.port()), stuck(manager.port());
  stuck.sendRaw("0000");
  Bridge a(manager.port(), "A");
  ASSERT_EQ(a.command({{"AddCharacteristic", "a"}}), Value(Dictionary{{"succeeded", true}}));
  struct Case {
    const char* name;
    std::string bytes;
    bool droppedWhileOpen;  // false: the frame is only wrong once the bridge closes
    const char* logged;
    bool hello = true;
  };
  const Case cases[] = {
      {"header of letters", "garbage!and more", true, "frame header that is not 8 digits"},
      {"over the limit", "00100001xyz", true, "a frame of 100001 bytes, over the limit"},
      {"not an archive", "00000010plain text", true, "does not decode to a dictionary"},
      {"truncated", "00000050short", false, "its frame of 50 bytes ended early"},
      {"instead of a hello", "00000010plain text", true, "does not decode", false},
  };
  // A header split over two writes with a pause between them is waited for.
  a.splitHeaders();
  EXPECT_EQ(a.command({{"FindDevices", Dictionary{{"characteristics", "a"}}}}), serials({"A"}));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto garbage = c.hello ? std::make_unique<Bridge>(manager.port(), "G")
                           : std::make_unique<Bridge>(manager.port());
    garbage->sendRaw(c.bytes);
    if (c.droppedWhileOpen) {
      EXPECT_TRUE(garbage->closedByManager());
    }
    garbage.reset();
    EXPECT_TRUE(eventually([&] { return manager.log().find(c.logged) != std::string::npos; }))
        << manager.log();
    EXPECT_EQ(a.command({{"FindDevices", Dictionary{{"characteristics", "a"}}}}), serials({"A"}));
  }
}

}  // namespace
}  // namespace vl
