// The test catalogue: test bundles (folders NAME.bundle holding an Info.plist and a shared object
// whose principal class derives from VLTestCaseClass), the bundle directory, the manager that maps
// test case names to bundles, and the searches that find and load the bundle offering a test case.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vorlund/catalogue/bundle_registration.h"
#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

// Info.plist keys of a bundle.
inline constexpr const char* kVLBundleKeySupportedTestCases = "Supported Test Cases";
inline constexpr const char* kVLBundleKeyPrimaryProcesses = "Primary Processes";
inline constexpr const char* kVLBundleKeyDefaultSettings = "Default Settings";
inline constexpr const char* kVLBundleKeyExecutable = "Executable";
inline constexpr const char* kVLBundleKeyPrincipalClass = "Principal Class";
// The error domain of bundle loading failures.
inline constexpr const char* kVLBundleErrorDomain = "com.brindle.Vorlund.bundle";

// One test bundle. Opening reads only its folder and Info.plist; its code is loaded (dlopen with
// RTLD_NOW | RTLD_LOCAL) when its principal class is first needed, and stays loaded for the
// process. Not locked: build and use it on one thread (loading itself is thread-safe).
class VLTestBundle {
 public:
  // Stores the path, takes the name from the folder name without its extension and reads the test
  // case names (refreshTestCases).
  static std::shared_ptr<VLTestBundle> withBundlePath(std::string path);

  const std::string& path() const { return path_; }
  const std::string& name() const { return name_; }
  // The "Name" of every dictionary value of "Supported Test Cases", in order.
  const std::vector<std::string>& testCases() const { return testCases_; }
  // {"name": name, "path": path, "tests": testCases}.
  vl::Dictionary dictionaryValue() const;

  // Re-reads the test case names; keeps the old list when the bundle cannot be opened.
  void refreshTestCases();

  // Process name -> the entry for subtype from "Primary Processes" (a specific subtype beats
  // "default" whichever comes first). Empty when the bundle cannot be opened or has none.
  vl::Dictionary primaryProcesses(const std::string& subtype) const;
  // The "Default Settings" dictionary for type and subtype, replaced by the principal class's
  // registered default settings when those are not empty (asking loads the code). None when the
  // bundle cannot be opened or neither answers.
  std::optional<vl::Dictionary> getDefaultSettingsForType(const std::string& type,
                                                          const std::string& subtype) const;

  // The platform side of a bundle.
  // Whether the folder can be opened as a bundle (it is a directory).
  bool canOpen() const;
  // The Info.plist dictionary: none when the bundle cannot be opened; empty when the file is
  // missing, unreadable or not a dictionary.
  std::optional<vl::Dictionary> infoDictionary() const;
  // Whether this bundle's code has been loaded successfully in this process.
  bool isLoaded() const;
  // Loads the code: opens the "Executable" named by Info.plist and finds the "Principal Class"
  // among the classes it registered, then registers the bundle as the provider of its test cases
  // (VLGetClassForTestCase). Returns true when loaded (also when it already was); false with an
  // error (domain kVLBundleErrorDomain, the reason as its description) when the folder, Info.plist,
  // the shared object or the class is missing or broken. Never throws.
  bool load(vl::Error* error = nullptr) const;
  // The "Principal Class" its Info.plist names, without loading the code. None when the bundle
  // cannot be opened or names none.
  std::optional<std::string> className() const;
  // The registered principal class; loads the code first. nullptr when loading fails.
  std::shared_ptr<const vl::BundleClass> principalClass() const;

 private:
  explicit VLTestBundle(std::string path);

  std::string path_;
  std::string name_;
  std::vector<std::string> testCases_;
};

// The catalogue of one bundle directory. The directory is read once, at the first call that needs
// it; later changes are not seen by this manager. Not locked: one thread builds and uses it.
class VLTestBundleManager {
 public:
  static std::shared_ptr<VLTestBundleManager> withBundlesInPath(std::string path);

  const std::string& path() const { return path_; }
  // Makes a VLTestBundle for every bundle of the directory, in listing order; a test case name
  // offered by two bundles belongs to the later one.
  void initBundleData();
  // initBundleData() unless it has run.
  void updateBundleData();

  // Bundle names and test case names.
  std::vector<std::string> bundles();
  std::vector<std::string> tests();
  // The bundle that offers the test case, or nullptr.
  std::shared_ptr<VLTestBundle> getTestBundleForTest(const std::string& name);

  // The bundles' primaryProcesses(subtype) merged in bundle order; a later bundle wins.
  vl::Dictionary primaryProcesses(const std::string& subtype);
  // The first bundle's answer that is not none, or none.
  std::optional<vl::Dictionary> getDefaultSettingsForType(const std::string& type,
                                                          const std::string& subtype);

  // "Tracking the following bundle path: <dir>\n", then "\n[+] <name>\n" and "\t+ <test>\n" lines.
  std::string getMeta();
  // _getMeta() as pretty JSON, or "Problem encountered generating report: <reason>".
  std::string getMetaAsJSON();
  // The dictionaryValue of every bundle, in order.
  vl::Array _getMeta();

 private:
  explicit VLTestBundleManager(std::string path) : path_(std::move(path)) {}

  std::string path_;
  bool built_ = false;
  std::vector<std::pair<std::string, std::shared_ptr<VLTestBundle>>> bundles_;
  std::vector<std::pair<std::string, std::shared_ptr<VLTestBundle>>> tests_;
};

// The bundle directory of this process: in "Procedor_Vorlund" the "PlugIns" folder beside its
// executable, in "forgetest" $__FORGE_BUILT_PRODUCTS_DIR_PATHS; otherwise, or when those give
// nothing, "/BrindleInternal/Library/Bundles/Stress" under $VORLUND_ROOT.
std::string VLGetBundlePath();
// The names (not paths) ending in ".bundle" in path, in the directory's listing order (the file
// system's, not sorted: "first" and "later" bundle mean this order). None when the directory cannot
// be listed: then logs at level 16 "No bundles found in bundle directory: <error>" and records the
// "Failure" issue "No bundles could be loaded". An empty directory gives an empty list.
std::optional<std::vector<std::string>> VLGetBundlesInPath(const std::string& path);
// VLGetBundlesInPath(VLGetBundlePath()).
std::optional<std::vector<std::string>> VLGetBundles();
// A new manager for $__FORGE_BUILT_PRODUCTS_DIR_PATHS when set (in any process), else for
// "/BrindleInternal/Library/Bundles/Stress" under $VORLUND_ROOT.
std::shared_ptr<VLTestBundleManager> VLGetBundleManager();

// The first bundle (in listing order) of path, or of VLGetBundlePath() when path is none, whose
// "Supported Test Cases" has an entry with entry[key] == value, loaded. nullptr when none matches
// or when the matching bundle fails to load (the search then stops there). Logs as it goes
// (category "Framework").
std::shared_ptr<VLTestBundle> VLGetBundleForKeyValuePairingAtPath(
    const std::string& key, const vl::Value& value, const std::optional<std::string>& path);
std::shared_ptr<VLTestBundle> VLGetBundleForTestCaseNameAtPath(
    const std::string& name, const std::optional<std::string>& path);
std::shared_ptr<VLTestBundle> VLGetBundleForTestCaseSelectorAtPath(
    const std::string& selector, const std::optional<std::string>& path);
std::shared_ptr<VLTestBundle> VLGetBundleForTestCaseName(const std::string& name);
std::shared_ptr<VLTestBundle> VLGetBundleForTestCaseSelector(const std::string& selector);
