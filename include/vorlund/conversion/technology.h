// The wireless technologies a test exercises: one bit each, so that a set of technologies is one
// integer mask, and the names the system prints and reads for them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Persisted in results and sent between processes: never renumber.
enum VLTechnology : int64_t {
  VLTechnologyNone = 0,
  VLTechnologyCellular = 1,
  VLTechnologyWiFi = 2,
  VLTechnologyBluetooth = 4,
  VLTechnologyLocation = 8,
  VLTechnologyNFC = 16,
  VLTechnologyDomicile = 32,
  VLTechnologyMotion = 64,
  VLTechnologyParley = 128,
  VLTechnologyNetworking = 256,
  VLTechnologyAccessories = 512,
  VLTechnologyDashlink = 1024,
  VLTechnologyUWB = 2048,
};

// The technology named exactly (case matters) by name; VLTechnologyNone for any other text.
VLTechnology VLConvertTechnologyStringToEnum(std::string_view name);

// The name of one technology; "None" for 0, for masks of several bits and for unknown values.
std::string VLConvertTechnologyEnumToString(int64_t technology);
