#include "results/device_summary.h"

#include <sys/utsname.h>

#include <optional>
#include <sstream>
#include <string>

#include "vorlund/catalogue/device_serial.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"

namespace vl::results {
namespace {

std::string trimmed(const std::string& text) {
  const char* blanks = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return "";
  // Device-tree strings end with a NUL.
  size_t last = text.find_last_not_of(std::string(blanks) + '\0');
  return text.substr(first, last - first + 1);
}

std::string deviceFile(const char* devicePath) {
  std::optional<std::string> text = paths::readFile(paths::resolve(devicePath));
  return text ? trimmed(*text) : "";
}

// The value of KEY=value (quotes removed) in /etc/os-release.
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

Dictionary hardwareSummary() {
  Dictionary summary;
  setIfKnown(summary, "SerialNumber", deviceSerialNumber());
  std::string model = deviceFile("/sys/class/dmi/id/product_name");
  if (model.empty()) model = deviceFile("/proc/device-tree/model");
  setIfKnown(summary, "HardwareModel", model);
  struct utsname names {};
  if (uname(&names) == 0) setIfKnown(summary, "Architecture", names.machine);
  return summary;
}

Dictionary softwareSummary() {
  Dictionary summary;
  setIfKnown(summary, "OSName", osRelease("PRETTY_NAME"));
  setIfKnown(summary, "BuildVersion", osRelease("VERSION_ID"));
  struct utsname names {};
  if (uname(&names) == 0) setIfKnown(summary, "Kernel", names.release);
  return summary;
}

Dictionary loggingSummary() {
  Dictionary summary;
  summary.set("LogDirectory", paths::expandTilde("~/Library/Logs/Vorlund"));
  setIfKnown(summary, "ProcessName", process::name());
  return summary;
}

}  // namespace vl::results
