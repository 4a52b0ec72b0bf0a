// The providers and loaded test case classes. Each registry has its own lock, held only while
// searching or changing it, never while a class is being created.

#include "vorlund/catalogue/test_case_registry.h"

#include <algorithm>
#include <mutex>
#include <string_view>

#include "vorlund/catalogue/test_bundle.h"
#include "vorlund/logging/log.h"

namespace vl {
namespace {

struct Registries {
  std::mutex providersMutex;
  std::vector<std::shared_ptr<const TestCaseProvider>> providers;
  std::mutex classesMutex;
  std::vector<std::shared_ptr<VLTestCaseClass>> classes;
  std::mutex remoteMutex;
  std::vector<std::shared_ptr<VLPendingReplyOwner>> remoteObjects;
};

Registries& registries() {
  static Registries* instance = new Registries();  // lives for the process
  return *instance;
}

// Whether object is the provider's instance: created as exactly its registered class for a bundle's
// provider (another bundle's class of the same C++ name also passes the kind-of test), else a kind
// of its principal class.
bool madeBy(const TestCaseProvider& provider, const VLTestCaseClass& object) {
  if (provider.registeredClass) return object.registeredClass() == provider.registeredClass;
  return provider.isKindOfClass && provider.isKindOfClass(object);
}

std::string_view withoutColon(std::string_view selector) {
  if (!selector.empty() && selector.back() == ':') selector.remove_suffix(1);
  return selector;
}

}  // namespace

void registerTestCaseProvider(TestCaseProvider provider) {
  auto shared = std::make_shared<const TestCaseProvider>(std::move(provider));
  Registries& r = registries();
  std::lock_guard lock(r.providersMutex);
  auto it = std::find_if(r.providers.begin(), r.providers.end(),
                         [&](const auto& p) { return p->path == shared->path; });
  if (it != r.providers.end()) {
    *it = std::move(shared);
  } else {
    r.providers.push_back(std::move(shared));
  }
}

void removeTestCaseProvider(const std::string& path) {
  Registries& r = registries();
  std::shared_ptr<const TestCaseProvider> removed;
  {
    std::lock_guard lock(r.providersMutex);
    auto it = std::find_if(r.providers.begin(), r.providers.end(),
                           [&](const auto& p) { return p->path == path; });
    if (it == r.providers.end()) return;
    removed = *it;
    r.providers.erase(it);
  }
  std::lock_guard lock(r.classesMutex);
  std::erase_if(r.classes, [&](const auto& object) { return madeBy(*removed, *object); });
}

std::shared_ptr<const TestCaseProvider> findTestCaseProviderForPath(const std::string& path) {
  Registries& r = registries();
  std::lock_guard lock(r.providersMutex);
  for (const auto& provider : r.providers) {
    if (provider->path == path) return provider;
  }
  return nullptr;
}

std::shared_ptr<const TestCaseProvider> findTestCaseProvider(const std::string* name,
                                                             const std::string* selector) {
  Registries& r = registries();
  std::lock_guard lock(r.providersMutex);
  if (name) {
    for (const auto& provider : r.providers) {
      const auto& names = provider->testCaseNames;
      if (std::find(names.begin(), names.end(), *name) != names.end()) return provider;
    }
  }
  if (selector) {
    for (const auto& provider : r.providers) {
      for (const std::string& listed : provider->selectors) {
        if (withoutColon(listed) == withoutColon(*selector)) return provider;
      }
    }
  }
  return nullptr;
}

namespace {

// Prints a reply owner in a log line's list the way the owner describes itself.
class DescribedOwner : public Record {
 public:
  explicit DescribedOwner(std::string description) : description_(std::move(description)) {}
  std::string className() const override { return "VLPendingReplyOwner"; }
  std::string description() const override { return description_; }

 private:
  std::string description_;
};

Value loggable(const std::shared_ptr<VLTestCaseClass>& object) { return Value(object); }
Value loggable(const std::shared_ptr<VLPendingReplyOwner>& owner) {
  return Value(std::make_shared<DescribedOwner>(owner->description()));
}

// A copy of one registry's objects, taken under its lock and logged as the loaded classes.
template <typename T>
std::vector<std::shared_ptr<T>> snapshotLoaded(std::mutex& mutex,
                                               const std::vector<std::shared_ptr<T>>& objects) {
  std::vector<std::shared_ptr<T>> copy;
  {
    std::lock_guard lock(mutex);
    copy = objects;
  }
  vl::Array listed;
  for (const auto& object : copy) listed.push_back(loggable(object));
  VLLog(VLLogLevelDebug, "Framework", "Currently loaded classes are %@", listed);
  return copy;
}

}  // namespace

std::vector<std::shared_ptr<VLTestCaseClass>> loadedTestCaseClasses() {
  Registries& r = registries();
  return snapshotLoaded(r.classesMutex, r.classes);
}

void addRemoteExecutionObject(std::shared_ptr<VLPendingReplyOwner> object) {
  if (!object) return;
  Registries& r = registries();
  std::lock_guard lock(r.remoteMutex);
  if (std::find(r.remoteObjects.begin(), r.remoteObjects.end(), object) != r.remoteObjects.end()) {
    return;
  }
  r.remoteObjects.push_back(std::move(object));
}

void removeRemoteExecutionObject(const VLPendingReplyOwner* object) {
  Registries& r = registries();
  std::lock_guard lock(r.remoteMutex);
  std::erase_if(r.remoteObjects, [&](const auto& listed) { return listed.get() == object; });
}

std::vector<std::shared_ptr<VLPendingReplyOwner>> loadedRemoteExecutionObjects() {
  Registries& r = registries();
  return snapshotLoaded(r.remoteMutex, r.remoteObjects);
}

}  // namespace vl

std::shared_ptr<VLTestCaseClass> VLGetClassForTestCase(
    const std::shared_ptr<VLTestCaseObject>& testCase) {
  if (!testCase) return nullptr;
  const std::optional<std::string>& name = testCase->name();
  const std::optional<std::string>& selector = testCase->selector();
  const std::string* byName = name && !name->empty() ? &*name : nullptr;
  const std::string* bySelector = selector && !selector->empty() ? &*selector : nullptr;
  // The catalogue decides which bundle declares the test case; loading that bundle registers it.
  std::shared_ptr<VLTestBundle> bundle;
  if (byName) bundle = VLGetBundleForTestCaseNameAtPath(*byName, std::nullopt);
  if (!bundle && bySelector)
    bundle = VLGetBundleForTestCaseSelectorAtPath(*bySelector, std::nullopt);
  std::shared_ptr<const vl::TestCaseProvider> provider =
      bundle ? vl::findTestCaseProviderForPath(bundle->path())
             : vl::findTestCaseProvider(byName, bySelector);
  if (!provider) return nullptr;

  vl::Registries& r = vl::registries();
  for (const auto& object : vl::snapshotLoaded(r.classesMutex, r.classes)) {
    if (vl::madeBy(*provider, *object)) {
      VLLog(VLLogLevelDebug, nullptr, "Class already loaded...%@", object);
      return object;
    }
  }
  std::shared_ptr<VLTestCaseClass> created;
  try {
    if (provider->create) created = provider->create();
  } catch (const std::exception&) {
    created = nullptr;
  }
  if (!created) {
    VLLog(VLLogLevelError, "Framework", "Unable to create a class from %@ for %@", provider->path,
          testCase);
    return nullptr;
  }
  std::lock_guard lock(r.classesMutex);
  // Another thread may have created the same class meanwhile; one instance serves them all.
  for (const auto& object : r.classes) {
    if (vl::madeBy(*provider, *object)) return object;
  }
  r.classes.push_back(created);
  return created;
}
