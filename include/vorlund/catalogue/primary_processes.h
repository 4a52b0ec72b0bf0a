// The run's stress type, subtype and configuration name, and the primary-process table: for each
// wireless area, the system daemons whose crashes count against that area (a wifi run cares
// about wpa_supplicant, iwd and NetworkManager). The results aggregate classifies crashes with it.
#pragma once

#include <string>

#include "vorlund/foundation/value.h"

// The twelve areas of the table, in order.
inline constexpr const char* kVLPrimaryProcessAreas[] = {
    "cellular",    "location", "motion",   "wifi",        "bluetooth", "ltecoex",
    "wificalling", "nfc",      "domicile", "accessories", "dashlink",  "uwb"};

// The stress type (test mode): the "StressType" preference, else the "StressType" user default,
// else "Unknown" when the process has no arguments beyond its path and "None" when it has some.
// Logs each source it checks (category "VLGetCurrentTestMode").
std::string VLGetCurrentTestMode();
// The stress subtype: the "StressSubtype" preference, else the "StressSubtype" user default, else
// the third process argument, else "Default" with an error line (category
// "VLGetCurrentTestSubtype").
std::string VLGetCurrentTestSubtype();
// The "Config" preference, or "None".
std::string VLGetCurrentConfig();

// The table for a subtype: area name -> array of process names (as /proc/<pid>/comm shows them).
//   cellular     ModemManager, ofonod, qmi-proxy, mbim-proxy (only when the device has a modem)
//   location     gpsd, geoclue
//   motion       iio-sensor-proxy
//   wifi         wpa_supplicant, iwd, NetworkManager, hostapd
//   bluetooth    bluetoothd, obexd
//   ltecoex      the cellular daemons with wpa_supplicant, iwd and bluetoothd
//   wificalling  wpa_supplicant, iwd, NetworkManager with the cellular daemons
//   nfc          neard
//   domicile     otbr-agent, avahi-daemon
//   accessories  systemd-udevd, fwupd
//   dashlink     bluetoothd, wpa_supplicant, pipewire, wireplumber
//   uwb          uwbd
// The subtypes "holistic", "sanity" and "overall" add an entry of their own name that combines
// areas: "sanity" the cellular, wifi and bluetooth daemons; "holistic" every radio area (cellular,
// location, wifi, bluetooth, nfc, uwb); "overall" every area. Names appear once per entry.
// The bundles' primary processes for the subtype (VLGetBundlePrimaryProcesses: process name ->
// value) are set on top, when the bundle directory exists.
vl::Dictionary VLGetPrimaryProcessesWithSubtype(const std::string& subtype);
// VLGetPrimaryProcessesWithSubtype(VLGetCurrentTestSubtype()).
vl::Dictionary VLGetPrimaryProcesses();
