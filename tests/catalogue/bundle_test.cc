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
const std::string kTestBundles = VORLUND_TEST_BUNDLE_DIR;

// The folder's names in the order the file system lists them.
std::vector<std::string> listingOrder(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename());
  return names;
}

// Runs a test case of the echo bundles the way execution does and answers whose code ran.
std::string echoVoice(const std::shared_ptr<VLTestCaseObject>& testCase) {
  auto object = VLGetClassForTestCase(testCase);
  if (!object) return "no class";
  vl::TestMethod method = vl::findTestMethod(*object, testCase->selector().value_or("echo:"));
  if (!method) return "no method";
  method(*object, testCase);
  return testCase->options().value_or(Dictionary()).get("Voice").stringOr("silent");
}

std::shared_ptr<VLTestCaseObject> definition(std::optional<std::string> name,
                                             std::optional<std::string> selector) {
  auto testCase = VLTestCaseObject::make();
  testCase->setName(std::move(name));
  testCase->setSelector(std::move(selector));
  return testCase;
}

// A copy of the sample bundle in dir under name, which tests may damage.
std::string copySample(const std::string& dir, const std::string& name) {
  std::string target = dir + "/" + name;
  fs::copy(kSampleBundle, target, fs::copy_options::recursive);
  return target;
}

TEST(Bundles, ListingKeepsBundleNamesInOrderAndReportsUnlistableFolders) {
  vl::test::TempDir dir;
  for (const char* name : {"b.bundle", "a.bundle", "c.bundle", "notes.txt"}) {
    fs::create_directory(dir.file(name));
  }
  std::vector<std::string> listed = listingOrder(dir.path());
  std::erase(listed, "notes.txt");
  auto names = VLGetBundlesInPath(dir.path());
  ASSERT_TRUE(names);
  EXPECT_EQ(*names, listed);

  std::vector<std::string> recorded;
  vl::catalogue::setFailureIssueRecorder([&](const std::string& r) { recorded.push_back(r); });
  vl::LogCapture capture;
  EXPECT_FALSE(VLGetBundlesInPath(dir.file("missing")));
  vl::catalogue::setFailureIssueRecorder({});
  EXPECT_EQ(recorded, std::vector<std::string>{"No bundles could be loaded"});
  ASSERT_FALSE(capture.lines().empty());
  EXPECT_EQ(capture.lines().back().message.rfind("No bundles found in bundle directory: ", 0), 0u);
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

TEST(Bundles, SampleBundleDeclaresItsSettingsAndRunsItsMethodsByName) {
  auto bundle = VLTestBundle::withBundlePath(kSampleBundle);
  EXPECT_EQ(bundle->testCases().size(), 6u);
  EXPECT_EQ(bundle->dictionaryValue().get("path"), vl::Value(kSampleBundle));
  EXPECT_EQ(bundle->primaryProcesses("stress").get("bluetoothd"), vl::Value("bluetooth"));
  EXPECT_EQ(bundle->primaryProcesses("other").get("wpa_supplicant"), vl::Value("wifi"));
  // The class answers for soak; for quick it answers empty and the Info.plist stays in force.
  EXPECT_EQ(bundle->getDefaultSettingsForType("wifi", "soak")->get("Source"), vl::Value("class"));
  EXPECT_EQ(bundle->getDefaultSettingsForType("wifi", "quick")->get("Source"), vl::Value("plist"));
  EXPECT_FALSE(bundle->getDefaultSettingsForType("cellular", "soak"));

  vl::Error error;
  ASSERT_TRUE(bundle->load(&error)) << error.description();
  auto testCase = definition("Sample Ping Gateway", std::nullopt);
  auto object = VLGetClassForTestCase(testCase);
  ASSERT_TRUE(object);
  EXPECT_EQ(object->className(), "SampleStress");
  vl::TestMethod method = vl::findTestMethod(*object, "pingGateway:");
  ASSERT_TRUE(method);
  EXPECT_TRUE(method(*object, testCase));
  EXPECT_FALSE(vl::findTestMethod(*object, "noSuchMethod"));
}

TEST(Bundles, EachBundleRunsItsOwnCodeWhenClassAndMethodNamesAreShared) {
  vl::test::Sandbox sandbox;
  std::string dir = VLGetBundlePath();
  fs::create_directories(dir);
  for (const char* name : {"EchoA.bundle", "EchoB.bundle"}) {
    fs::copy(kTestBundles + "/" + name, dir + "/" + name, fs::copy_options::recursive);
  }
  std::vector<std::string> listed = listingOrder(dir);
  const std::string first = listed.at(0) == "EchoA.bundle" ? "A" : "B";
  const std::string later = first == "A" ? "B" : "A";

  // The later-listed bundle is loaded first, so that its object exists when the other one runs.
  EXPECT_EQ(echoVoice(definition("Echo " + later, "echo:")), later);
  EXPECT_EQ(echoVoice(definition("Echo " + first, "echo:")), first);
  EXPECT_EQ(echoVoice(definition("Echo " + later, std::nullopt)), later);
  // Known only by its selector, a test case belongs to the first bundle listed.
  EXPECT_EQ(echoVoice(definition("Unlisted", "echo:")), first);

  auto a = VLGetClassForTestCase(definition("Echo A", std::nullopt));
  auto b = VLGetClassForTestCase(definition("Echo B", std::nullopt));
  ASSERT_TRUE(a && b);
  EXPECT_NE(a, b);
  // The registered name, not the C++ name of the aliased class.
  EXPECT_EQ(a->className(), "EchoStress");
  EXPECT_EQ(VLTestBundle::withBundlePath(dir + "/EchoB.bundle")->className(), "EchoStress");
}

TEST(Bundles, ASharedObjectAlreadyLoadedThroughAnotherPathLoads) {
  vl::test::TempDir dir;
  fs::copy(kTestBundles + "/EchoA.bundle", dir.file("EchoA.bundle"), fs::copy_options::recursive);
  vl::Error error;
  ASSERT_TRUE(VLTestBundle::withBundlePath(dir.file("EchoA.bundle"))->load(&error))
      << error.description();

  fs::create_directory_symlink(dir.file("EchoA.bundle"), dir.file("Linked.bundle"));
  fs::create_directory(dir.file("HardLinked.bundle"));
  fs::copy(dir.file("EchoA.bundle/Info.plist"), dir.file("HardLinked.bundle/Info.plist"));
  fs::create_hard_link(dir.file("EchoA.bundle/EchoA.so"), dir.file("HardLinked.bundle/EchoA.so"));
  for (const char* name : {"Linked.bundle", "HardLinked.bundle"}) {
    auto bundle = VLTestBundle::withBundlePath(dir.file(name));
    EXPECT_TRUE(bundle->load(&error)) << name << ": " << error.description();
    ASSERT_TRUE(bundle->principalClass()) << name;
    EXPECT_EQ(bundle->principalClass()->name, "EchoStress");
  }
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

  // The search stops at the first matching bundle in listing order that fails to load.
  vl::LogCapture capture;
  EXPECT_FALSE(VLGetBundleForTestCaseNameAtPath("Sample Ping Gateway", dir.path()));
  std::vector<std::string> listed = listingOrder(dir.path());
  std::erase_if(listed, [](const std::string& n) { return n[0] != 'N'; });
  ASSERT_FALSE(capture.lines().empty());
  EXPECT_EQ(capture.lines().back().message.rfind("Failed to load bundle " + dir.file(listed[0]), 0),
            0u)
      << capture.lines().back().message;
}

TEST(Bundles, SearchesPreferTheFirstBundleAndTheManagerTheLast) {
  vl::test::TempDir dir;
  copySample(dir.path(), "A.bundle");
  copySample(dir.path(), "B.bundle");
  std::vector<std::string> listed = listingOrder(dir.path());
  const std::string first = listed.at(0) == "A.bundle" ? "A" : "B";
  const std::string later = first == "A" ? "B" : "A";
  vl::LogCapture capture;
  auto found = VLGetBundleForTestCaseSelectorAtPath("failWithOption:", dir.path());
  ASSERT_TRUE(found);
  EXPECT_EQ(found->path(), dir.path() + "/" + first + ".bundle");
  EXPECT_TRUE(capture.contains(
      VLLogLevelDebug, "Framework",
      "Found matching key/value pairing (Selector/failWithOption:) in " + found->path()));
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Framework", "Loading bundle at " + found->path()));
  EXPECT_FALSE(VLGetBundleForTestCaseNameAtPath("Nothing", dir.path()));
  EXPECT_TRUE(capture.contains(
      VLLogLevelError, "Framework",
      "No bundles contained matching key/value pairing (Name/Nothing) in " + dir.path()));

  auto manager = VLTestBundleManager::withBundlesInPath(dir.path());
  EXPECT_EQ(manager->getTestBundleForTest("Sample Failure")->name(), later);
  EXPECT_EQ(manager->bundles(), (std::vector<std::string>{first, later}));
  EXPECT_EQ(manager->primaryProcesses("stress").get("wpa_supplicant"), vl::Value("wifi-stress"));
  EXPECT_EQ(manager->getDefaultSettingsForType("wifi", "quick")->get("Iterations"), vl::Value(10));

  std::string meta = manager->getMeta();
  EXPECT_EQ(
      meta.rfind(
          "Tracking the following bundle path: " + dir.path() + "\n\n[+] " + first + "\n\t+ ", 0),
      0u);
  auto json = vl::json::parse(manager->getMetaAsJSON());
  ASSERT_TRUE(json && json->asArray());
  EXPECT_EQ(json->asArray()->at(1).asDictionary()->get("name"), vl::Value(later));
}

}  // namespace
