// The process-wide registries of test case implementations: the providers (what a loaded test
// bundle offers: its principal class, the test case names and selectors it declares and how to
// create the class) and the loaded test case classes (one instance per principal class, shared by
// every test case of the provider). Bundle loading registers providers here.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "vorlund/catalogue/test_case_class.h"
#include "vorlund/catalogue/test_case_object.h"

namespace vl {

struct TestCaseProvider {
  // Where the provider came from (the bundle's path); printed in messages and used as its identity.
  std::string path;
  // The name of the principal class.
  std::string principalClass;
  // The test case names and selectors the provider declares. A selector matches with or without
  // its final ":".
  std::vector<std::string> testCaseNames;
  std::vector<std::string> selectors;
  // Creates the principal class; nullptr when it cannot.
  std::function<std::shared_ptr<VLTestCaseClass>()> create;
  // Whether an object is a kind of the principal class (the class itself or a subclass).
  std::function<bool(const VLTestCaseClass&)> isKindOfClass;
  // For a bundle's provider, the registration of its principal class: the loaded instance of the
  // provider is the one created as exactly that class (VLTestCaseClass::registeredClass), because
  // another bundle's class of the same C++ name also passes isKindOfClass.
  std::optional<VLTestCaseClass::RegisteredClass> registeredClass = std::nullopt;
};

// A provider whose principal class is T, created with VLTestCaseClass::make<T>().
template <typename T>
TestCaseProvider testCaseProviderFor(std::string path, std::string principalClass,
                                     std::vector<std::string> testCaseNames,
                                     std::vector<std::string> selectors) {
  static_assert(std::is_base_of_v<VLTestCaseClass, T>, "T must derive from VLTestCaseClass");
  return TestCaseProvider{
      std::move(path),
      std::move(principalClass),
      std::move(testCaseNames),
      std::move(selectors),
      []() -> std::shared_ptr<VLTestCaseClass> { return VLTestCaseClass::make<T>(); },
      [](const VLTestCaseClass& object) { return dynamic_cast<const T*>(&object) != nullptr; }};
}

// Adds a provider; a provider with the same path is replaced. Thread-safe.
void registerTestCaseProvider(TestCaseProvider provider);
// Removes the provider of that path and the loaded class instances that are a kind of its
// principal class. Unknown paths are ignored.
void removeTestCaseProvider(const std::string& path);
// The provider registered for a bundle path, or nullptr.
std::shared_ptr<const TestCaseProvider> findTestCaseProviderForPath(const std::string& path);
// The provider that declares the test case name, else the one that lists the selector; the first
// registered wins. nullptr when none does.
std::shared_ptr<const TestCaseProvider> findTestCaseProvider(const std::string* name,
                                                             const std::string* selector);
// The class instances created so far, in creation order. Logs them at level 2, category
// "Framework", "Currently loaded classes are %@".
std::vector<std::shared_ptr<VLTestCaseClass>> loadedTestCaseClasses();

// The loaded remote-execution objects: the reply owners that have sent a request and wait, or
// waited, for its reply; the message router hands incoming replies to them. Created empty on
// first use, guarded by its own lock. An owner is added once (adding it again does nothing) and
// stays for the life of the process, so that late replies still reach it; removal is for owners
// that go away (and for tests).
void addRemoteExecutionObject(std::shared_ptr<VLPendingReplyOwner> object);
void removeRemoteExecutionObject(const VLPendingReplyOwner* object);
// A copy of the list, in order of addition. Logs it on every call at level 2, category
// "Framework", "Currently loaded classes are %@", each owner as its description() prints it.
std::vector<std::shared_ptr<VLPendingReplyOwner>> loadedRemoteExecutionObjects();

}  // namespace vl

// The instance of the class that implements the test case. Its provider is the bundle of the bundle
// directory that declares the test case's name, else the one that lists its selector, the first in
// listing order (VLGetBundleForTestCaseName, which loads it); a provider registered without a
// bundle folder (a program's own classes) answers only when no bundle does. The instance is the
// loaded one created as that provider's principal class (the loaded classes are logged as
// loadedTestCaseClasses() logs them, the instance found at level 2 "Class already loaded...%@"),
// else a new one added to the loaded classes: never another bundle's object that happens to answer
// the selector. nullptr when nothing declares the test case, or when creating the class fails
// (logged at level 16, category "Framework", "Unable to create a class from %@ for %@").
std::shared_ptr<VLTestCaseClass> VLGetClassForTestCase(
    const std::shared_ptr<VLTestCaseObject>& testCase);
