#include "vorlund/catalogue/preferences.h"

#include <exception>
#include <optional>

#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/logging/log.h"

namespace {
constexpr const char* kTestSettingsFile = "~/Library/Logs/Vorlund/Settings.plist";
}  // namespace

std::string VLGetTestSettingsFilePath() { return vl::paths::expandTilde(kTestSettingsFile); }

vl::Dictionary VLGetPreferences() {
  std::string path = VLGetTestSettingsFilePath();
  std::optional<vl::Dictionary> preferences;
  try {
    preferences = vl::plist::readDictionary(path);
  } catch (const std::exception&) {
    preferences.reset();
  }
  if (!preferences) {
    VLLog(VLLogLevelError, "VLCore", "Empty Preferences at '%@', returning empty dictionary", path);
    return {};
  }
  return std::move(*preferences);
}
