#include "vorlund/hostlink/manager_commands.h"

#include "hostlink/pending_request.h"
#include "vorlund/conversion/json_conversion.h"
#include "vorlund/deviceinfo/device_identity.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/foundation/error.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kManagerResultKey = "ManagerCommandResult";

}  // namespace

std::optional<vl::Dictionary> VLManagerCommand(const std::shared_ptr<VLPendingReplyOwner>& holder,
                                               const vl::Dictionary& command) {
  vl::Dictionary withDevice = command;
  withDevice.set("UDID", vl::Value(vl::deviceUniqueIdentifier()));
  vl::Error error;
  std::optional<vl::Data> json = VLJSONDataFromObject(vl::Value(withDevice), &error);
  std::optional<std::string> text = json ? VLJSONStringFromJSONData(*json) : std::nullopt;
  if (!text) {
    return vl::Dictionary{
        {"error", vl::format("Problem encountered generating report: %@", error)}};
  }
  return VLManagerCommandString(holder, *text);
}

std::optional<vl::Dictionary> VLManagerCommandString(
    const std::shared_ptr<VLPendingReplyOwner>& holder, const std::string& command) {
  using vl::hostlink::PendingRequest;
  const int descriptor = vl::hostlink::connectToGateway();
  if (descriptor < 0) {
    VLLog(VLLogLevelError, "VLCore", "Cannot get gateway socket");
    return std::nullopt;
  }
  std::optional<PendingRequest> request;
  if (holder) request.emplace(holder, VLLogLevelInfo);
  const std::string uuid = request ? request->uuid() : vl::Uuid::randomString();
  const vl::Dictionary envelope{
      {"MessageType", "ManagerCommandRequest"},
      {"UUID", uuid},
      {"RequestingDevice", vl::deviceSerialNumber()},
      {"command", command},
      {"destination", "manager"},
  };
  vl::hostlink::sendEnvelope(descriptor, envelope);
  if (!request) return envelope;

  auto resultOf = [](const vl::Dictionary& response) {
    return vl::Dictionary{{"Result", response.get(kManagerResultKey)}};
  };
  std::optional<vl::Dictionary> response =
      request->wait({vl::kManagerCommandWaitSeconds, /*renewedByOtherReplies=*/true});
  request->unlock();
  if (response) {
    vl::Dictionary result = resultOf(*response);
    VLLog(VLLogLevelInfo, nullptr, "Remote manager result was %@", result);
    return result;
  }
  response = request->takeAfterTimeout(vl::hostlink::kManagerCommandLostUuidStatistic,
                                       /*showResponse=*/true);
  if (response) return resultOf(*response);
  VLLog(VLLogLevelError, nullptr,
        "Timed out waiting for ManagerCommand to finish.  Waited %f seconds",
        vl::kManagerCommandWaitSeconds);
  return std::nullopt;
}

void VLManagerSetCharacteristics(const vl::Value& characteristics, double timestamp) {
  VLManagerCommand(nullptr, {{"SetCharacteristics", characteristics}, {"ts", timestamp}});
}

void VLManagerAddCharacteristic(const vl::Value& characteristic) {
  VLManagerCommand(nullptr, {{"AddCharacteristic", characteristic}});
}

void VLManagerAddCharacteristicWithTimeout(const vl::Value& characteristic,
                                           const vl::Value& timeout) {
  VLManagerCommand(nullptr, {{"AddCharacteristic", characteristic}, {"timeout", timeout}});
}

void VLManagerAddCharacteristicForUUID(const vl::Value& target, const vl::Value& characteristic) {
  VLManagerCommand(nullptr, {{"AddCharacteristic", characteristic}, {"target", target}});
}

void VLManagerAddCharacteristicForUUIDWithTimeout(const vl::Value& target,
                                                  const vl::Value& characteristic,
                                                  const vl::Value& timeout) {
  VLManagerCommand(
      nullptr, {{"AddCharacteristic", characteristic}, {"target", target}, {"timeout", timeout}});
}

void VLManagerRemoveCharacteristic(const vl::Value& characteristic) {
  VLManagerCommand(nullptr, {{"RemoveCharacteristic", characteristic}});
}

void VLManagerRemoveCharacteristicForUUID(const vl::Value& target,
                                          const vl::Value& characteristic) {
  VLManagerCommand(nullptr, {{"RemoveCharacteristic", characteristic}, {"target", target}});
}

void VLManagerSetAttribute(const vl::Value& name, const vl::Value& value) {
  VLManagerCommand(nullptr, {{"SetAttribute", vl::Dictionary{{"name", name}, {"value", value}}}});
}

std::optional<vl::Dictionary> VLManagerFindDevicesWith(const vl::Value& characteristics) {
  return VLManagerCommand(nullptr,
                          {{"FindDevices", vl::Dictionary{{"characteristics", characteristics}}}});
}

std::optional<vl::Dictionary> VLManagerFindDevicesWithout(const vl::Value& characteristics) {
  return VLManagerCommand(
      nullptr, {{"FindDevicesWithout", vl::Dictionary{{"characteristics", characteristics}}}});
}

std::optional<vl::Dictionary> VLManagerFindDevicesWithAttribute(const vl::Value& attributes) {
  return VLManagerCommand(
      nullptr, {{"FindDevicesWithAttributes", vl::Dictionary{{"attributes", attributes}}}});
}

std::optional<vl::Dictionary> VLManagerRunTestCase(
    const std::shared_ptr<VLPendingReplyOwner>& holder, const std::string& name,
    const vl::Dictionary& options, const vl::Value& characteristics) {
  vl::Dictionary withCommandId = options;
  withCommandId.set("commandId", vl::Value(vl::Uuid::randomString()));
  return VLManagerCommand(
      holder, {{"RunTestCase", vl::Dictionary{{"Name", name}, {"Options", withCommandId}}},
               {"characteristics", characteristics}});
}
