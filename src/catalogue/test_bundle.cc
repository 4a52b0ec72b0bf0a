#include "vorlund/catalogue/test_bundle.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <mutex>

#include "vorlund/catalogue/catalogue_hooks.h"
#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kStressBundleDirectory = "/BrindleInternal/Library/Bundles/Stress";
constexpr const char* kBuiltProductsVariable = "__FORGE_BUILT_PRODUCTS_DIR_PATHS";
constexpr const char* kBundleExtension = ".bundle";
constexpr const char* kInfoPlistName = "Info.plist";

// A dlopen handle, closed when its owner dies.
class SharedObject {
 public:
  SharedObject() = default;
  explicit SharedObject(void* handle) : handle_(handle) {}
  ~SharedObject() {
    if (handle_) dlclose(handle_);
  }
  SharedObject(SharedObject&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  SharedObject& operator=(SharedObject&& other) noexcept {
    if (this != &other) {
      if (handle_) dlclose(handle_);
      handle_ = std::exchange(other.handle_, nullptr);
    }
    return *this;
  }
  SharedObject(const SharedObject&) = delete;
  SharedObject& operator=(const SharedObject&) = delete;
  explicit operator bool() const { return handle_ != nullptr; }
  void* get() const { return handle_; }

 private:
  void* handle_ = nullptr;
};

struct LoadedBundle {
  SharedObject object;
  std::shared_ptr<const vl::BundleClass> principal;  // nullptr until a load succeeds
};

// Bundles opened in this process, by bundle path. Once a shared object's initialisers have run,
// the classes it registered point into its code, so it is never closed: the table lives for the
// process.
struct LoadedBundles {
  std::mutex mutex;
  std::map<std::string, LoadedBundle> byPath;
};

LoadedBundles& loadedBundles() {
  static LoadedBundles* table = new LoadedBundles();
  return *table;
}

bool isDirectory(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool fail(vl::Error* error, const std::string& reason) {
  vl::setError(error, vl::Error::withDescription(kVLBundleErrorDomain, 1, reason));
  return false;
}

std::optional<std::string> environmentValue(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return std::string(value);
}

std::string executableFolder() {
  std::error_code ec;
  std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return {};
  return exe.parent_path().string();
}

// The name under which the dynamic loader first mapped the shared object. Opening a file that is
// already mapped, through a symbolic link, a hard link or another spelling of its path, gives the
// existing mapping and does not run its initialisers again, so its classes stay registered under
// this first name.
std::string mappedName(void* handle, const std::string& fallback) {
  link_map* map = nullptr;
  if (dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0 || map == nullptr || map->l_name == nullptr ||
      *map->l_name == '\0') {
    return fallback;
  }
  return map->l_name;
}

// The dictionary values of "Supported Test Cases".
std::vector<vl::Dictionary> supportedTestCases(const vl::Dictionary& info) {
  std::vector<vl::Dictionary> entries;
  const vl::Dictionary* supported = info.get(kVLBundleKeySupportedTestCases).asDictionary();
  if (!supported) return entries;
  for (const vl::Value& value : supported->values()) {
    if (const vl::Dictionary* entry = value.asDictionary()) entries.push_back(*entry);
  }
  return entries;
}

}  // namespace

// VLTestBundle

VLTestBundle::VLTestBundle(std::string path) : path_(std::move(path)) {
  std::string last = vl::paths::lastComponent(path_);
  size_t dot = last.rfind('.');
  name_ = (dot == std::string::npos || dot == 0) ? last : last.substr(0, dot);
}

std::shared_ptr<VLTestBundle> VLTestBundle::withBundlePath(std::string path) {
  std::shared_ptr<VLTestBundle> bundle(new VLTestBundle(std::move(path)));
  bundle->refreshTestCases();
  return bundle;
}

vl::Dictionary VLTestBundle::dictionaryValue() const {
  vl::Array tests;
  for (const std::string& test : testCases_) tests.push_back(test);
  return vl::Dictionary{{"name", name_}, {"path", path_}, {"tests", std::move(tests)}};
}

void VLTestBundle::refreshTestCases() {
  std::optional<vl::Dictionary> info = infoDictionary();
  if (!info) return;
  std::vector<std::string> names;
  for (const vl::Dictionary& entry : supportedTestCases(*info)) {
    if (const std::string* name = entry.get("Name").asString()) names.push_back(*name);
  }
  testCases_ = std::move(names);
}

bool VLTestBundle::canOpen() const { return isDirectory(path_); }

std::optional<vl::Dictionary> VLTestBundle::infoDictionary() const {
  if (!canOpen()) return std::nullopt;
  try {
    std::optional<vl::Dictionary> info =
        vl::plist::readDictionary(vl::paths::join(path_, kInfoPlistName));
    return info ? std::move(*info) : vl::Dictionary{};
  } catch (const std::exception&) {
    return vl::Dictionary{};
  }
}

bool VLTestBundle::isLoaded() const {
  LoadedBundles& table = loadedBundles();
  std::lock_guard lock(table.mutex);
  auto it = table.byPath.find(path_);
  return it != table.byPath.end() && it->second.principal != nullptr;
}

bool VLTestBundle::load(vl::Error* error) const {
  try {
    if (!canOpen()) return fail(error, vl::format("The bundle at %@ could not be opened", path_));
    std::string infoPath = vl::paths::join(path_, kInfoPlistName);
    vl::Error plistError;
    std::optional<vl::Value> infoValue = vl::plist::readFile(infoPath, &plistError);
    if (!infoValue) {
      return fail(error, vl::format("The bundle's Info.plist at %@ could not be read: %@", infoPath,
                                    plistError.localizedDescription()));
    }
    const vl::Dictionary* info = infoValue->asDictionary();
    if (!info) {
      return fail(error, vl::format("The bundle's Info.plist at %@ is not a dictionary", infoPath));
    }
    const std::string* executable = info->get(kVLBundleKeyExecutable).asString();
    if (!executable || executable->empty()) {
      return fail(error, vl::format("The bundle's Info.plist at %@ names no %@", infoPath,
                                    kVLBundleKeyExecutable));
    }
    const std::string* className = info->get(kVLBundleKeyPrincipalClass).asString();
    if (!className || className->empty()) {
      return fail(error, vl::format("The bundle's Info.plist at %@ names no %@", infoPath,
                                    kVLBundleKeyPrincipalClass));
    }
    std::string objectPath = vl::paths::join(path_, *executable);

    std::shared_ptr<const vl::BundleClass> principal;
    {
      // One load at a time, so that the registrations of the initialisers that dlopen runs are
      // attributed to the shared object being opened. The class registry has a lock of its own.
      LoadedBundles& table = loadedBundles();
      std::lock_guard lock(table.mutex);
      LoadedBundle& loaded = table.byPath[path_];
      if (loaded.principal) return true;
      if (!loaded.object) {
        vl::ScopedRegistrationOrigin origin(objectPath);
        dlerror();
        void* handle = ::dlopen(objectPath.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
          const char* reason = dlerror();
          table.byPath.erase(path_);
          return fail(error, vl::format("The bundle's executable %@ could not be loaded: %s",
                                        objectPath, reason ? reason : "unknown error"));
        }
        loaded.object = SharedObject(handle);
      }
      principal = vl::findBundleClass(mappedName(loaded.object.get(), objectPath), *className);
      if (!principal || !principal->create) {
        return fail(error, vl::format("The principal class %@ is not registered by %@", *className,
                                      objectPath));
      }
      loaded.principal = principal;
    }

    std::vector<std::string> names;
    std::vector<std::string> selectors;
    for (const vl::Dictionary& entry : supportedTestCases(*info)) {
      if (const std::string* name = entry.get("Name").asString()) names.push_back(*name);
      if (const std::string* selector = entry.get("Selector").asString()) {
        selectors.push_back(*selector);
      }
    }
    vl::registerTestCaseProvider(
        vl::TestCaseProvider{path_, principal->name, std::move(names), std::move(selectors),
                             principal->create, principal->isKindOfClass,
                             VLTestCaseClass::RegisteredClass{principal->name, principal->origin}});
    return true;
  } catch (const std::exception& e) {
    return fail(error, vl::format("The bundle at %@ could not be loaded: %s", path_, e.what()));
  }
}

std::optional<std::string> VLTestBundle::className() const {
  std::optional<vl::Dictionary> info = infoDictionary();
  if (!info) return std::nullopt;
  const std::string* name = info->get(kVLBundleKeyPrincipalClass).asString();
  if (!name || name->empty()) return std::nullopt;
  return *name;
}

std::shared_ptr<const vl::BundleClass> VLTestBundle::principalClass() const {
  if (!load()) return nullptr;
  LoadedBundles& table = loadedBundles();
  std::lock_guard lock(table.mutex);
  auto it = table.byPath.find(path_);
  return it == table.byPath.end() ? nullptr : it->second.principal;
}

vl::Dictionary VLTestBundle::primaryProcesses(const std::string& subtype) const {
  vl::Dictionary result;
  std::optional<vl::Dictionary> info = infoDictionary();
  if (!info) return result;
  const vl::Dictionary* processes = info->get(kVLBundleKeyPrimaryProcesses).asDictionary();
  if (!processes) return result;
  for (size_t i = 0; i < processes->size(); ++i) {
    auto [process, value] = processes->entry(i);
    const vl::Dictionary* bySubtype = value.asDictionary();
    if (!bySubtype) continue;
    for (size_t j = 0; j < bySubtype->size(); ++j) {
      auto [key, entry] = bySubtype->entry(j);
      if (key == subtype) {
        result.set(process, entry);
      } else if (key == "default" && !result.contains(process)) {
        result.set(process, entry);
      }
    }
  }
  return result;
}

std::optional<vl::Dictionary> VLTestBundle::getDefaultSettingsForType(
    const std::string& type, const std::string& subtype) const {
  std::optional<vl::Dictionary> info = infoDictionary();
  if (!info) return std::nullopt;
  std::optional<vl::Dictionary> answer;
  if (const vl::Dictionary* settings = info->get(kVLBundleKeyDefaultSettings).asDictionary()) {
    if (const vl::Dictionary* byType = settings->get(type).asDictionary()) {
      if (const vl::Dictionary* forSubtype = byType->get(subtype).asDictionary()) {
        answer = *forSubtype;
      }
    }
  }
  std::shared_ptr<const vl::BundleClass> principal = principalClass();
  if (principal && principal->defaultSettings) {
    try {
      std::optional<vl::Dictionary> fromClass = principal->defaultSettings(type, subtype);
      if (fromClass && !fromClass->empty()) answer = std::move(*fromClass);
    } catch (const std::exception&) {
      // A class that throws has no default settings to give.
    }
  }
  return answer;
}

// VLTestBundleManager

std::shared_ptr<VLTestBundleManager> VLTestBundleManager::withBundlesInPath(std::string path) {
  return std::shared_ptr<VLTestBundleManager>(new VLTestBundleManager(std::move(path)));
}

void VLTestBundleManager::initBundleData() {
  built_ = true;
  bundles_.clear();
  tests_.clear();
  std::optional<std::vector<std::string>> names = VLGetBundlesInPath(path_);
  if (!names) return;
  auto put = [](auto& table, const std::string& key, const std::shared_ptr<VLTestBundle>& bundle) {
    auto it = std::find_if(table.begin(), table.end(),
                           [&](const auto& entry) { return entry.first == key; });
    if (it != table.end()) {
      it->second = bundle;
    } else {
      table.emplace_back(key, bundle);
    }
  };
  for (const std::string& name : *names) {
    auto bundle = VLTestBundle::withBundlePath(vl::format("%@/%@", path_, name));
    put(bundles_, bundle->name(), bundle);
    for (const std::string& test : bundle->testCases()) put(tests_, test, bundle);
  }
}

void VLTestBundleManager::updateBundleData() {
  if (!built_) initBundleData();
}

std::vector<std::string> VLTestBundleManager::bundles() {
  updateBundleData();
  std::vector<std::string> names;
  for (const auto& entry : bundles_) names.push_back(entry.first);
  return names;
}

std::vector<std::string> VLTestBundleManager::tests() {
  updateBundleData();
  std::vector<std::string> names;
  for (const auto& entry : tests_) names.push_back(entry.first);
  return names;
}

std::shared_ptr<VLTestBundle> VLTestBundleManager::getTestBundleForTest(const std::string& name) {
  updateBundleData();
  for (const auto& entry : tests_) {
    if (entry.first == name) return entry.second;
  }
  return nullptr;
}

vl::Dictionary VLTestBundleManager::primaryProcesses(const std::string& subtype) {
  updateBundleData();
  vl::Dictionary merged;
  for (const auto& entry : bundles_) {
    vl::Dictionary processes = entry.second->primaryProcesses(subtype);
    for (size_t i = 0; i < processes.size(); ++i) {
      auto [process, value] = processes.entry(i);
      merged.set(process, value);
    }
  }
  return merged;
}

std::optional<vl::Dictionary> VLTestBundleManager::getDefaultSettingsForType(
    const std::string& type, const std::string& subtype) {
  updateBundleData();
  for (const auto& entry : bundles_) {
    if (auto settings = entry.second->getDefaultSettingsForType(type, subtype)) return settings;
  }
  return std::nullopt;
}

vl::Array VLTestBundleManager::_getMeta() {
  updateBundleData();
  vl::Array meta;
  for (const auto& entry : bundles_) meta.push_back(entry.second->dictionaryValue());
  return meta;
}

std::string VLTestBundleManager::getMeta() {
  std::string text = vl::format("Tracking the following bundle path: %@\n", path_);
  for (const vl::Value& value : _getMeta()) {
    const vl::Dictionary* bundle = value.asDictionary();
    if (!bundle) continue;
    text += vl::format("\n[+] %@\n", bundle->get("name"));
    if (const vl::Array* tests = bundle->get("tests").asArray()) {
      for (const vl::Value& test : *tests) text += vl::format("\t+ %@\n", test);
    }
  }
  return text;
}

std::string VLTestBundleManager::getMetaAsJSON() {
  vl::Error error;
  std::optional<std::string> json;
  try {
    json = vl::json::serialize(_getMeta(), /*pretty=*/true, /*requireContainer=*/true, &error);
  } catch (const std::exception& e) {
    error = vl::Error::withDescription(vl::json::kErrorDomain, 1, e.what());
  }
  if (!json) {
    return vl::format("Problem encountered generating report: %@", error.localizedDescription());
  }
  return *json;
}

// Functions

std::string VLGetBundlePath() {
  std::string process = vl::process::name();
  if (process == "Procedor_Vorlund") {
    std::string folder = executableFolder();
    if (!folder.empty()) {
      std::string plugIns = vl::paths::join(folder, "PlugIns");
      if (isDirectory(plugIns)) return plugIns;
    }
  } else if (process == "forgetest") {
    if (auto products = environmentValue(kBuiltProductsVariable)) return *products;
  }
  return vl::paths::resolve(kStressBundleDirectory);
}

std::optional<std::vector<std::string>> VLGetBundlesInPath(const std::string& path) {
  std::vector<std::string> names;
  std::error_code ec;
  std::filesystem::directory_iterator it(path, ec);
  if (!ec) {
    for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
      std::string name = it->path().filename().string();
      if (name.size() >= std::strlen(kBundleExtension) &&
          name.compare(name.size() - std::strlen(kBundleExtension), std::string::npos,
                       kBundleExtension) == 0) {
        names.push_back(std::move(name));
      }
    }
  }
  if (ec) {
    vl::Error error;
    error.domain = "NSPOSIXErrorDomain";
    error.code = ec.value();
    error.userInfo.set(vl::kErrorDescriptionKey,
                       vl::format("The folder %@ could not be listed: %s", path, ec.message()));
    VLLog(VLLogLevelError, nullptr, "No bundles found in bundle directory: %@",
          error.description());
    vl::catalogue::recordFailureIssue("No bundles could be loaded");
    return std::nullopt;
  }
  return names;
}

std::optional<std::vector<std::string>> VLGetBundles() {
  return VLGetBundlesInPath(VLGetBundlePath());
}

std::shared_ptr<VLTestBundleManager> VLGetBundleManager() {
  std::string path =
      environmentValue(kBuiltProductsVariable).value_or(vl::paths::resolve(kStressBundleDirectory));
  return VLTestBundleManager::withBundlesInPath(std::move(path));
}

std::shared_ptr<VLTestBundle> VLGetBundleForKeyValuePairingAtPath(
    const std::string& key, const vl::Value& value, const std::optional<std::string>& path) {
  std::string directory = path ? *path : VLGetBundlePath();
  std::optional<std::vector<std::string>> names = VLGetBundlesInPath(directory);
  if (!names) return nullptr;
  for (const std::string& name : *names) {
    auto bundle = VLTestBundle::withBundlePath(vl::format("%@/%@", directory, name));
    std::optional<vl::Dictionary> info = bundle->infoDictionary();
    if (!info) continue;
    bool matches = false;
    for (const vl::Dictionary& entry : supportedTestCases(*info)) {
      const vl::Value* found = entry.find(key);
      if (found && *found == value) {
        matches = true;
        break;
      }
    }
    if (!matches) continue;

    VLLog(VLLogLevelDebug, "Framework", "Found matching key/value pairing (%@/%@) in %@", key,
          value, bundle->path());
    if (bundle->isLoaded()) return bundle;
    VLLog(VLLogLevelInfo, "Framework", "Loading bundle at %@", bundle->path());
    vl::Error error;
    if (bundle->load(&error)) return bundle;
    VLLog(VLLogLevelError, "Framework", "Failed to load bundle %@ with reason %@", bundle->path(),
          error.description());
    return nullptr;
  }
  VLLog(VLLogLevelError, "Framework",
        "No bundles contained matching key/value pairing (%@/%@) in %@", key, value, directory);
  return nullptr;
}

std::shared_ptr<VLTestBundle> VLGetBundleForTestCaseNameAtPath(
    const std::string& name, const std::optional<std::string>& path) {
  return VLGetBundleForKeyValuePairingAtPath("Name", name, path);
}

std::shared_ptr<VLTestBundle> VLGetBundleForTestCaseSelectorAtPath(
    const std::string& selector, const std::optional<std::string>& path) {
  return VLGetBundleForKeyValuePairingAtPath("Selector", selector, path);
}

std::shared_ptr<VLTestBundle> VLGetBundleForTestCaseName(const std::string& name) {
  return VLGetBundleForTestCaseNameAtPath(name, std::nullopt);
}

std::shared_ptr<VLTestBundle> VLGetBundleForTestCaseSelector(const std::string& selector) {
  return VLGetBundleForTestCaseSelectorAtPath(selector, std::nullopt);
}
