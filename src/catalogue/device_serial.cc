#include "vorlund/catalogue/device_serial.h"

#include <cstdlib>
#include <optional>

#include "vorlund/catalogue/preferences.h"
#include "vorlund/foundation/paths.h"

namespace vl {
namespace {

std::string trimmed(std::string text) {
  const char* blanks = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return "";
  size_t last = text.find_last_not_of(blanks);
  return text.substr(first, last - first + 1);
}

std::string fileText(const char* devicePath) {
  std::optional<std::string> text = paths::readFile(paths::resolve(devicePath));
  return text ? trimmed(std::move(*text)) : "";
}

}  // namespace

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
    std::string dmi = fileText("/sys/class/dmi/id/product_serial");
    if (!dmi.empty()) return dmi;
    return fileText("/etc/machine-id");
  } catch (const std::exception&) {
    return "";
  }
}

}  // namespace vl
