#include "vorlund/deviceinfo/device_serial.h"

#include <cstdlib>

#include "deviceinfo/device_files.h"
#include "vorlund/catalogue/preferences.h"

namespace vl {

using deviceinfo::deviceFileText;
using deviceinfo::trimmed;

std::string deviceSerialNumber() {
  try {
    Dictionary preferences = VLGetPreferences();
    if (const std::string* serial = preferences.get("SerialNumber").asString()) {
      std::string value = trimmed(*serial);
      if (!value.empty()) return value;
    }
    if (const char* environment = std::getenv("VORLUND_SERIAL_NUMBER")) {
      std::string value = trimmed(environment);
      if (!value.empty()) return value;
    }
    std::string dmi = deviceFileText("/sys/class/dmi/id/product_serial");
    if (!dmi.empty()) return dmi;
    return deviceFileText("/etc/machine-id");
  } catch (const std::exception&) {
    return "";
  }
}

}  // namespace vl
