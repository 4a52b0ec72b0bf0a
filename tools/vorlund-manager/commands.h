// The manager commands that only read or change the device registry: the characteristic and
// attribute changes and the three finds. "RunTestCase" needs the network and lives with the
// routing (manager.h).
#pragma once

#include <string>

#include "device_registry.h"
#include "vorlund/foundation/value.h"

namespace manager {

// The names of the commands, as the command dictionary's keys carry them.
inline constexpr const char* kSetCharacteristics = "SetCharacteristics";
inline constexpr const char* kAddCharacteristic = "AddCharacteristic";
inline constexpr const char* kRemoveCharacteristic = "RemoveCharacteristic";
inline constexpr const char* kSetAttribute = "SetAttribute";
inline constexpr const char* kFindDevices = "FindDevices";
inline constexpr const char* kFindDevicesWithout = "FindDevicesWithout";
inline constexpr const char* kFindDevicesWithAttributes = "FindDevicesWithAttributes";
inline constexpr const char* kRunTestCase = "RunTestCase";

// Carries out command for the device requester and returns the value the requester receives as
// its "ManagerCommandResult": {"succeeded": true} for a change, the sorted array of matching
// serial numbers for a find, {"error": text} for a command that is unknown, malformed or refused.
// A change applies to the requester unless the command's "target" names another device by UDID
// or serial number.
vl::Value answerCommand(DeviceRegistry& registry, const std::string& requester,
                        const vl::Dictionary& command);

// {"error": text}, the answer of every failed command.
vl::Dictionary commandError(const std::string& text);

}  // namespace manager
