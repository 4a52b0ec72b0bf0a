// Manager commands: what a device asks of the run's manager (the controlling side, reached through
// the gateway on this machine): set its advertised characteristics and attributes, find peers by
// them, run a test case on some device. Each request is one dictionary sent as one frame:
//
//   {"MessageType": "ManagerCommandRequest", "UUID": new upper-case UUID, "RequestingDevice": the
//    serial number, "command": the command dictionary with "UDID" added, as pretty JSON text,
//    "destination": "manager"}
//
// With a reply owner the call waits for the manager's {"UUID", "MessageType":
// "ManagerCommandResult", "ManagerCommandResult": answer}, which the message router hands to the
// owner; the call returns {"Result": answer}. Without one (nullptr) the request is fire-and-forget
// and the call returns a copy of the envelope it sent.
//
// The gateway is "localhost" at vl::gatewayPort(), 3 connection attempts 1 second apart.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "vorlund/catalogue/pending_reply_owner.h"
#include "vorlund/foundation/value.h"

namespace vl {

// How long a waited command waits after its request, and again after each reply meant for another
// request of the same owner (nominal seconds, through the time scale). Only this long a silence
// ends the wait, however many other replies come in between.
inline constexpr double kManagerCommandWaitSeconds = 30;

}  // namespace vl

// Adds "UDID" (vl::deviceUniqueIdentifier()) to command, writes it as pretty-printed JSON and
// sends it with VLManagerCommandString. When the command cannot be written as JSON (it holds dates,
// data, records or non-finite numbers) nothing is sent and the result is {"error": "Problem
// encountered generating report: <the serialiser's error>"}.
std::optional<vl::Dictionary> VLManagerCommand(const std::shared_ptr<VLPendingReplyOwner>& holder,
                                               const vl::Dictionary& command);

// Sends command (JSON text) in the envelope above.
//
// Returns none, logging "Cannot get gateway socket" (level 16, category "VLCore"), when the
// gateway cannot be reached. Without a holder: the envelope sent. With one: {"Result": the
// manager's answer}, or none when no reply came within kManagerCommandWaitSeconds of quiet
// ("Timed out waiting for ManagerCommand to finish.  Waited 30.000000 seconds", level 16). A reply
// that lands as the wait times out is still taken and counted in the current results with the
// statistic "Found response in timeout check". One owner runs one waited command at a time: a
// second caller blocks until the first one's wait ends.
std::optional<vl::Dictionary> VLManagerCommandString(
    const std::shared_ptr<VLPendingReplyOwner>& holder, const std::string& command);

// The commands. All but VLManagerRunTestCase are fire-and-forget; the values are passed through
// as they are. Each name below is the command's key in the command dictionary.

// "SetCharacteristics" = characteristics, "ts" = timestamp.
void VLManagerSetCharacteristics(const vl::Value& characteristics, double timestamp);
// "AddCharacteristic" = characteristic (with "timeout" = timeout and/or "target" = target UUID).
// The target comes first in the ForUUID functions.
void VLManagerAddCharacteristic(const vl::Value& characteristic);
void VLManagerAddCharacteristicWithTimeout(const vl::Value& characteristic,
                                           const vl::Value& timeout);
void VLManagerAddCharacteristicForUUID(const vl::Value& target, const vl::Value& characteristic);
void VLManagerAddCharacteristicForUUIDWithTimeout(const vl::Value& target,
                                                  const vl::Value& characteristic,
                                                  const vl::Value& timeout);
// "RemoveCharacteristic" = characteristic (with "target" = target UUID).
void VLManagerRemoveCharacteristic(const vl::Value& characteristic);
void VLManagerRemoveCharacteristicForUUID(const vl::Value& target, const vl::Value& characteristic);
// "SetAttribute" = {"name": name, "value": value}.
void VLManagerSetAttribute(const vl::Value& name, const vl::Value& value);

// The finds send no owner, so they return the envelope sent (none when the gateway is down); the
// manager's answer arrives later as a "ManagerCommandResult" notification (ManagerRemote).
// "FindDevices" = {"characteristics": characteristics}.
std::optional<vl::Dictionary> VLManagerFindDevicesWith(const vl::Value& characteristics);
// "FindDevicesWithout" = {"characteristics": characteristics}.
std::optional<vl::Dictionary> VLManagerFindDevicesWithout(const vl::Value& characteristics);
// "FindDevicesWithAttributes" = {"attributes": attributes}.
std::optional<vl::Dictionary> VLManagerFindDevicesWithAttribute(const vl::Value& attributes);

// "RunTestCase" = {"Name": name, "Options": a copy of options with "commandId" = a new UUID},
// "characteristics" = characteristics; waits through holder as VLManagerCommandString does. The
// caller's options are never changed.
std::optional<vl::Dictionary> VLManagerRunTestCase(
    const std::shared_ptr<VLPendingReplyOwner>& holder, const std::string& name,
    const vl::Dictionary& options, const vl::Value& characteristics);
