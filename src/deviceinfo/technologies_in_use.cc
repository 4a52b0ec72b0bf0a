#include "vorlund/deviceinfo/technologies_in_use.h"

#include <filesystem>
#include <optional>
#include <system_error>

#include "vorlund/catalogue/catalogue_hooks.h"
#include "vorlund/foundation/paths.h"

namespace vl {
namespace {

namespace fs = std::filesystem;

// Entries of a device-class folder; empty when it is missing or unreadable.
std::vector<fs::path> entries(const char* devicePath) {
  std::vector<fs::path> found;
  std::error_code error;
  fs::directory_iterator it(paths::resolve(devicePath), error);
  for (; !error && it != fs::directory_iterator(); it.increment(error)) {
    found.push_back(it->path());
  }
  return found;
}

bool wirelessInterfaceUp() {
  for (const fs::path& interface : entries("/sys/class/net")) {
    std::error_code error;
    if (!fs::exists(interface / "wireless", error)) continue;
    std::optional<std::string> state = paths::readFile((interface / "operstate").string());
    if (state && state->rfind("up", 0) == 0) return true;
  }
  return false;
}

bool bluetoothControllerPresent() {
  for (const fs::path& controller : entries("/sys/class/bluetooth")) {
    if (controller.filename().string().rfind("hci", 0) == 0) return true;
  }
  return false;
}

// The catalogue's primary-process table lists the cellular daemons only on a device with a modem.
[[maybe_unused]] const bool kBasebandProbeInstalled = [] {
  catalogue::setBasebandProbe([] { return basebandPresent(); });
  return true;
}();

}  // namespace

std::vector<std::string> technologiesInUse() {
  std::vector<std::string> technologies;
  try {
    if (basebandPresent()) technologies.push_back("Cellular");
    if (wirelessInterfaceUp()) technologies.push_back("WiFi");
    if (bluetoothControllerPresent()) technologies.push_back("Bluetooth");
  } catch (const std::exception&) {
    technologies.clear();
  }
  return technologies;
}

bool basebandPresent() { return !entries("/sys/class/wwan").empty(); }

}  // namespace vl
