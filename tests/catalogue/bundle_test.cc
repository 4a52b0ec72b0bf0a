// The catalogue over the real sample bundle and broken copies of it in temporary folders.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/test_support.h"
#include "vorlund/catalogue/catalogue_hooks.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/catalogue/test_bundle.h"
#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/logging/log_capture.h"

namespace fs = std::filesystem;
using vl::Dictionary;

namespace {

const std::string kSampleBundle = std::string(VORLUND_SAMPLE_BUNDLE_DIR) + "/SampleStress.bundle";

// A copy of the sample bundle in dir under name, which tests may damage.
std::string copySample(const std::string& dir, const std::string& name) {
  std::string target = dir + "/" + name;
  fs::copy(kSampleBundle, target, fs::copy_options::recursive);
  return target;
}

TEST(Bundles, ListingKeepsBundleNamesInOrderAndReportsUnlistableFolders) {
  vl::test::TempDir dir;
  fs::create_directory(dir.file("b.bundle"));
  fs::create_directory(dir.file("a.bundle"));
  vl::test::writeFile(dir.file("notes.txt"), "x");
  auto names = VLGetBundlesInPath(dir.path());
  ASSERT_TRUE(names);
  EXPECT_EQ(*names, (std::vector<std::string>{"a.bundle", "b.bundle"}));

  vl::test::TempDir empty;
  ASSERT_TRUE(VLGetBundlesInPath(empty.path()));
  EXPECT_TRUE(VLGetBundlesInPath(empty.path())->empty());

  std::vector<std::string> recorded;
  vl::catalogue::setFailureIssueRecorder([&](const std::string& r) { recorded.push_back(r); });
  vl::LogCapture capture;
  EXPECT_FALSE(VLGetBundlesInPath(dir.file("missing")));
  vl::catalogue::setFailureIssueRecorder({});
  EXPECT_EQ(recorded, std::vector<std::string>{"No bundles could be loaded"});
  auto lines = capture.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back().level, VLLogLevelError);
  EXPECT_EQ(lines.back().category, "Default");
  EXPECT_EQ(lines.back().message.rfind("No bundles found in bundle directory: ", 0), 0u);
}

TEST(Bundles, BundlePathFollowsTheProcessRules) {
  vl::test::Sandbox sandbox;
  vl::test::ScopedEnv products("__FORGE_BUILT_PRODUCTS_DIR_PATHS", "/built/products");
  {
    vl::process::ScopedName name("forgetest");
    EXPECT_EQ(VLGetBundlePath(), "/built/products");
  }
  vl::process::ScopedName name("vorlundctl");
  EXPECT_EQ(VLGetBundlePath(), sandbox.root() + "/BrindleInternal/Library/Bundles/Stress");
  EXPECT_EQ(VLGetBundleManager()->path(), "/built/products");
}

TEST(Bundles, SampleBundleDeclaresItsTestCasesProcessesAndSettings) {
  auto bundle = VLTestBundle::withBundlePath(kSampleBundle);
  EXPECT_EQ(bundle->name(), "SampleStress");
  EXPECT_EQ(bundle->testCases().size(), 5u);
  EXPECT_EQ(bundle->dictionaryValue().get("path"), vl::Value(kSampleBundle));

  Dictionary stress = bundle->primaryProcesses("stress");
  EXPECT_EQ(stress.get("wpa_supplicant"), vl::Value("wifi-stress"));
  EXPECT_EQ(stress.get("bluetoothd"), vl::Value("bluetooth"));
  EXPECT_EQ(bundle->primaryProcesses("other").get("wpa_supplicant"), vl::Value("wifi"));

  // The class answers for soak; for quick it answers empty and the Info.plist stays in force.
  auto soak = bundle->getDefaultSettingsForType("wifi", "soak");
  ASSERT_TRUE(soak);
  EXPECT_EQ(soak->get("Source"), vl::Value("class"));
  auto quick = bundle->getDefaultSettingsForType("wifi", "quick");
  ASSERT_TRUE(quick);
  EXPECT_EQ(quick->get("Source"), vl::Value("plist"));
  EXPECT_FALSE(bundle->getDefaultSettingsForType("cellular", "soak"));
  EXPECT_TRUE(bundle->isLoaded());
}

TEST(Bundles, LoadedBundleRunsItsTestMethodsByName) {
  vl::Error error;
  auto bundle = VLTestBundle::withBundlePath(kSampleBundle);
  ASSERT_TRUE(bundle->load(&error)) << error.description();
  auto testCase = VLTestCaseObject::make();
  testCase->setName(std::string("Sample Ping Gateway"));
  auto object = VLGetClassForTestCase(testCase);
  ASSERT_TRUE(object);
  EXPECT_EQ(object->className(), "SampleStress");
  vl::TestMethod method = vl::findTestMethod(*object, "pingGateway:");
  ASSERT_TRUE(method);
  EXPECT_TRUE(method(*object, testCase));
  EXPECT_FALSE(vl::findTestMethod(*object, "noSuchMethod"));
}

TEST(Bundles, BrokenBundlesGiveAnErrorNotACrash) {
  vl::test::TempDir dir;
  std::string noObject = copySample(dir.path(), "NoObject.bundle");
  fs::remove(noObject + "/SampleStress.so");
  std::string noClass = copySample(dir.path(), "NoClass.bundle");
  auto info = vl::plist::readDictionary(noClass + "/Info.plist");
  ASSERT_TRUE(info);
  info->set("Principal Class", "Missing");
  ASSERT_TRUE(vl::plist::writeFile(*info, noClass + "/Info.plist"));
  std::string notDictionary = copySample(dir.path(), "Array.bundle");
  ASSERT_TRUE(vl::plist::writeFile(vl::Array{"x"}, notDictionary + "/Info.plist"));

  for (const std::string& path : {noObject, noClass, notDictionary, dir.file("None.bundle")}) {
    vl::Error error;
    EXPECT_FALSE(VLTestBundle::withBundlePath(path)->load(&error)) << path;
    EXPECT_EQ(error.domain, kVLBundleErrorDomain);
    EXPECT_FALSE(error.localizedDescription().empty());
  }
  vl::Error error;
  VLTestBundle::withBundlePath(notDictionary)->load(&error);
  EXPECT_NE(error.localizedDescription().find("is not a dictionary"), std::string::npos);

  vl::LogCapture capture;
  EXPECT_FALSE(VLGetBundleForTestCaseNameAtPath("Sample Ping Gateway", dir.path()));
  auto failed = capture.lines();
  ASSERT_FALSE(failed.empty());
  EXPECT_EQ(failed.back().level, VLLogLevelError);
  EXPECT_EQ(failed.back().message.rfind("Failed to load bundle " + dir.path() + "/NoClass.bundle", 0),
            0u) << failed.back().message;
}

TEST(Bundles, SearchesPreferTheFirstBundleAndTheManagerTheLast) {
  vl::test::TempDir dir;
  copySample(dir.path(), "A.bundle");
  copySample(dir.path(), "B.bundle");
  vl::LogCapture capture;
  auto found = VLGetBundleForTestCaseSelectorAtPath("failWithOption:", dir.path());
  ASSERT_TRUE(found);
  EXPECT_EQ(found->path(), dir.path() + "/A.bundle");
  EXPECT_TRUE(capture.contains(VLLogLevelDebug, "Framework",
                               "Found matching key/value pairing (Selector/failWithOption:) in " +
                                   dir.path() + "/A.bundle"));
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Framework",
                               "Loading bundle at " + dir.path() + "/A.bundle"));
  EXPECT_FALSE(VLGetBundleForTestCaseNameAtPath("Nothing", dir.path()));
  EXPECT_TRUE(capture.contains(
      VLLogLevelError, "Framework",
      "No bundles contained matching key/value pairing (Name/Nothing) in " + dir.path()));

  auto manager = VLTestBundleManager::withBundlesInPath(dir.path());
  EXPECT_EQ(manager->getTestBundleForTest("Sample Failure")->name(), "B");
  EXPECT_EQ(manager->bundles(), (std::vector<std::string>{"A", "B"}));
  EXPECT_EQ(manager->primaryProcesses("stress").get("wpa_supplicant"), vl::Value("wifi-stress"));
  EXPECT_EQ(manager->getDefaultSettingsForType("wifi", "quick")->get("Iterations"), vl::Value(10));

  std::string meta = manager->getMeta();
  EXPECT_EQ(meta.rfind("Tracking the following bundle path: " + dir.path() + "\n\n[+] A\n\t+ ", 0),
            0u);
  auto json = vl::json::parse(manager->getMetaAsJSON());
  ASSERT_TRUE(json && json->asArray());
  EXPECT_EQ(json->asArray()->size(), 2u);
  EXPECT_EQ(json->asArray()->at(1).asDictionary()->get("name"), vl::Value("B"));
}

}  // namespace
