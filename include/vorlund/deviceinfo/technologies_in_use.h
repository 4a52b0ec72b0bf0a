// Which wireless technologies the device is using right now, read from the kernel's device
// classes under the device root: a result that fails while several radios are busy says so.
// Linking this module in also tells the catalogue's primary-process table whether a modem exists.
#pragma once

#include <string>
#include <vector>

namespace vl {

// Technology names in the order "Cellular", "WiFi", "Bluetooth": "Cellular" when a WWAN device
// exists (/sys/class/wwan/*), "WiFi" when a network interface with a "wireless" folder has
// operstate "up", "Bluetooth" when a Bluetooth controller exists (/sys/class/bluetooth/hci*).
// Empty when the device shows none (or sysfs cannot be read). Never throws.
std::vector<std::string> technologiesInUse();

// Whether the device has a cellular modem (a WWAN device under /sys/class/wwan).
bool basebandPresent();

}  // namespace vl
