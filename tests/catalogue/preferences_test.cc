#include "vorlund/catalogue/preferences.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "catalogue/value_printers.h"
#include "support/test_support.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/logging/log_capture.h"

namespace {

using vl::Dictionary;
using vl::Value;

std::string emptyLine(const std::string& path) {
  return "Empty Preferences at '" + path + "', returning empty dictionary";
}

TEST(PreferencesTest, PathIsUnderTheHomeFolder) {
  vl::test::Sandbox sandbox;
  EXPECT_EQ(VLGetTestSettingsFilePath(), sandbox.home() + "/Library/Logs/Vorlund/Settings.plist");
}

TEST(PreferencesTest, EveryCallReadsTheFileAfresh) {
  vl::test::Sandbox sandbox;
  std::string path = VLGetTestSettingsFilePath();
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());

  ASSERT_TRUE(vl::plist::writeFile(Value(Dictionary{{"StressType", "Soak"}}), path));
  EXPECT_EQ(VLGetPreferences(), (Dictionary{{"StressType", "Soak"}}));

  ASSERT_TRUE(vl::plist::writeFile(Value(Dictionary{{"StressType", "Burst"}, {"Config", "Lab"}}),
                                   path, vl::plist::Format::Binary));
  Dictionary preferences = VLGetPreferences();
  EXPECT_EQ(preferences, (Dictionary{{"StressType", "Burst"}, {"Config", "Lab"}}));

  // The caller's copy is its own.
  preferences.set("Config", "Changed");
  EXPECT_EQ(VLGetPreferences().get("Config"), Value("Lab"));
}

TEST(PreferencesTest, MissingOrBrokenFileGivesAnEmptyDictionaryAndAnErrorEachTime) {
  vl::test::Sandbox sandbox;
  std::string path = VLGetTestSettingsFilePath();
  vl::LogCapture capture;

  EXPECT_TRUE(VLGetPreferences().empty());
  EXPECT_TRUE(VLGetPreferences().empty());
  EXPECT_TRUE(capture.contains(VLLogLevelError, "VLCore", emptyLine(path)));
  EXPECT_EQ(capture.count(emptyLine(path)), 2u);

  capture.clear();
  vl::test::writeFile(path, "this is not a property list");
  EXPECT_TRUE(VLGetPreferences().empty());
  EXPECT_EQ(capture.count(emptyLine(path)), 1u);

  capture.clear();
  ASSERT_TRUE(vl::plist::writeFile(Value(vl::Array{"a", "b"}), path));
  EXPECT_TRUE(VLGetPreferences().empty());
  EXPECT_EQ(capture.count(emptyLine(path)), 1u);
}

}  // namespace
