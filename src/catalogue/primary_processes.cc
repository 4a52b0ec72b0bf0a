#include "vorlund/catalogue/primary_processes.h"

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <vector>

#include "vorlund/catalogue/catalogue_hooks.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/catalogue/test_bundle.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/user_defaults.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kStressTypeKey = "StressType";
constexpr const char* kStressSubtypeKey = "StressSubtype";

vl::Array argumentArray(const std::vector<std::string>& arguments) {
  vl::Array array;
  for (const std::string& argument : arguments) array.push_back(argument);
  return array;
}

// The text of a preference or default that names a type; none for other kinds.
std::optional<std::string> textOf(const vl::Value& value) {
  if (const std::string* text = value.asString()) return *text;
  return std::nullopt;
}

using Names = std::vector<std::string>;

void appendUnique(Names& into, const Names& names) {
  for (const std::string& name : names) {
    if (std::find(into.begin(), into.end(), name) == into.end()) into.push_back(name);
  }
}

Names combined(std::initializer_list<const Names*> lists) {
  Names all;
  for (const Names* list : lists) appendUnique(all, *list);
  return all;
}

vl::Array arrayOf(const Names& names) {
  vl::Array array;
  for (const std::string& name : names) array.push_back(name);
  return array;
}

bool isBundleDirectory(const std::string& path) {
  std::error_code ec;
  return std::filesystem::is_directory(path, ec);
}

}  // namespace

std::string VLGetCurrentTestMode() {
  constexpr const char* kCategory = "VLGetCurrentTestMode";
  VLLog(VLLogLevelInfo, kCategory, "Checking VLGetPreferences() for %@", kStressTypeKey);
  vl::Dictionary preferences = VLGetPreferences();
  if (auto type = textOf(preferences.get(kStressTypeKey))) return *type;
  VLLog(VLLogLevelError, kCategory, "Got no stress type in preferences: %@", preferences);
  vl::UserDefaults& defaults = vl::UserDefaults::standard();
  VLLog(VLLogLevelInfo, kCategory, "Checking standardUserDefaults for %@: %@", kStressTypeKey,
        defaults.dictionaryRepresentation());
  if (auto type = defaults.string(kStressTypeKey)) return *type;
  std::vector<std::string> arguments = vl::process::arguments();
  VLLog(VLLogLevelInfo, kCategory, "Checking process arguments for %@: %@", kStressTypeKey,
        argumentArray(arguments));
  // The arguments only tell whether the process was started bare; they never name the type.
  return arguments.size() == 1 ? "Unknown" : "None";
}

std::string VLGetCurrentTestSubtype() {
  constexpr const char* kCategory = "VLGetCurrentTestSubtype";
  VLLog(VLLogLevelInfo, kCategory, "Checking VLGetPreferences() for %@", kStressSubtypeKey);
  vl::Dictionary preferences = VLGetPreferences();
  if (auto subtype = textOf(preferences.get(kStressSubtypeKey))) return *subtype;
  vl::UserDefaults& defaults = vl::UserDefaults::standard();
  // These two lines name "StressType" as the key although the subtype is looked up; kept so.
  VLLog(VLLogLevelInfo, kCategory, "Checking standardUserDefaults for %@: %@", kStressTypeKey,
        defaults.dictionaryRepresentation());
  if (auto subtype = defaults.string(kStressSubtypeKey)) return *subtype;
  std::vector<std::string> arguments = vl::process::arguments();
  VLLog(VLLogLevelInfo, kCategory, "Checking process arguments for %@: %@", kStressTypeKey,
        argumentArray(arguments));
  if (arguments.size() > 2) return arguments[2];
  VLLog(VLLogLevelError, kCategory,
        "Returning 'Default' since we caught the following exception: %@",
        vl::format("index 2 beyond bounds [0 .. %zd]", static_cast<ssize_t>(arguments.size()) - 1));
  return "Default";
}

std::string VLGetCurrentConfig() {
  vl::Dictionary preferences = VLGetPreferences();
  if (auto config = textOf(preferences.get("Config"))) return *config;
  return "None";
}

vl::Dictionary VLGetPrimaryProcessesWithSubtype(const std::string& subtype) {
  const Names cellular =
      vl::catalogue::deviceHasBaseband() ? Names{"ModemManager", "ofonod", "qmi-proxy", "mbim-proxy"} : Names{};
  const Names location{"gpsd", "geoclue"};
  const Names motion{"iio-sensor-proxy"};
  const Names wifi{"wpa_supplicant", "iwd", "NetworkManager", "hostapd"};
  const Names bluetooth{"bluetoothd", "obexd"};
  const Names ltecoexList = [&] {
    Names names = cellular;
    appendUnique(names, {"wpa_supplicant", "iwd", "bluetoothd"});
    return names;
  }();
  const Names wificalling = [&] {
    Names names{"wpa_supplicant", "iwd", "NetworkManager"};
    appendUnique(names, cellular);
    return names;
  }();
  const Names nfc{"neard"};
  const Names domicile{"otbr-agent", "avahi-daemon"};
  const Names accessories{"systemd-udevd", "fwupd"};
  const Names dashlink{"bluetoothd", "wpa_supplicant", "pipewire", "wireplumber"};
  const Names uwb{"uwbd"};

  vl::Dictionary table;
  table.set("cellular", arrayOf(cellular));
  table.set("location", arrayOf(location));
  table.set("motion", arrayOf(motion));
  table.set("wifi", arrayOf(wifi));
  table.set("bluetooth", arrayOf(bluetooth));
  table.set("ltecoex", arrayOf(ltecoexList));
  table.set("wificalling", arrayOf(wificalling));
  table.set("nfc", arrayOf(nfc));
  table.set("domicile", arrayOf(domicile));
  table.set("accessories", arrayOf(accessories));
  table.set("dashlink", arrayOf(dashlink));
  table.set("uwb", arrayOf(uwb));

  if (subtype == "sanity") {
    table.set("sanity", arrayOf(combined({&cellular, &wifi, &bluetooth})));
  } else if (subtype == "holistic") {
    table.set("holistic", arrayOf(combined({&cellular, &location, &wifi, &bluetooth, &nfc, &uwb})));
  } else if (subtype == "overall") {
    table.set("overall",
              arrayOf(combined({&cellular, &location, &motion, &wifi, &bluetooth, &ltecoexList,
                                &wificalling, &nfc, &domicile, &accessories, &dashlink, &uwb})));
  }

  // The bundles' own primary processes go on top. Only an existing bundle directory is read, and
  // not from within itself: the results aggregate classifies every issue with this table, and a
  // failed listing files an issue.
  thread_local bool mergingBundles = false;
  if (!mergingBundles && isBundleDirectory(VLGetBundleManager()->path())) {
    mergingBundles = true;
    vl::Dictionary bundles = VLGetBundlePrimaryProcesses(subtype);
    mergingBundles = false;
    for (size_t i = 0; i < bundles.size(); ++i) {
      auto [process, value] = bundles.entry(i);
      table.set(process, value);
    }
  }
  return table;
}

vl::Dictionary VLGetPrimaryProcesses() {
  return VLGetPrimaryProcessesWithSubtype(VLGetCurrentTestSubtype());
}
