#include "commands.h"

#include <optional>

#include "vorlund/foundation/format.h"

namespace manager {
namespace {

vl::Value succeeded() { return vl::Dictionary{{"succeeded", true}}; }

vl::Value answerChange(const std::optional<std::string>& error) {
  return error ? vl::Value(commandError(*error)) : succeeded();
}

vl::Value serialNumbers(const std::vector<std::string>& serials) {
  vl::Array array;
  for (const std::string& serial : serials) array.push_back(serial);
  return array;
}

std::optional<double> numberFor(const vl::Dictionary& command, const char* key) {
  const vl::Value* value = command.find(key);
  if (!value || !value->asNumber()) return std::nullopt;
  return value->asNumber()->doubleValue();
}

// The find's argument dictionary, {"characteristics": ...} or {"attributes": ...}.
const vl::Value* findArgument(const vl::Dictionary& command, const char* name, const char* key,
                              std::string* error) {
  const vl::Dictionary* arguments = command.get(name).asDictionary();
  const vl::Value* value = arguments ? arguments->find(key) : nullptr;
  if (!value) *error = vl::format("%s needs a dictionary with \"%s\"", name, key);
  return value;
}

vl::Value answerFind(DeviceRegistry& registry, const vl::Dictionary& command, const char* name) {
  std::string error;
  if (std::string_view(name) == kFindDevicesWithAttributes) {
    const vl::Value* attributes = findArgument(command, name, "attributes", &error);
    if (!attributes) return commandError(error);
    if (!attributes->asDictionary()) {
      return commandError(vl::format("\"attributes\" must be a dictionary, not %@", *attributes));
    }
    return serialNumbers(registry.devicesWithAttributes(*attributes->asDictionary()));
  }
  const vl::Value* characteristics = findArgument(command, name, "characteristics", &error);
  if (!characteristics) return commandError(error);
  auto names = characteristicNames(*characteristics, &error);
  if (!names) return commandError(error);
  return serialNumbers(std::string_view(name) == kFindDevices ? registry.devicesWithAll(*names)
                                                              : registry.devicesWithNone(*names));
}

}  // namespace

vl::Dictionary commandError(const std::string& text) { return vl::Dictionary{{"error", text}}; }

vl::Value answerCommand(DeviceRegistry& registry, const std::string& requester,
                        const vl::Dictionary& command) {
  for (const char* name : {kFindDevices, kFindDevicesWithout, kFindDevicesWithAttributes}) {
    if (command.contains(name)) return answerFind(registry, command, name);
  }

  std::string device = requester;
  if (const vl::Value* target = command.find("target")) {
    std::optional<std::string> resolved =
        target->asString() ? registry.resolveTarget(*target->asString()) : std::nullopt;
    if (!resolved) {
      return commandError(vl::format("No device has the UDID or serial number %@", *target));
    }
    device = *resolved;
  }
  if (const vl::Value* names = command.find(kSetCharacteristics)) {
    return answerChange(registry.setCharacteristics(device, *names, numberFor(command, "ts")));
  }
  if (const vl::Value* names = command.find(kAddCharacteristic)) {
    std::optional<double> timeout = numberFor(command, "timeout");
    if (command.contains("timeout") && !timeout) {
      return commandError("\"timeout\" must be a number of seconds");
    }
    return answerChange(registry.addCharacteristics(device, *names, timeout));
  }
  if (const vl::Value* names = command.find(kRemoveCharacteristic)) {
    return answerChange(registry.removeCharacteristics(device, *names));
  }
  if (const vl::Value* attribute = command.find(kSetAttribute)) {
    const vl::Dictionary* pair = attribute->asDictionary();
    const std::string* name = pair ? pair->get("name").asString() : nullptr;
    if (!name || !pair->contains("value")) {
      return commandError("SetAttribute needs a dictionary with \"name\" (text) and \"value\"");
    }
    return answerChange(registry.setAttribute(device, *name, pair->get("value")));
  }
  return commandError(vl::format("Unknown manager command %@", command));
}

}  // namespace manager
