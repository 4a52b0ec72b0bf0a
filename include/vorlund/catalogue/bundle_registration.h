// How a test bundle's code makes itself known: its principal class, the class's default-settings
// function and its test methods, each registered by name with one macro at namespace scope in the
// bundle's sources. The registrations run when the bundle's shared object is opened; the catalogue
// then finds the bundle's "Principal Class" among them, and "call an operation by name" is a lookup
// of a registered test method.
//
//   VORLUND_BUNDLE_CLASS(WifiStress);
//   VORLUND_DEFAULT_SETTINGS(WifiStress, wifiDefaultSettings);
//   VORLUND_TEST_METHOD(WifiStress, pingGateway);
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "vorlund/catalogue/test_case_class.h"
#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/foundation/value.h"

class VLTestCaseResult;

namespace vl {

// A test method: runs one test case on an instance of its class and returns the result (nullptr
// when the method has none to give).
using TestMethod = std::function<std::shared_ptr<VLTestCaseResult>(
    VLTestCaseClass& object, const std::shared_ptr<VLTestCaseObject>& testCase)>;
// A class's default settings for a stress type and subtype; none or an empty dictionary when it has
// none.
using DefaultSettingsFunction =
    std::function<std::optional<Dictionary>(std::string_view type, std::string_view subtype)>;

// A registered class with what was registered for it.
struct BundleClass {
  std::string name;
  // Where the class came from: the path of the shared object being opened when it registered, or
  // "" for classes compiled into the program itself.
  std::string origin;
  // Creates an instance and marks it with this class's name and origin.
  std::function<std::shared_ptr<VLTestCaseClass>()> create;
  std::function<bool(const VLTestCaseClass&)> isKindOfClass;
  DefaultSettingsFunction defaultSettings;  // empty when none was registered
  std::vector<std::pair<std::string, TestMethod>> methods;
};

// Called by the macros below, never throw; return true so that they can initialise a constant.
// A registration for a class name that its origin already has replaces the earlier one.
bool registerBundleClass(std::string name, std::function<std::shared_ptr<VLTestCaseClass>()> create,
                         std::function<bool(const VLTestCaseClass&)> isKindOfClass);
bool registerBundleDefaultSettings(std::string className, DefaultSettingsFunction function);
bool registerBundleTestMethod(std::string className, std::string selector, TestMethod method);

// The class of that name registered by the shared object at origin, else one compiled into the
// program (origin ""). nullptr when there is none.
std::shared_ptr<const BundleClass> findBundleClass(const std::string& origin,
                                                   const std::string& name);
// The test method of that selector (with or without its final ":") that applies to the object. An
// object created by a registered class (VLTestCaseClass::registeredClass) runs a method of that
// class, else of a class of the same shared object or of the program that it is a kind of. Any
// other object: a method of its own class first, then one of any registered class that the object
// is a kind of. An empty function when none does.
TestMethod findTestMethod(const VLTestCaseClass& object, std::string_view selector);

// Registrations made while an object of this type lives on a thread belong to origin (the bundle
// loader sets it around dlopen, so that the registrations of the library's initialisers are
// attributed to the bundle).
class ScopedRegistrationOrigin {
 public:
  explicit ScopedRegistrationOrigin(std::string origin);
  ~ScopedRegistrationOrigin();
  ScopedRegistrationOrigin(const ScopedRegistrationOrigin&) = delete;
  ScopedRegistrationOrigin& operator=(const ScopedRegistrationOrigin&) = delete;

 private:
  std::string previous_;
};

}  // namespace vl

#define VORLUND_CONCAT_INNER_(a, b) a##b
#define VORLUND_CONCAT_(a, b) VORLUND_CONCAT_INNER_(a, b)

// Registers Class (a subclass of VLTestCaseClass, default-constructible) under its name, which is
// the "Principal Class" of the bundle's Info.plist. Instances are made with VLTestCaseClass::make.
#define VORLUND_BUNDLE_CLASS(Class)                                                            \
  static_assert(std::is_base_of_v<VLTestCaseClass, Class>,                                     \
                #Class " must derive from VLTestCaseClass");                                   \
  [[maybe_unused]] static const bool VORLUND_CONCAT_(vorlundBundleClass_, __COUNTER__) =       \
      ::vl::registerBundleClass(                                                               \
          #Class,                                                                              \
          []() -> std::shared_ptr<VLTestCaseClass> { return VLTestCaseClass::make<Class>(); }, \
          [](const VLTestCaseClass& object) {                                                  \
            return dynamic_cast<const Class*>(&object) != nullptr;                             \
          })

// Registers the default-settings function of Class: any callable taking (std::string_view type,
// std::string_view subtype) and returning std::optional<vl::Dictionary>.
#define VORLUND_DEFAULT_SETTINGS(Class, function)                                            \
  [[maybe_unused]] static const bool VORLUND_CONCAT_(vorlundDefaultSettings_, __COUNTER__) = \
      ::vl::registerBundleDefaultSettings(#Class, ::vl::DefaultSettingsFunction(function))

// Registers the member function Class::method as the test method of selector "method". Its
// signature: std::shared_ptr<VLTestCaseResult> method(std::shared_ptr<VLTestCaseObject>).
#define VORLUND_TEST_METHOD(Class, method)                                               \
  [[maybe_unused]] static const bool VORLUND_CONCAT_(vorlundTestMethod_, __COUNTER__) =  \
      ::vl::registerBundleTestMethod(                                                    \
          #Class, #method,                                                               \
          [](VLTestCaseClass& object, const std::shared_ptr<VLTestCaseObject>& testCase) \
              -> std::shared_ptr<VLTestCaseResult> {                                     \
            auto* self = dynamic_cast<Class*>(&object);                                  \
            if (self == nullptr) return nullptr;                                         \
            return self->method(testCase);                                               \
          })
