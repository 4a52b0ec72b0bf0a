#include "manager.h"

#include "commands.h"
#include "manager_log.h"
#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/json.h"
#include "vorlund/results/test_case_result.h"

namespace manager {
namespace {

std::string textOf(const vl::Dictionary& message, const char* key) {
  const std::string* text = message.get(key).asString();
  return text ? *text : "";
}

// The name of the test case archived in a request, for answers about it; "" when it has none.
std::string archivedTestCaseName(const vl::Value& archive) {
  const vl::Data* data = archive.asData();
  auto object = data ? VLConvertDataToObject(*data).record<VLTestCaseObject>() : nullptr;
  return object && object->name() ? *object->name() : "";
}

}  // namespace

vl::Dictionary failedTestCaseReply(const vl::Value& uuid, const std::string& testCaseName,
                                   const std::string& reason) {
  auto result = VLTestCaseResult::withName(testCaseName);
  result->setStartTime(std::nullopt);
  result->failWithReason(reason);
  result->setEndTime(std::nullopt);
  std::optional<vl::Data> archive = VLConvertObjectToData(vl::Value(result));
  return vl::Dictionary{{"UUID", uuid}, {"Result", archive ? vl::Value(*archive) : vl::Value()}};
}

Manager::Manager(ManagerSettings settings) : settings_(std::move(settings)) {
  if (settings_.kingHandler) {
    king_ = std::make_unique<KingHandler>(*settings_.kingHandler, settings_.kingDeadlineSeconds);
  }
}

bool Manager::hello(const std::shared_ptr<Connection>& connection,
                    const vl::Dictionary& message) {
  DeviceIdentity identity{textOf(message, "RequestingDevice"), textOf(message, "UDID"),
                          textOf(message, "Hostname")};
  std::string refusal;
  if (identity.serialNumber.empty()) {
    refusal = "The hello names no device in \"RequestingDevice\"";
  } else if (settings_.token && message.get("Token") != vl::Value(*settings_.token)) {
    refusal = message.contains("Token") ? "The hello's token is wrong"
                                        : "This manager needs a token and the hello has none";
  }
  if (!refusal.empty()) {
    log(VLLogLevelError, "Refused %s (%s): %s", identity.serialNumber, connection->peer(),
        refusal);
    connection->send(vl::Dictionary{{"MessageType", "BridgeRefused"}, {"error", refusal}});
    return false;
  }

  connection->setSerialNumber(identity.serialNumber);
  std::shared_ptr<Connection> replaced;
  {
    std::lock_guard lock(mutex_);
    std::shared_ptr<Connection>& current = connections_[identity.serialNumber];
    replaced = std::exchange(current, connection);
    registry_.deviceConnected(identity);
  }
  if (replaced) {
    log(VLLogLevelInfo, "%s connects again from %s; closing its connection from %s",
        identity.serialNumber, connection->peer(), replaced->peer());
    replaced->close();
  }
  log(VLLogLevelInfo, "Connected: %s (UDID %s, host %s) from %s", identity.serialNumber,
      identity.udid, identity.hostname, connection->peer());
  return true;
}

void Manager::handleMessage(const std::shared_ptr<Connection>& connection,
                            const vl::Dictionary& message) {
  const std::string device = connection->serialNumber();
  const std::string type = textOf(message, "MessageType");
  if (type == "ManagerCommandRequest") return handleCommand(connection, device, message);
  if (type == "TestCaseRequest") return relayTestCaseRequest(connection, device, message);
  if (textOf(message, "destination") == "service" &&
      textOf(message, "identifier") == kKingIdentifier) {
    return handleKingRequest(connection, device, message);
  }
  if (const std::string* uuid = message.get("UUID").asString(); uuid && type.empty()) {
    if (std::optional<TestCaseRoute> route = routes_.take(device, *uuid)) {
      return deliverReply(device, *route, message);
    }
  }
  log(VLLogLevelNotice, "Ignoring a message from %s that the manager has no use for: %@", device,
      message);
}

void Manager::connectionEnded(const std::shared_ptr<Connection>& connection) {
  const std::string device = connection->serialNumber();
  if (device.empty()) return;
  {
    std::lock_guard lock(mutex_);
    auto it = connections_.find(device);
    if (it == connections_.end() || it->second != connection) {
      log(VLLogLevelInfo, "Closed the replaced connection of %s from %s", device,
          connection->peer());
      return;
    }
    connections_.erase(it);
    registry_.deviceDisconnected(device);
  }
  log(VLLogLevelInfo, "Disconnected: %s from %s", device, connection->peer());
  for (const TestCaseRoute& route : routes_.takeAll(device)) {
    failRoute(device, route, vl::format("Device %s disconnected before it answered", device));
  }
}

vl::Dictionary Manager::statusMessage() const {
  return vl::Dictionary{{"MessageType", "Status"}, {"Devices", registry_.status()}};
}

void Manager::stop() {
  if (king_) king_->stop();
}

void Manager::handleCommand(const std::shared_ptr<Connection>& connection,
                            const std::string& requester, const vl::Dictionary& message) {
  const vl::Value& uuid = message.get("UUID");
  vl::Error error;
  std::optional<vl::Value> parsed = vl::json::parse(textOf(message, "command"), &error);
  vl::Value answer;
  if (!parsed || !parsed->asDictionary()) {
    answer = commandError(vl::format(
        "The command is not a JSON dictionary: %s",
        parsed ? std::string("another JSON value") : error.localizedDescription()));
  } else if (parsed->asDictionary()->contains(kRunTestCase)) {
    return runTestCase(connection, requester, uuid, *parsed->asDictionary());
  } else {
    answer = answerCommand(registry_, requester, *parsed->asDictionary());
  }
  log(VLLogLevelDebug, "Command of %s answered: %@", requester, answer);
  connection->send(vl::Dictionary{
      {"MessageType", "ManagerCommandResult"}, {"UUID", uuid}, {"ManagerCommandResult", answer}});
}

void Manager::runTestCase(const std::shared_ptr<Connection>& connection,
                          const std::string& requester, const vl::Value& uuid,
                          const vl::Dictionary& command) {
  auto answer = [&](const vl::Value& value) {
    connection->send(vl::Dictionary{
        {"MessageType", "ManagerCommandResult"}, {"UUID", uuid}, {"ManagerCommandResult", value}});
  };
  const vl::Dictionary* request = command.get(kRunTestCase).asDictionary();
  const std::string* name = request ? request->get("Name").asString() : nullptr;
  const vl::Value& options = request ? request->get("Options") : vl::Value();
  if (!name || !(options.isNone() || options.asDictionary())) {
    return answer(commandError(
        "RunTestCase needs a dictionary with \"Name\" (text) and \"Options\" (a dictionary)"));
  }
  std::vector<std::string> names;
  if (const vl::Value* characteristics = command.find("characteristics");
      characteristics && !characteristics->isNone()) {
    std::string error;
    auto parsed = characteristicNames(*characteristics, &error);
    if (!parsed) return answer(commandError(error));
    names = *parsed;
  }
  std::optional<std::string> device = registry_.pickDevice(names, requester);
  if (!device) {
    return answer(commandError(vl::format("No connected device has the characteristics %@",
                                          command.get("characteristics"))));
  }

  auto testCase = VLTestCaseObject::make();
  testCase->setName(*name);
  if (options.asDictionary()) testCase->setOptions(*options.asDictionary());
  std::optional<vl::Data> archive = VLConvertObjectToData(vl::Value(testCase));
  if (!archive) return answer(commandError("The test case's options cannot be archived"));

  const std::string requestUUID = vl::Uuid::randomString();
  routes_.add(*device, requestUUID, TestCaseRoute{requester, uuid, true, *name});
  log(VLLogLevelInfo, "Running %s of %s on %s", *name, requester, *device);
  bool sent = sendTo(*device, vl::Dictionary{{"MessageType", "TestCaseRequest"},
                                             {"UUID", requestUUID},
                                             {"TestCase", *archive},
                                             {"RequestingDevice", requester},
                                             {"identifier", *device}});
  if (!sent) {
    // Whoever takes the route answers it: here, or the disconnect that beat this send.
    if (std::optional<TestCaseRoute> route = routes_.take(*device, requestUUID)) {
      failRoute(*device, *route, vl::format("Device %s disconnected before it answered", *device));
    }
  }
}

void Manager::relayTestCaseRequest(const std::shared_ptr<Connection>& connection,
                                   const std::string& requester, const vl::Dictionary& message) {
  const std::string device = textOf(message, "identifier");
  const std::string name = archivedTestCaseName(message.get("TestCase"));
  const std::string* uuid = message.get("UUID").asString();
  std::string reason;
  if (!uuid) {
    reason = "The test case request carries no UUID";
  } else if (!registry_.isConnected(device)) {
    reason = vl::format("Device %s is not connected to the manager", device);
  } else {
    routes_.add(device, *uuid, TestCaseRoute{requester, *uuid, false, name});
    log(VLLogLevelInfo, "Relaying %s from %s to %s", name, requester, device);
    if (sendTo(device, message)) return;
    if (!routes_.take(device, *uuid)) return;  // the disconnect answered it
    reason = vl::format("Device %s is not connected to the manager", device);
  }
  log(VLLogLevelNotice, "Test case %s of %s cannot run: %s", name, requester, reason);
  connection->send(failedTestCaseReply(message.get("UUID"), name, reason));
}

void Manager::handleKingRequest(const std::shared_ptr<Connection>& connection,
                                const std::string& requester, const vl::Dictionary& message) {
  const vl::Value uuid = message.get("UUID");
  const int64_t request = message.get("request").int64Or(0);
  if (!king_) {
    connection->send(vl::Dictionary{
        {"UUID", uuid},
        {"succeeded", false},
        {"error", "No king handler is configured on the manager (--king-handler PROGRAM)"}});
    return;
  }
  log(VLLogLevelInfo, "Host request %lld of %s goes to the king handler",
      static_cast<long long>(request), requester);
  king_->run(request, message.get("command"), requester,
             [this, requester, uuid](const KingOutcome& outcome) {
               vl::Dictionary reply{{"UUID", uuid}, {"succeeded", outcome.succeeded}};
               if (!outcome.succeeded) reply.set("error", outcome.error);
               if (!sendTo(requester, reply)) {
                 log(VLLogLevelNotice, "The answer to a host request of %s is lost: %@",
                     requester, reply);
               }
             });
}

void Manager::deliverReply(const std::string& device, const TestCaseRoute& route,
                           const vl::Dictionary& reply) {
  vl::Dictionary answer = reply;
  if (route.managerCommand) {
    answer = vl::Dictionary{
        {"MessageType", "ManagerCommandResult"},
        {"UUID", route.answerUUID},
        {"ManagerCommandResult",
         vl::Dictionary{{"Device", device}, {"Result", reply.get("Result")}}}};
  }
  log(VLLogLevelInfo, "%s answered test case %s of %s", device, route.testCaseName,
      route.requester);
  if (!sendTo(route.requester, answer)) {
    log(VLLogLevelNotice, "%s is gone; the answer of %s to its test case %s is lost",
        route.requester, device, route.testCaseName);
  }
}

void Manager::failRoute(const std::string& device, const TestCaseRoute& route,
                        const std::string& reason) {
  log(VLLogLevelNotice, "Test case %s of %s on %s: %s", route.testCaseName, route.requester,
      device, reason);
  if (route.managerCommand) {
    sendTo(route.requester, vl::Dictionary{{"MessageType", "ManagerCommandResult"},
                                           {"UUID", route.answerUUID},
                                           {"ManagerCommandResult", commandError(reason)}});
  } else {
    sendTo(route.requester, failedTestCaseReply(route.answerUUID, route.testCaseName, reason));
  }
}

bool Manager::sendTo(const std::string& serialNumber, const vl::Dictionary& message) {
  std::shared_ptr<Connection> connection;
  {
    std::lock_guard lock(mutex_);
    auto it = connections_.find(serialNumber);
    if (it == connections_.end()) return false;
    connection = it->second;
  }
  return connection->send(message);
}

}  // namespace manager
