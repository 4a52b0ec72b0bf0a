#include "vorlund/catalogue/bundle_registration.h"

#include <algorithm>
#include <exception>
#include <mutex>

namespace vl {
namespace {

struct ClassRegistry {
  std::mutex mutex;
  // Each entry is replaced as a whole on change, so that readers keep a consistent copy.
  std::vector<std::shared_ptr<const BundleClass>> classes;
};

ClassRegistry& classRegistry() {
  static ClassRegistry* registry = new ClassRegistry();  // lives for the process
  return *registry;
}

thread_local std::string currentOrigin;

std::string_view withoutColon(std::string_view selector) {
  if (!selector.empty() && selector.back() == ':') selector.remove_suffix(1);
  return selector;
}

// Applies change to a copy of the class registered by the current origin under name (a new one when
// there is none) and stores the copy.
bool updateClass(const std::string& name, const std::function<void(BundleClass&)>& change) {
  try {
    ClassRegistry& r = classRegistry();
    std::lock_guard lock(r.mutex);
    auto it = std::find_if(r.classes.begin(), r.classes.end(), [&](const auto& c) {
      return c->name == name && c->origin == currentOrigin;
    });
    BundleClass updated;
    if (it != r.classes.end()) {
      updated = **it;
    } else {
      updated.name = name;
      updated.origin = currentOrigin;
    }
    change(updated);
    auto shared = std::make_shared<const BundleClass>(std::move(updated));
    if (it != r.classes.end()) {
      *it = std::move(shared);
    } else {
      r.classes.push_back(std::move(shared));
    }
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

bool registerBundleClass(std::string name, std::function<std::shared_ptr<VLTestCaseClass>()> create,
                         std::function<bool(const VLTestCaseClass&)> isKindOfClass) {
  return updateClass(name, [&](BundleClass& c) {
    // Every object is created knowing which registration made it: its class name and origin are
    // what later lookups compare, never the C++ type, which two bundles may share.
    c.create = [create = std::move(create),
                registered = VLTestCaseClass::RegisteredClass{c.name, c.origin}]() {
      std::shared_ptr<VLTestCaseClass> object = create ? create() : nullptr;
      if (object) object->setRegisteredClass(registered);
      return object;
    };
    c.isKindOfClass = std::move(isKindOfClass);
  });
}

bool registerBundleDefaultSettings(std::string className, DefaultSettingsFunction function) {
  return updateClass(className, [&](BundleClass& c) { c.defaultSettings = std::move(function); });
}

bool registerBundleTestMethod(std::string className, std::string selector, TestMethod method) {
  return updateClass(className, [&](BundleClass& c) {
    std::string key(withoutColon(selector));
    auto it = std::find_if(c.methods.begin(), c.methods.end(),
                           [&](const auto& entry) { return entry.first == key; });
    if (it != c.methods.end()) {
      it->second = std::move(method);
    } else {
      c.methods.emplace_back(std::move(key), std::move(method));
    }
  });
}

std::shared_ptr<const BundleClass> findBundleClass(const std::string& origin,
                                                   const std::string& name) {
  ClassRegistry& r = classRegistry();
  std::lock_guard lock(r.mutex);
  std::shared_ptr<const BundleClass> builtIn;
  for (const auto& c : r.classes) {
    if (c->name != name) continue;
    if (c->origin == origin) return c;
    if (c->origin.empty()) builtIn = c;
  }
  return builtIn;
}

TestMethod findTestMethod(const VLTestCaseClass& object, std::string_view selector) {
  std::string_view wanted = withoutColon(selector);
  std::vector<std::shared_ptr<const BundleClass>> classes;
  {
    ClassRegistry& r = classRegistry();
    std::lock_guard lock(r.mutex);
    classes = r.classes;
  }
  // The method of the first class, in registration order, that passes the test.
  auto firstMethod = [&](const auto& applies) -> TestMethod {
    for (const auto& c : classes) {
      if (!applies(*c)) continue;
      for (const auto& [name, method] : c->methods) {
        if (name == wanted) return method;
      }
    }
    return {};
  };
  auto isKind = [&](const BundleClass& c) { return c.isKindOfClass && c.isKindOfClass(object); };
  // An object a registry created runs its own registration's methods, then those of the classes
  // of the same shared object (or of the program) that it derives from; never another bundle's,
  // even where that bundle's class has the same C++ name and so passes the kind-of test.
  if (std::optional<VLTestCaseClass::RegisteredClass> own = object.registeredClass()) {
    if (TestMethod method = firstMethod(
            [&](const BundleClass& c) { return c.name == own->name && c.origin == own->origin; })) {
      return method;
    }
    return firstMethod([&](const BundleClass& c) {
      return (c.origin == own->origin || c.origin.empty()) && isKind(c);
    });
  }
  // Several copies of one bundle may register the same class name; the one whose instances this
  // object belongs to is the one that can run it.
  const std::string ownName = object.className();
  if (TestMethod method =
          firstMethod([&](const BundleClass& c) { return c.name == ownName && isKind(c); })) {
    return method;
  }
  return firstMethod(isKind);
}

ScopedRegistrationOrigin::ScopedRegistrationOrigin(std::string origin)
    : previous_(std::exchange(currentOrigin, std::move(origin))) {}

ScopedRegistrationOrigin::~ScopedRegistrationOrigin() { currentOrigin = std::move(previous_); }

}  // namespace vl
