#include "vorlund/catalogue/preferences.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "catalogue/value_printers.h"
#include "support/test_support.h"
#include "vorlund/catalogue/primary_processes.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_capture.h"

namespace {

using vl::Dictionary;
using vl::Value;

TEST(PreferencesTest, ABrokenFileReadsEmpty) {
  vl::test::Sandbox sandbox;
  std::string path = VLGetTestSettingsFilePath();
  vl::test::writeFile(path, "this is not a property list");
  vl::LogCapture capture;
  EXPECT_TRUE(VLGetPreferences().empty());
  EXPECT_TRUE(capture.contains(VLLogLevelError, "VLCore",
                               "Empty Preferences at '" + path + "', returning empty dictionary"));
}

// Sets or clears the immutable flag, or with set empty reads it; false when the file system or the
// user cannot.
bool immutableFlag(const std::string& path, std::optional<bool> set = std::nullopt) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int flags = 0;
  bool ok = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  if (ok && set) {
    flags = *set ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    ok = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  }
  if (fd >= 0) ::close(fd);
  return ok && (set || (flags & FS_IMMUTABLE_FL) != 0);
}

TEST(SavePreference, StoresRemovesNeverOverwritesBundlePreferencesAndWaitsForAWritableFile) {
  vl::test::Sandbox sandbox;
  VLSavePreference(Value("wifi"), "StressType");
  VLSavePreference(Value(3), "Count");
  VLSavePreference(Value(), "Count");
  EXPECT_FALSE(VLGetPreferences().contains("Count"));
  VLSaveBundlePreferences(Dictionary{{"StressType", "bluetooth"}, {"Config", "Lab"}});
  EXPECT_EQ(VLGetPreferences().get("StressType"), Value("wifi"));
  EXPECT_EQ(VLGetPreferences().get("Config"), Value("Lab"));
  EXPECT_FALSE(immutableFlag(VLGetTestSettingsFilePath()));

  // A file that is not writable is waited for.
  vl::time::ScopedScale scale(0.01);
  VLSavePreference(Value("a"), "Key");
  std::string path = VLGetTestSettingsFilePath();
  bool immutable = immutableFlag(path, true);
  if (!immutable) ::chmod(path.c_str(), 0444);
  if (::access(path.c_str(), W_OK) == 0) GTEST_SKIP() << "cannot make the file unwritable here";
  vl::LogCapture capture;
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (immutable) immutableFlag(path, false);
    ::chmod(path.c_str(), 0644);
  });
  VLSavePreference(Value("b"), "Key");
  release.join();
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "Unable to write " + path + ", waiting for 1 second"));
  EXPECT_EQ(VLGetPreferences().get("Key"), Value("b"));
  EXPECT_FALSE(immutableFlag(path));
}

TEST(Config, ReadsBothEnvironmentShapes) {
  Dictionary config{{"Environments",
                     Dictionary{{"Office", vl::Array{"Ping", Dictionary{{"Name", "Sleep"}}}},
                                {"Lab", Dictionary{{"TestCaseArray",
                                                    vl::Array{"Ping", Dictionary{{"Name", "Fail"}},
                                                              Dictionary{{"Other", 1}}}}}}}}};
  EXPECT_EQ(*VLConfig::getEnvironmentNames(config), (std::set<std::string>{"Lab", "Office"}));
  EXPECT_FALSE(VLConfig::getEnvironmentNames(Dictionary{}));

  vl::LogCapture capture;
  vl::Array lab = VLConfig::getTestCaseNamesForEnvironment(config, std::string("Lab"));
  EXPECT_EQ(lab, (vl::Array{"Ping", "Fail"}));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "NSDictionary+VLConfig",
                               "Config includes a test case dictionary without a name key. " +
                                   Dictionary{{"Other", 1}}.description()));
  // The array shape keeps its entries as they are, dictionaries included; names appear once.
  vl::Array all = VLConfig::getTestCaseNames(config);
  EXPECT_EQ(all.size(), 3u);
  EXPECT_TRUE(all.contains(Dictionary{{"Name", "Sleep"}}));
  EXPECT_TRUE(VLConfig::hasTestCaseName(config, "Sleep"));
  EXPECT_TRUE(VLConfig::hasTestCaseName(config, "Fail"));
  EXPECT_FALSE(VLConfig::hasTestCaseName(config, "Other"));
  EXPECT_TRUE(VLConfig::getTestCaseNames(Dictionary{}).empty());
}

TEST(BundleSettings, ComeFromTheBundleManagerAndMergeOverThePrimaryTable) {
  vl::test::Sandbox sandbox;
  vl::test::TempDir bundles;
  std::filesystem::copy(std::string(VORLUND_SAMPLE_BUNDLE_DIR) + "/SampleStress.bundle",
                        bundles.file("SampleStress.bundle"),
                        std::filesystem::copy_options::recursive);
  vl::test::ScopedEnv products("__FORGE_BUILT_PRODUCTS_DIR_PATHS", bundles.path());
  EXPECT_EQ(VLGetDefaultSettingsForTest("wifi", "quick")->get("Iterations"), Value(10));
  EXPECT_FALSE(VLGetDefaultSettingsForTest("none", "none"));
  EXPECT_EQ(VLGetBundlePrimaryProcesses("stress").get("wpa_supplicant"), Value("wifi-stress"));
  Dictionary table = VLGetPrimaryProcessesWithSubtype("stress");
  EXPECT_EQ(table.get("wpa_supplicant"), Value("wifi-stress"));
  EXPECT_TRUE(table.get("wifi").isArray());
}

}  // namespace
