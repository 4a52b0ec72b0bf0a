// What the manager knows about each device that has ever said hello: its identity, whether its
// bridge is connected now, the characteristics it advertises (each until removed or until its
// time-out passes) and its attributes. The commands change it; the finds and the routing of test
// cases read it. Thread-safe: every member takes the registry's lock.
//
// A device that disconnects keeps its record, so that a bridge reconnecting after a network blip
// finds its characteristics still set; the finds and the routing only ever pick connected devices.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vorlund/foundation/value.h"

namespace manager {

// The characteristic names a command value holds: one string, or an array of strings. None, with
// a text for the requester in *error, for any other value.
std::optional<std::vector<std::string>> characteristicNames(const vl::Value& value,
                                                            std::string* error);

struct DeviceIdentity {
  std::string serialNumber;
  std::string udid;
  std::string hostname;
};

class DeviceRegistry {
 public:
  // Marks the device connected, creating its record on first sight and taking its (possibly new)
  // UDID and host name; what it had set before stays.
  void deviceConnected(const DeviceIdentity& identity);
  void deviceDisconnected(const std::string& serialNumber);
  bool isConnected(const std::string& serialNumber) const;

  // The serial number of the known device whose UDID or serial number is target; none when no
  // device has it.
  std::optional<std::string> resolveTarget(const std::string& target) const;

  // The changes. Each returns none when done, or the error text for the requester (unknown
  // device, names that are not names, a stale time stamp, a time-out that is not a positive
  // number).
  //
  // Replaces every characteristic of the device. A timestamp older than that of the set last
  // applied is refused, so that a set overtaken on the way does not undo a newer one.
  std::optional<std::string> setCharacteristics(const std::string& serialNumber,
                                                const vl::Value& names,
                                                std::optional<double> timestamp);
  // Adds the names; with timeoutSeconds each expires that many seconds from now (scaled by the
  // process time scale), without it they stay until removed. Adding a name again restarts or
  // clears its time-out.
  std::optional<std::string> addCharacteristics(const std::string& serialNumber,
                                                const vl::Value& names,
                                                std::optional<double> timeoutSeconds);
  // Removing a name the device does not have is not an error.
  std::optional<std::string> removeCharacteristics(const std::string& serialNumber,
                                                   const vl::Value& names);
  std::optional<std::string> setAttribute(const std::string& serialNumber, const std::string& name,
                                          const vl::Value& value);

  // Sorted serial numbers of the connected devices that have every one of names (all devices for
  // no names), that have none of them, or whose attributes hold every pair of attributes.
  std::vector<std::string> devicesWithAll(const std::vector<std::string>& names) const;
  std::vector<std::string> devicesWithNone(const std::vector<std::string>& names) const;
  std::vector<std::string> devicesWithAttributes(const vl::Dictionary& attributes) const;

  // The device a test case asked for with names runs on: the first, by serial number, of the
  // connected devices that have all of them, passing over the requester while another one
  // qualifies. None when no connected device qualifies.
  std::optional<std::string> pickDevice(const std::vector<std::string>& names,
                                        const std::string& requester) const;

  // Every known device by serial number: {"SerialNumber", "UDID", "Hostname", "Connected",
  // "Characteristics": [{"Name", "Expires" (a date, only for names with a time-out)}],
  // "Attributes"}.
  vl::Array status() const;

 private:
  struct Characteristic {
    std::optional<std::chrono::steady_clock::time_point> expires;
    std::optional<vl::Date> expiresAt;  // the same moment on the wall clock, for people
  };
  struct Device {
    DeviceIdentity identity;
    bool connected = false;
    std::optional<double> characteristicsTimestamp;
    std::map<std::string, Characteristic> characteristics;
    vl::Dictionary attributes;
  };

  // Parses names and, with the lock held, applies change to the device; none or an error text.
  using NamesChange =
      std::function<std::optional<std::string>(Device&, const std::vector<std::string>&)>;
  std::optional<std::string> changeNames(const std::string& serialNumber, const vl::Value& names,
                                         const NamesChange& change);
  // With mutex_ held: drops the characteristics whose time-out has passed.
  void expireLocked() const;
  static bool has(const Device& device, const std::string& name) {
    return device.characteristics.count(name) > 0;
  }
  // Sorted serial numbers of the connected devices that pass test, after expiring.
  std::vector<std::string> connectedDevicesWhere(
      const std::function<bool(const Device&)>& test) const;
  Device* findLocked(const std::string& serialNumber);

  mutable std::mutex mutex_;
  // Mutable because reading expires characteristics lazily, at the moment of the read.
  mutable std::map<std::string, Device> devices_;
};

}  // namespace manager
