#include "vorlund/catalogue/primary_processes.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "catalogue/value_printers.h"
#include "support/test_support.h"
#include "vorlund/catalogue/catalogue_hooks.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/logging/log_capture.h"

namespace {

using vl::Array;
using vl::Dictionary;
using vl::Value;

void writePreferences(const Dictionary& preferences) {
  std::string path = VLGetTestSettingsFilePath();
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  ASSERT_TRUE(vl::plist::writeFile(Value(preferences), path));
}

TEST(StressSettingsTest, TypeAndSubtypeFallBackThroughTheirSources) {
  vl::test::Sandbox sandbox;
  vl::LogCapture capture;
  {
    vl::process::ScopedArguments arguments({"/usr/bin/stress"});
    EXPECT_EQ(VLGetCurrentTestMode() + VLGetCurrentTestSubtype() + VLGetCurrentConfig(),
              "UnknownDefaultNone");
  }
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "VLGetCurrentTestMode",
                               "Checking VLGetPreferences() for StressType"));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "VLGetCurrentTestSubtype",
                               "Returning 'Default' since we caught the following exception: "
                               "index 2 beyond bounds [0 .. 0]"));
  {
    vl::process::ScopedArguments arguments({"/usr/bin/stress", "a", "b"});
    EXPECT_EQ(VLGetCurrentTestMode() + VLGetCurrentTestSubtype(), "Noneb");
  }
  vl::process::ScopedArguments arguments(
      {"/usr/bin/stress", "-StressType", "wifi", "-StressSubtype", "sanity"});
  EXPECT_EQ(VLGetCurrentTestMode() + VLGetCurrentTestSubtype(), "wifisanity");
  // The preferences come first.
  writePreferences(Dictionary{{"StressType", "nfc"}, {"StressSubtype", "holistic"}});
  EXPECT_EQ(VLGetCurrentTestMode() + VLGetCurrentTestSubtype(), "nfcholistic");
}

TEST(PrimaryProcessesTest, AreasHoldTheLinuxDaemonsAndSubtypesCombineThem) {
  vl::test::Sandbox sandbox;
  Dictionary table = VLGetPrimaryProcessesWithSubtype("Default");
  EXPECT_EQ(table.keys(), std::vector<std::string>(std::begin(kVLPrimaryProcessAreas),
                                                   std::end(kVLPrimaryProcessAreas)));
  // No modem: no cellular daemons anywhere.
  EXPECT_EQ(table.get("cellular"), Value(Array{}));
  EXPECT_FALSE(table.get("wificalling").asArray()->contains(Value("ModemManager")));

  vl::catalogue::setBasebandProbe([] { return true; });
  table = VLGetPrimaryProcessesWithSubtype("sanity");
  EXPECT_EQ(table.get("sanity"),
            Value(Array{"ModemManager", "ofonod", "qmi-proxy", "mbim-proxy", "wpa_supplicant",
                        "iwd", "NetworkManager", "hostapd", "bluetoothd", "obexd"}));
  EXPECT_FALSE(table.contains("overall"));
  // Each daemon once.
  EXPECT_EQ(VLGetPrimaryProcessesWithSubtype("overall").get("overall").asArray()->size(), 21u);
  vl::catalogue::setBasebandProbe({});
}

class RadioTestClass : public VLTestCaseClass {
 public:
  std::string className() const override { return "RadioTestClass"; }
};
class OtherTestClass : public VLTestCaseClass {
 public:
  std::string className() const override { return "OtherTestClass"; }
};

std::shared_ptr<VLTestCaseObject> definition(const char* name, const char* selector) {
  auto object = VLTestCaseObject::make();
  object->setName(std::string(name));
  if (selector) object->setSelector(std::string(selector));
  return object;
}

TEST(TestCaseRegistryTest, OneInstancePerClassFoundByNameOrSelector) {
  vl::registerTestCaseProvider(vl::testCaseProviderFor<RadioTestClass>(
      "/b/Radio.bundle", "RadioTestClass", {"Radio On", "Radio Off"}, {"toggleRadio:"}));
  vl::registerTestCaseProvider(
      vl::testCaseProviderFor<OtherTestClass>("/b/Other.bundle", "OtherTestClass", {"Other"}, {}));
  vl::LogCapture capture;

  auto on = VLGetClassForTestCase(definition("Radio On", nullptr));
  ASSERT_TRUE(on);
  EXPECT_EQ(on->className(), "RadioTestClass");
  EXPECT_EQ(VLGetClassForTestCase(definition("Radio Off", nullptr)), on);
  EXPECT_TRUE(
      capture.contains(VLLogLevelDebug, "Default", "Class already loaded..." + on->description()));
  // An ad hoc definition is found by its selector, with or without the colon.
  EXPECT_EQ(VLGetClassForTestCase(definition("Ad hoc", "toggleRadio")), on);
  EXPECT_NE(VLGetClassForTestCase(definition("Other", nullptr)), on);
  EXPECT_EQ(VLGetClassForTestCase(definition("Nobody", "nothing:")), nullptr);
  EXPECT_EQ(VLGetClassForTestCase(nullptr), nullptr);

  // A provider that cannot make its class.
  vl::registerTestCaseProvider({"/b/Broken.bundle",
                                "Broken",
                                {"Broken"},
                                {},
                                [] { return std::shared_ptr<VLTestCaseClass>(); },
                                nullptr});
  auto broken = definition("Broken", nullptr);
  EXPECT_EQ(VLGetClassForTestCase(broken), nullptr);
  EXPECT_TRUE(capture.contains(
      VLLogLevelError, "Framework",
      "Unable to create a class from /b/Broken.bundle for " + broken->description()));

  size_t loaded = vl::loadedTestCaseClasses().size();
  vl::removeTestCaseProvider("/b/Radio.bundle");
  EXPECT_EQ(vl::loadedTestCaseClasses().size(), loaded - 1);
  EXPECT_EQ(VLGetClassForTestCase(definition("Radio On", nullptr)), nullptr);
  vl::removeTestCaseProvider("/b/Other.bundle");
  vl::removeTestCaseProvider("/b/Broken.bundle");
}

}  // namespace
