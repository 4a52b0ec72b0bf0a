// The device's serial number, as results name the device: the "SerialNumber" preference, then
// $VORLUND_SERIAL_NUMBER, then the machine's DMI serial, then its machine identifier.
// Part of deviceinfo, which sits above the catalogue (it reads the preferences) and below the
// device tools and the results, which name the device with it.
#pragma once

#include <string>

namespace vl {

// The first non-empty of: the "SerialNumber" preference (a string), $VORLUND_SERIAL_NUMBER,
// /sys/class/dmi/id/product_serial and /etc/machine-id (both under the device root, trimmed of
// white space). "" when none is known. Read afresh on every call; never throws.
std::string deviceSerialNumber();

}  // namespace vl
