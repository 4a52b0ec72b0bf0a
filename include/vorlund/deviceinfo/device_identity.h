// What the device is: its unique identifier, hardware model and software build, and the hardware
// and software summaries a new run records ("Hardware Info", "Software Info"). Every value is read
// afresh from files under the device root ($VORLUND_ROOT); an unknown value is "" (and left out
// of a summary); nothing here throws.
//
// deviceinfo sits above the catalogue, whose preferences name the serial number, and below the
// device tools and the results, which name the device in paths, buckets and results files.
#pragma once

#include <string>

#include "vorlund/foundation/value.h"

namespace vl {

// /etc/machine-id, trimmed.
std::string deviceUniqueIdentifier();
// /sys/class/dmi/id/product_name, else the device-tree model (/proc/device-tree/model).
std::string deviceHardwareModel();
// VERSION_ID of /etc/os-release (quotes removed).
std::string deviceBuildVersion();
// PRETTY_NAME of /etc/os-release (quotes removed).
std::string deviceOSName();

// "SerialNumber" (deviceSerialNumber), "HardwareModel", "Architecture" (uname machine).
Dictionary hardwareSummary();
// "OSName", "BuildVersion", "Kernel" (uname release).
Dictionary softwareSummary();

}  // namespace vl
