// Feeds arbitrary bytes to the preferences reader as the preferences file, and reads the
// configuration of the dictionary it returns: environments and their test case entries.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/catalogue/preferences.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vl::fuzz::placeFile(VLGetTestSettingsFilePath(),
                      std::string_view(reinterpret_cast<const char*>(data), size));
  vl::Dictionary preferences = VLGetPreferences();

  vl::Array all = VLConfig::getTestCaseNames(preferences);
  for (const vl::Value& entry : all) {
    if (const std::string* name = entry.asString()) {
      vl::fuzz::require(VLConfig::hasTestCaseName(preferences, *name),
                        "every listed test case name is found again");
    }
  }
  if (auto names = VLConfig::getEnvironmentNames(preferences)) {
    for (const std::string& name : *names) {
      VLConfig::getTestCaseNamesForEnvironment(preferences, name);
    }
  }
  return 0;
}
