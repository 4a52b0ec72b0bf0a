#include "vorlund/foundation/user_defaults.h"

#include <gtest/gtest.h>

#include "support/test_support.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/property_list.h"

namespace vl {
namespace {

TEST(UserDefaultsTest, ArgumentDomainWinsOverTheProgramsDefaultsFile) {
  test::Sandbox sandbox;
  process::ScopedName name("vorlund-defaults");
  const std::string path = sandbox.home() + "/Library/Preferences/vorlund-defaults.plist";
  EXPECT_EQ(UserDefaults::defaultsPath(), path);
  ASSERT_TRUE(paths::createDirectories(paths::deletingLastComponent(path)));
  ASSERT_TRUE(plist::writeFile(Value(Dictionary{{"StressType", Value("FromFile")},
                                                {"Count", Value(int64_t{3})},
                                                {"Level", Value(int64_t{1})}}),
                               path));
  process::ScopedArguments arguments({"/usr/bin/vorlund-defaults", "stray", "-StressType", "WiFi",
                                      "-Level",
                                      "<plist version=\"1.0\"><integer>7</integer></plist>",
                                      "-Offset", "-5", "-Broken", "<plist><oops", "-Dangling"});
  UserDefaults& defaults = UserDefaults::standard();
  EXPECT_EQ(defaults.object("StressType"), Value("WiFi"));
  EXPECT_EQ(defaults.string("StressType"), "WiFi");
  EXPECT_EQ(defaults.object("Count"), Value(int64_t{3}));
  EXPECT_EQ(defaults.string("Count"), std::nullopt);
  ASSERT_TRUE(defaults.object("Level").isNumber());
  EXPECT_EQ(defaults.object("Level").asNumber()->int64Value(), 7);
  EXPECT_EQ(defaults.object("Offset"), Value("-5"));
  EXPECT_EQ(defaults.object("Broken"), Value("<plist><oops"));
  EXPECT_TRUE(defaults.object("Dangling").isNone());
  EXPECT_TRUE(defaults.object("stray").isNone());
  EXPECT_TRUE(defaults.object("Missing").isNone());

  Dictionary all = defaults.dictionaryRepresentation();
  EXPECT_EQ(all.keys(),
            (std::vector<std::string>{"StressType", "Count", "Level", "Offset", "Broken"}));
  EXPECT_EQ(all.get("StressType"), Value("WiFi"));

  // Nothing is cached: a changed file is seen at once.
  ASSERT_TRUE(plist::writeFile(Value(Dictionary{{"Count", Value(int64_t{4})}}), path));
  EXPECT_EQ(defaults.object("Count"), Value(int64_t{4}));
}

TEST(UserDefaultsTest, WithoutAFileOnlyTheArgumentsCount) {
  test::Sandbox sandbox;
  process::ScopedName name("vorlund-no-file");
  process::ScopedArguments arguments({"/usr/bin/x", "-StressSubtype", "Bluetooth"});
  EXPECT_EQ(UserDefaults::standard().dictionaryRepresentation(),
            (Dictionary{{"StressSubtype", Value("Bluetooth")}}));
  process::ScopedArguments none({"/usr/bin/x"});
  EXPECT_TRUE(UserDefaults::standard().dictionaryRepresentation().empty());
}

}  // namespace
}  // namespace vl
