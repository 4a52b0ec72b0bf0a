#include "vorlund/catalogue/preferences.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <exception>
#include <optional>

#include "vorlund/catalogue/test_bundle.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/foundation/time_scale.h"
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

namespace {

constexpr double kWritabilityWaitSeconds = 1;

// Sets or clears the file's immutable attribute. Needs CAP_LINUX_IMMUTABLE and a file system that
// supports it; like the other write errors of the preferences, a failure is ignored.
void setImmutable(const std::string& path, bool immutable) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return;
  int flags = 0;
  if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0) {
    int wanted = immutable ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    if (wanted != flags) (void)::ioctl(fd, FS_IOC_SETFLAGS, &wanted);
  }
  ::close(fd);
}

bool existsButNotWritable(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0 && ::access(path.c_str(), W_OK) != 0;
}

}  // namespace

void VLSavePreference(const vl::Value& value, const std::string& key) {
  std::string path = VLGetTestSettingsFilePath();
  while (existsButNotWritable(path)) {
    VLLog(VLLogLevelError, "Framework", "Unable to write %@, waiting for 1 second", path);
    vl::time::sleepFor(kWritabilityWaitSeconds);
  }
  setImmutable(path, true);
  vl::Dictionary preferences = VLGetPreferences();
  if (value.isNone()) {
    preferences.erase(key);
  } else {
    preferences.set(key, value);
  }
  setImmutable(path, false);
  try {
    vl::paths::createDirectories(vl::paths::deletingLastComponent(path));
    vl::plist::writeFile(preferences, path);
  } catch (const std::exception&) {
    // Write errors are ignored; the old file stays whole.
  }
}

void VLSaveBundlePreferences(const vl::Dictionary& dictionary) {
  vl::Dictionary preferences = VLGetPreferences();
  for (size_t i = 0; i < dictionary.size(); ++i) {
    auto [key, value] = dictionary.entry(i);
    if (!preferences.contains(key)) VLSavePreference(value, key);
  }
}

std::optional<vl::Dictionary> VLGetDefaultSettingsForTest(const std::string& type,
                                                          const std::string& subtype) {
  return VLGetBundleManager()->getDefaultSettingsForType(type, subtype);
}

vl::Dictionary VLGetBundlePrimaryProcesses(const std::string& subtype) {
  return VLGetBundleManager()->primaryProcesses(subtype);
}

namespace VLConfig {
namespace {

constexpr const char* kEnvironmentsKey = "Environments";
constexpr const char* kTestCaseArrayKey = "TestCaseArray";

void addOnce(vl::Array& names, vl::Value value) {
  if (!names.contains(value)) names.push_back(std::move(value));
}

// The entries an environment lists, in both shapes.
void visitEnvironment(const vl::Value& environment, vl::Array& names) {
  if (const vl::Array* entries = environment.asArray()) {
    for (const vl::Value& entry : *entries) addOnce(names, entry);
    return;
  }
  const vl::Dictionary* shaped = environment.asDictionary();
  if (!shaped) return;
  const vl::Array* entries = shaped->get(kTestCaseArrayKey).asArray();
  if (!entries) return;
  for (const vl::Value& entry : *entries) {
    if (entry.isString()) {
      addOnce(names, entry);
    } else if (const vl::Dictionary* testCase = entry.asDictionary()) {
      const vl::Value& name = testCase->get("Name");
      if (name.isNone()) {
        VLLog(VLLogLevelError, "NSDictionary+VLConfig",
              "Config includes a test case dictionary without a name key. %@", *testCase);
      } else {
        addOnce(names, name);
      }
    }
  }
}

bool entryNames(const vl::Value& entry, const std::string& name) {
  if (const std::string* text = entry.asString()) return *text == name;
  if (const vl::Dictionary* testCase = entry.asDictionary()) {
    const std::string* listed = testCase->get("Name").asString();
    return listed && *listed == name;
  }
  return false;
}

}  // namespace

std::optional<std::set<std::string>> getEnvironmentNames(const vl::Dictionary& config) {
  const vl::Dictionary* environments = config.get(kEnvironmentsKey).asDictionary();
  if (!environments) return std::nullopt;
  return std::set<std::string>(environments->keys().begin(), environments->keys().end());
}

vl::Array getTestCaseNamesForEnvironment(const vl::Dictionary& config,
                                         const std::optional<std::string>& name) {
  vl::Array names;
  const vl::Dictionary* environments = config.get(kEnvironmentsKey).asDictionary();
  if (!environments) return names;
  if (name) {
    if (const vl::Value* environment = environments->find(*name)) {
      visitEnvironment(*environment, names);
    }
  } else {
    for (const vl::Value& environment : environments->values()) {
      visitEnvironment(environment, names);
    }
  }
  return names;
}

vl::Array getTestCaseNames(const vl::Dictionary& config) {
  return getTestCaseNamesForEnvironment(config, std::nullopt);
}

bool hasTestCaseName(const vl::Dictionary& config, const std::string& name) {
  const vl::Dictionary* environments = config.get(kEnvironmentsKey).asDictionary();
  if (!environments) return false;
  for (const vl::Value& environment : environments->values()) {
    const vl::Array* entries = environment.asArray();
    if (const vl::Dictionary* shaped = environment.asDictionary()) {
      entries = shaped->get(kTestCaseArrayKey).asArray();
    }
    if (!entries) continue;
    for (const vl::Value& entry : *entries) {
      if (entryNames(entry, name)) return true;
    }
  }
  return false;
}

}  // namespace VLConfig
