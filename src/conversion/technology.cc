#include "vorlund/conversion/technology.h"

#include <array>
#include <utility>

namespace {

constexpr std::array<std::pair<VLTechnology, const char*>, 12> kNames{{
    {VLTechnologyCellular, "Cellular"},
    {VLTechnologyWiFi, "WiFi"},
    {VLTechnologyBluetooth, "Bluetooth"},
    {VLTechnologyLocation, "Location"},
    {VLTechnologyNFC, "NFC"},
    {VLTechnologyDomicile, "Domicile"},
    {VLTechnologyMotion, "Motion"},
    {VLTechnologyParley, "Parley"},
    {VLTechnologyNetworking, "Networking"},
    {VLTechnologyAccessories, "Accessories"},
    {VLTechnologyDashlink, "Dashlink"},
    {VLTechnologyUWB, "UWB"},
}};

constexpr const char* kNoneName = "None";

}  // namespace

VLTechnology VLConvertTechnologyStringToEnum(std::string_view name) {
  for (const auto& [technology, text] : kNames) {
    if (name == text) return technology;
  }
  return VLTechnologyNone;
}

std::string VLConvertTechnologyEnumToString(int64_t technology) {
  for (const auto& [value, text] : kNames) {
    if (technology == value) return text;
  }
  return kNoneName;
}
