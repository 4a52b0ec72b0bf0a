// vorlundctl device: what the device tells about itself, as results and memory diagnostics name it.
// Unknown values print empty.
#include <cstdio>

#include "commands.h"
#include "vorlund/deviceinfo/device_identity.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/deviceinfo/radio_state.h"
#include "vorlund/deviceinfo/technologies_in_use.h"
#include "vorlund/foundation/json.h"

namespace vorlundctl {

namespace {

vl::Dictionary deviceInformation() {
  vl::Array technologies;
  for (const std::string& technology : vl::technologiesInUse()) technologies.push_back(technology);
  vl::Dictionary device;
  device.set("SerialNumber", vl::deviceSerialNumber());
  device.set("UniqueIdentifier", vl::deviceUniqueIdentifier());
  device.set("HardwareModel", vl::deviceHardwareModel());
  device.set("BuildVersion", vl::deviceBuildVersion());
  device.set("BasebandPresent", vl::basebandPresent());
  device.set("TechnologiesInUse", technologies);
  device.set("CampedRAT", vl::campedRadioTechnology(1));
  device.set("CampedRAT2", vl::campedRadioTechnology(2));
  return device;
}

std::string plainText(const vl::Value& value) {
  if (const std::string* text = value.asString()) return *text;
  if (const vl::Array* items = value.asArray()) {
    std::string joined;
    for (size_t i = 0; i < items->size(); ++i) {
      joined += (i ? ", " : "") + plainText((*items)[i]);
    }
    return joined;
  }
  if (value.isNumber()) return value.boolOr(false) ? "yes" : "no";  // the one number is a flag
  return value.description();
}

}  // namespace

void addDeviceCommand(CLI::App& app) {
  static bool asJson = false;
  auto* device = app.add_subcommand("device", "Show the device's identity and radio state");
  device->add_flag("--json", asJson, "Print as one JSON object");
  setAction(device, [] {
    vl::Dictionary information = deviceInformation();
    if (asJson) {
      std::printf("%s\n", vl::json::displayString(information).c_str());
      return 0;
    }
    for (size_t i = 0; i < information.size(); ++i) {
      auto [key, value] = information.entry(i);
      std::printf("%s: %s\n", key.c_str(), plainText(value).c_str());
    }
    return 0;
  });
}

}  // namespace vorlundctl
