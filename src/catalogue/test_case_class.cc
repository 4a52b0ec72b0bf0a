#include "vorlund/catalogue/test_case_class.h"

#include <cxxabi.h>

#include <cstdlib>
#include <typeinfo>

namespace {

constexpr const char* kInstanceIdKey = "instanceId";
constexpr const char* kTechnologyKey = "technology";

[[maybe_unused]] const bool kRegistered = vl::registerCodableClass({
    .name = "VLTestCaseClass",
    .superclasses = {vl::kClassRoot},
    .decode = [](vl::KeyedUnarchiver& coder) -> std::shared_ptr<vl::CodableRecord> {
      return VLTestCaseClass::withCoder(coder);
    },
    .fromDictionary = nullptr,
});

}  // namespace

VLTestCaseClass::VLTestCaseClass() { initializeProtocolVariables(); }

void VLTestCaseClass::initializeProtocolVariables() {
  std::lock_guard guard(mutex_);
  lastUsed_ = vl::Date::now();
  pendingMessageIDs_ = vl::Array();
  responses_ = vl::Array();
  lock_ = std::make_shared<vl::Condition>();
  technology_ = 0;
}

std::optional<std::string> VLTestCaseClass::instanceId() const {
  std::lock_guard guard(mutex_);
  return instanceId_;
}

void VLTestCaseClass::setInstanceId(std::optional<std::string> instanceId) {
  std::lock_guard guard(mutex_);
  instanceId_ = std::move(instanceId);
}

vl::Array VLTestCaseClass::responses() const {
  std::lock_guard guard(mutex_);
  return responses_;
}

void VLTestCaseClass::setResponses(vl::Array responses) {
  std::lock_guard guard(mutex_);
  responses_ = std::move(responses);
}

vl::Date VLTestCaseClass::lastUsed() const {
  std::lock_guard guard(mutex_);
  return lastUsed_;
}

void VLTestCaseClass::setLastUsed(vl::Date lastUsed) {
  std::lock_guard guard(mutex_);
  lastUsed_ = lastUsed;
}

vl::Array VLTestCaseClass::pendingMessageIDs() const {
  std::lock_guard guard(mutex_);
  return pendingMessageIDs_;
}

void VLTestCaseClass::setPendingMessageIDs(vl::Array pendingMessageIDs) {
  std::lock_guard guard(mutex_);
  pendingMessageIDs_ = std::move(pendingMessageIDs);
}

std::shared_ptr<vl::Condition> VLTestCaseClass::lock() const {
  std::lock_guard guard(mutex_);
  return lock_;
}

void VLTestCaseClass::setLock(std::shared_ptr<vl::Condition> lock) {
  std::lock_guard guard(mutex_);
  lock_ = std::move(lock);
}

std::optional<int64_t> VLTestCaseClass::technology() const {
  std::lock_guard guard(mutex_);
  return technology_;
}

void VLTestCaseClass::setTechnology(int64_t technology) {
  std::lock_guard guard(mutex_);
  technology_ = technology;
}

void VLTestCaseClass::updateResponses(const std::function<void(vl::Array&)>& change) {
  std::lock_guard guard(mutex_);
  change(responses_);
}

void VLTestCaseClass::updatePendingMessageIDs(const std::function<void(vl::Array&)>& change) {
  std::lock_guard guard(mutex_);
  change(pendingMessageIDs_);
}

std::string VLTestCaseClass::friendlyName() const { return className(); }

bool VLTestCaseClass::registerForNotifications() { return false; }

bool VLTestCaseClass::checkForMissedNotifications() { return false; }

std::optional<vl::Dictionary> VLTestCaseClass::getDefaultSettingsForType(std::string_view,
                                                                         std::string_view) {
  return std::nullopt;
}

std::optional<VLTestCaseClass::RegisteredClass> VLTestCaseClass::registeredClass() const {
  std::lock_guard guard(mutex_);
  return registeredClass_;
}

void VLTestCaseClass::setRegisteredClass(RegisteredClass registered) {
  std::lock_guard guard(mutex_);
  registeredClass_ = std::move(registered);
}

std::string VLTestCaseClass::description() const { return vl::CodableRecord::description(); }

std::string VLTestCaseClass::className() const {
  if (std::optional<RegisteredClass> registered = registeredClass()) return registered->name;
  const char* mangled = typeid(*this).name();
  int status = 0;
  char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
  std::string name = (status == 0 && demangled) ? demangled : mangled;
  std::free(demangled);
  return name;
}

void VLTestCaseClass::encodeWithCoder(vl::KeyedArchiver& coder) const {
  std::lock_guard guard(mutex_);
  coder.encodeObject(instanceId_ ? vl::Value(*instanceId_) : vl::Value(), kInstanceIdKey);
  coder.encodeObject(vl::Value(technology_), kTechnologyKey);
}

std::shared_ptr<VLTestCaseClass> VLTestCaseClass::withCoder(vl::KeyedUnarchiver& coder) {
  std::optional<std::string> instanceId = coder.decodeString(kInstanceIdKey);
  std::optional<vl::Number> technology = coder.decodeNumber(kTechnologyKey);
  if (coder.failed()) return nullptr;
  auto object = make<VLTestCaseClass>();
  object->setInstanceId(std::move(instanceId));
  object->setTechnology(technology ? technology->int64Value() : 0);
  return object;
}
