#include "vorlund/deviceinfo/device_identity.h"

#include <sys/utsname.h>

#include <optional>
#include <sstream>

#include "deviceinfo/device_files.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/foundation/paths.h"

namespace vl {
namespace {

using deviceinfo::deviceFileText;
using deviceinfo::trimmed;

// The value of KEY=value in /etc/os-release, its shell quotes removed.
std::string osRelease(const std::string& key) {
  std::optional<std::string> text = paths::readFile(paths::resolve("/etc/os-release"));
  if (!text) return "";
  std::istringstream lines(*text);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind(key + "=", 0) != 0) continue;
    std::string value = trimmed(line.substr(key.size() + 1));
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
      value = value.substr(1, value.size() - 2);
    }
    return value;
  }
  return "";
}

void setIfKnown(Dictionary& dictionary, const char* key, const std::string& value) {
  if (!value.empty()) dictionary.set(key, value);
}

}  // namespace

std::string deviceUniqueIdentifier() { return deviceFileText("/etc/machine-id"); }

std::string deviceHardwareModel() {
  std::string model = deviceFileText("/sys/class/dmi/id/product_name");
  return model.empty() ? deviceFileText("/proc/device-tree/model") : model;
}

std::string deviceBuildVersion() { return osRelease("VERSION_ID"); }

std::string deviceOSName() { return osRelease("PRETTY_NAME"); }

Dictionary hardwareSummary() {
  Dictionary summary;
  setIfKnown(summary, "SerialNumber", deviceSerialNumber());
  setIfKnown(summary, "HardwareModel", deviceHardwareModel());
  struct utsname names {};
  if (uname(&names) == 0) setIfKnown(summary, "Architecture", names.machine);
  return summary;
}

Dictionary softwareSummary() {
  Dictionary summary;
  setIfKnown(summary, "OSName", deviceOSName());
  setIfKnown(summary, "BuildVersion", deviceBuildVersion());
  struct utsname names {};
  if (uname(&names) == 0) setIfKnown(summary, "Kernel", names.release);
  return summary;
}

}  // namespace vl
