#include "device_registry.h"

#include <algorithm>
#include <cmath>

#include "vorlund/foundation/format.h"
#include "vorlund/foundation/time_scale.h"

namespace manager {

std::optional<std::vector<std::string>> characteristicNames(const vl::Value& value,
                                                            std::string* error) {
  if (const std::string* name = value.asString()) return std::vector<std::string>{*name};
  if (const vl::Array* array = value.asArray()) {
    std::vector<std::string> names;
    for (const vl::Value& element : *array) {
      const std::string* name = element.asString();
      if (!name) break;
      names.push_back(*name);
    }
    if (names.size() == array->size()) return names;
  }
  *error = vl::format("Characteristics must be a name or an array of names, not %@", value);
  return std::nullopt;
}

namespace {

std::string unknownDevice(const std::string& serialNumber) {
  return vl::format("No device with serial number %s has said hello", serialNumber);
}

}  // namespace

void DeviceRegistry::deviceConnected(const DeviceIdentity& identity) {
  std::lock_guard lock(mutex_);
  Device& device = devices_[identity.serialNumber];
  device.identity = identity;
  device.connected = true;
}

void DeviceRegistry::deviceDisconnected(const std::string& serialNumber) {
  std::lock_guard lock(mutex_);
  if (Device* device = findLocked(serialNumber)) device->connected = false;
}

bool DeviceRegistry::isConnected(const std::string& serialNumber) const {
  std::lock_guard lock(mutex_);
  auto it = devices_.find(serialNumber);
  return it != devices_.end() && it->second.connected;
}

std::optional<std::string> DeviceRegistry::resolveTarget(const std::string& target) const {
  std::lock_guard lock(mutex_);
  if (devices_.count(target)) return target;
  for (const auto& [serial, device] : devices_) {
    if (device.identity.udid == target) return serial;
  }
  return std::nullopt;
}

std::optional<std::string> DeviceRegistry::setCharacteristics(const std::string& serialNumber,
                                                              const vl::Value& names,
                                                              std::optional<double> timestamp) {
  return changeNames(serialNumber, names, [timestamp](Device& device, const auto& parsed) {
    if (timestamp && device.characteristicsTimestamp &&
        *timestamp < *device.characteristicsTimestamp) {
      return std::optional(
          vl::format("Characteristics stamped %f are older than those set at %f; ignored",
                     *timestamp, *device.characteristicsTimestamp));
    }
    if (timestamp) device.characteristicsTimestamp = timestamp;
    device.characteristics.clear();
    for (const std::string& name : parsed) device.characteristics[name] = Characteristic{};
    return std::optional<std::string>();
  });
}

std::optional<std::string> DeviceRegistry::addCharacteristics(
    const std::string& serialNumber, const vl::Value& names, std::optional<double> timeoutSeconds) {
  Characteristic characteristic;
  if (timeoutSeconds) {
    if (!(std::isfinite(*timeoutSeconds) && *timeoutSeconds > 0)) {
      return vl::format("A time-out must be a positive number of seconds, not %f",
                        *timeoutSeconds);
    }
    auto lasting = vl::time::scaled(*timeoutSeconds);
    characteristic.expires = std::chrono::steady_clock::now() + lasting;
    characteristic.expiresAt = vl::Date{vl::Date::now().secondsSince1970 +
                                        std::chrono::duration<double>(lasting).count()};
  }
  return changeNames(serialNumber, names, [&characteristic](Device& device, const auto& parsed) {
    for (const std::string& name : parsed) device.characteristics[name] = characteristic;
    return std::optional<std::string>();
  });
}

std::optional<std::string> DeviceRegistry::removeCharacteristics(const std::string& serialNumber,
                                                                 const vl::Value& names) {
  return changeNames(serialNumber, names, [](Device& device, const auto& parsed) {
    for (const std::string& name : parsed) device.characteristics.erase(name);
    return std::optional<std::string>();
  });
}

std::optional<std::string> DeviceRegistry::changeNames(const std::string& serialNumber,
                                                       const vl::Value& names,
                                                       const NamesChange& change) {
  std::string error;
  auto parsed = characteristicNames(names, &error);
  if (!parsed) return error;
  std::lock_guard lock(mutex_);
  Device* device = findLocked(serialNumber);
  if (!device) return unknownDevice(serialNumber);
  return change(*device, *parsed);
}

std::optional<std::string> DeviceRegistry::setAttribute(const std::string& serialNumber,
                                                        const std::string& name,
                                                        const vl::Value& value) {
  std::lock_guard lock(mutex_);
  Device* device = findLocked(serialNumber);
  if (!device) return unknownDevice(serialNumber);
  device->attributes.set(name, value);
  return std::nullopt;
}

std::vector<std::string> DeviceRegistry::devicesWithAll(
    const std::vector<std::string>& names) const {
  return connectedDevicesWhere([&names](const Device& device) {
    return std::all_of(names.begin(), names.end(),
                       [&device](const std::string& name) { return has(device, name); });
  });
}

std::vector<std::string> DeviceRegistry::devicesWithNone(
    const std::vector<std::string>& names) const {
  return connectedDevicesWhere([&names](const Device& device) {
    return std::none_of(names.begin(), names.end(),
                        [&device](const std::string& name) { return has(device, name); });
  });
}

std::vector<std::string> DeviceRegistry::devicesWithAttributes(
    const vl::Dictionary& attributes) const {
  return connectedDevicesWhere([&attributes](const Device& device) {
    for (size_t i = 0; i < attributes.size(); ++i) {
      auto [name, value] = attributes.entry(i);
      const vl::Value* held = device.attributes.find(name);
      if (!held || !(*held == value)) return false;
    }
    return true;
  });
}

std::vector<std::string> DeviceRegistry::connectedDevicesWhere(
    const std::function<bool(const Device&)>& test) const {
  std::lock_guard lock(mutex_);
  expireLocked();
  std::vector<std::string> found;
  for (const auto& [serial, device] : devices_) {
    if (device.connected && test(device)) found.push_back(serial);
  }
  return found;
}

std::optional<std::string> DeviceRegistry::pickDevice(const std::vector<std::string>& names,
                                                      const std::string& requester) const {
  std::optional<std::string> requesterQualifies;
  for (const std::string& serial : devicesWithAll(names)) {
    if (serial != requester) return serial;
    requesterQualifies = serial;
  }
  return requesterQualifies;
}

vl::Array DeviceRegistry::status() const {
  std::lock_guard lock(mutex_);
  expireLocked();
  vl::Array devices;
  for (const auto& [serial, device] : devices_) {
    vl::Array characteristics;
    for (const auto& [name, characteristic] : device.characteristics) {
      vl::Dictionary entry{{"Name", name}};
      if (characteristic.expiresAt) entry.set("Expires", *characteristic.expiresAt);
      characteristics.push_back(std::move(entry));
    }
    devices.push_back(vl::Dictionary{{"SerialNumber", serial},
                                     {"UDID", device.identity.udid},
                                     {"Hostname", device.identity.hostname},
                                     {"Connected", device.connected},
                                     {"Characteristics", std::move(characteristics)},
                                     {"Attributes", device.attributes}});
  }
  return devices;
}

void DeviceRegistry::expireLocked() const {
  auto now = std::chrono::steady_clock::now();
  for (auto& [serial, device] : devices_) {
    std::erase_if(device.characteristics, [now](const auto& entry) {
      return entry.second.expires && *entry.second.expires <= now;
    });
  }
}

DeviceRegistry::Device* DeviceRegistry::findLocked(const std::string& serialNumber) {
  auto it = devices_.find(serialNumber);
  return it == devices_.end() ? nullptr : &it->second;
}

}  // namespace manager
