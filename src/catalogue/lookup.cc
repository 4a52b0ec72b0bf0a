#include "vorlund/catalogue/lookup.h"

#include <exception>
#include <optional>
#include <set>

#include "vorlund/catalogue/preferences.h"
#include "vorlund/catalogue/test_bundle.h"
#include "vorlund/conversion/technology.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/logging/log.h"

namespace vl {
namespace {

// The first dictionary of the bundle's "Supported Test Cases" values whose "Name" is name.
std::optional<Dictionary> entryForTestCase(const VLTestBundle& bundle, const std::string& name) {
  std::optional<Dictionary> info = bundle.infoDictionary();
  if (!info) return std::nullopt;
  const Dictionary* supported = info->get(kVLBundleKeySupportedTestCases).asDictionary();
  if (!supported) return std::nullopt;
  for (const Value& value : supported->values()) {
    const Dictionary* entry = value.asDictionary();
    if (!entry) continue;
    const std::string* entryName = entry->get(kVLTestCaseObjectKeyName).asString();
    if (entryName && *entryName == name) return *entry;
  }
  return std::nullopt;
}

// The preferences with the option preferences file on top (its entries win).
Dictionary preferencesWithOptionOverlay() {
  Dictionary preferences = VLGetPreferences();
  std::string path = paths::expandTilde(kVLOptionPreferencesPath);
  if (std::optional<Dictionary> overlay = plist::readDictionary(path)) {
    for (size_t i = 0; i < overlay->size(); ++i) {
      auto [key, value] = overlay->entry(i);
      preferences.set(key, value);
    }
  }
  return preferences;
}

Value printable(const std::optional<Dictionary>& field) { return field ? Value(*field) : Value(); }

Value printable(const std::optional<Array>& field) { return field ? Value(*field) : Value(); }

// A technology given as its string, or as its number (converted to its string form).
std::optional<std::string> technologyString(const Value& value) {
  if (const std::string* text = value.asString()) return *text;
  if (value.isNumber()) return VLConvertTechnologyEnumToString(value.int64Or(0));
  return std::nullopt;
}

std::shared_ptr<VLTestCaseObject> objectForTestCase(const std::string& name) {
  if (name.empty()) return nullptr;
  std::shared_ptr<VLTestBundle> bundle = VLGetBundleForTestCaseNameAtPath(name, std::nullopt);
  if (!bundle) return nullptr;

  std::optional<Dictionary> entry = entryForTestCase(*bundle, name);
  std::shared_ptr<VLTestCaseObject> object =
      entry ? VLTestCaseObject::withBundleSettings(*entry) : nullptr;
  if (!object) {
    VLLog(VLLogLevelError, "Framework", "Unable to find a dictionary for %@ from %@...", name,
          bundle->path());
    return nullptr;
  }

  Dictionary preferences = preferencesWithOptionOverlay();
  if (const Dictionary* declared = entry->get(kVLTestCaseObjectKeyOptions).asDictionary()) {
    Dictionary options = *declared;
    for (const std::string& key : declared->keys()) {
      if (const Value* preferred = preferences.find(key)) options.set(key, *preferred);
    }
    object->setOptions(std::move(options));
  }
  VLLog(VLLogLevelDebug, "Framework", "Returning the following options for %@...%@", name,
        printable(object->options()));
  VLLog(VLLogLevelDebug, "Framework", "Default Environments for %@...%@", name,
        printable(object->environments()));

  VLAdjustTestCaseEnvironments(object, preferences);
  return object;
}

std::shared_ptr<VLTestCaseObject> adHocObject(const Dictionary& dictionary,
                                              const std::string& name) {
  VLLog(VLLogLevelError, "Framework",
        "Could not find predefined test case for '%@'. Ad hoc test case will be built from "
        "dictionary.",
        name);
  auto missing = [&](const char* key) {
    VLLog(VLLogLevelError, "Framework",
          "Mandatory field (%@) missing from ad hoc test case definition: %@", key, dictionary);
    return nullptr;
  };

  const std::string* selector = dictionary.get(kVLTestCaseObjectKeySelector).asString();
  if (!selector) return missing(kVLTestCaseObjectKeySelector);
  if (!VLGetBundleForTestCaseSelectorAtPath(*selector, std::nullopt)) {
    VLLog(VLLogLevelError, "Framework",
          "No bundle found which list selector '%@' as a viable test case", *selector);
    return nullptr;
  }
  std::optional<std::string> technology =
      technologyString(dictionary.get(kVLTestCaseObjectKeyTechnology));
  if (!technology) return missing(kVLTestCaseObjectKeyTechnology);
  const std::string* type = dictionary.get(kVLTestCaseObjectKeyType).asString();
  if (!type) return missing(kVLTestCaseObjectKeyType);

  auto object = VLTestCaseObject::make();
  object->setName(name);
  object->setSelector(*selector);
  object->setTechnology(std::move(technology));
  object->setType(*type);
  return object;
}

std::shared_ptr<VLTestCaseObject> objectForDictionary(const Dictionary& dictionary) {
  const std::string* name = dictionary.get(kVLTestCaseObjectKeyName).asString();
  if (!name) {
    VLLog(VLLogLevelError, "Framework", "No name defined in test case dictionary: %@", dictionary);
    return nullptr;
  }

  std::shared_ptr<VLTestCaseObject> object = objectForTestCase(*name);
  if (object) {
    if (const std::string* selector = dictionary.get(kVLTestCaseObjectKeySelector).asString()) {
      object->setSelector(*selector);
    }
    if (auto technology = technologyString(dictionary.get(kVLTestCaseObjectKeyTechnology))) {
      object->setTechnology(std::move(technology));
    }
    if (const std::string* type = dictionary.get(kVLTestCaseObjectKeyType).asString()) {
      object->setType(*type);
    }
  } else {
    object = adHocObject(dictionary, *name);
    if (!object) return nullptr;
  }

  if (const Dictionary* requested = dictionary.get(kVLTestCaseObjectKeyOptions).asDictionary()) {
    Dictionary options = object->options().value_or(Dictionary());
    for (size_t i = 0; i < requested->size(); ++i) {
      auto [key, value] = requested->entry(i);
      options.set(key, value);
    }
    object->setOptions(std::move(options));
  }
  if (const Array* tags = dictionary.get(kVLTestCaseObjectKeyTags).asArray()) {
    object->setTags(*tags);
  }
  VLLog(VLLogLevelInfo, "Framework", "Returning the following options modified for %@...%@", *name,
        printable(object->options()));
  return object;
}

}  // namespace
}  // namespace vl

std::shared_ptr<VLTestCaseObject> VLGetObjectForTestCase(const std::string& name) {
  try {
    return vl::objectForTestCase(name);
  } catch (const std::exception& e) {
    VLLog(VLLogLevelError, "Framework", "Unable to prepare test case %@: %@", name,
          std::string(e.what()));
    return nullptr;
  }
}

std::shared_ptr<VLTestCaseObject> VLGetObjectForDictionary(const vl::Dictionary& dictionary) {
  try {
    return vl::objectForDictionary(dictionary);
  } catch (const std::exception& e) {
    VLLog(VLLogLevelError, "Framework", "Unable to prepare test case from %@: %@", dictionary,
          std::string(e.what()));
    return nullptr;
  }
}

void VLAdjustTestCaseEnvironments(const std::shared_ptr<VLTestCaseObject>& testCase,
                                  const vl::Dictionary& configuration) {
  if (!testCase) return;
  std::optional<std::set<std::string>> environmentNames =
      VLConfig::getEnvironmentNames(configuration);
  if (!environmentNames) return;
  vl::Array environments;
  const vl::Value name = testCase->name() ? vl::Value(*testCase->name()) : vl::Value();
  for (const std::string& environment : *environmentNames) {
    if (!name.isNone() &&
        VLConfig::getTestCaseNamesForEnvironment(configuration, environment).contains(name)) {
      environments.push_back(vl::Value(environment));
    }
  }
  testCase->setEnvironments(std::move(environments));
}
