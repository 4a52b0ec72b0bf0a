// VLTestCaseClass: the base of the classes that implement test cases (a bundle's principal class
// derives from it). It takes on the reply-owner role (catalogue/pending_reply_owner.h), so that
// every such class can send requests to the host and wait for their replies.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "vorlund/catalogue/condition.h"
#include "vorlund/catalogue/pending_reply_owner.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/foundation/value.h"

class VLTestCaseClass : public vl::CodableRecord, public VLPendingReplyOwner {
 public:
  // Creates a T and then calls its registerForNotifications(). This is the way to create a test
  // case class: a constructor cannot reach a subclass's override of a virtual function, so the
  // registration runs here, once the object is whole. An object constructed directly has not
  // registered for notifications.
  template <typename T = VLTestCaseClass, typename... Args>
  static std::shared_ptr<T> make(Args&&... args) {
    static_assert(std::is_base_of_v<VLTestCaseClass, T>, "T must derive from VLTestCaseClass");
    auto object = std::make_shared<T>(std::forward<Args>(args)...);
    object->registerForNotifications();
    return object;
  }

  // Runs initializeProtocolVariables(). Prefer make<T>().
  VLTestCaseClass();

  // The properties; every accessor is atomic (one mutex guards all of them). The arrays are
  // returned as copies.
  std::optional<std::string> instanceId() const;
  void setInstanceId(std::optional<std::string> instanceId);
  vl::Array responses() const override;
  void setResponses(vl::Array responses);
  vl::Date lastUsed() const;
  void setLastUsed(vl::Date lastUsed);
  vl::Array pendingMessageIDs() const override;
  void setPendingMessageIDs(vl::Array pendingMessageIDs);
  std::shared_ptr<vl::Condition> lock() const override;
  void setLock(std::shared_ptr<vl::Condition> lock);
  // Always set: 0 until a subclass sets its technologies.
  std::optional<int64_t> technology() const override;

  // Change the array in place under the accessors' mutex (append a reply, drop an identifier),
  // so that the thread that sends requests and the one that delivers replies do not lose updates.
  void updateResponses(const std::function<void(vl::Array&)>& change) override;
  void updatePendingMessageIDs(const std::function<void(vl::Array&)>& change) override;

  // The name of the object's class: className().
  std::string friendlyName() const;

  // Hooks for subclasses; the base does nothing and returns false.
  virtual bool registerForNotifications();
  virtual bool checkForMissedNotifications();

  // Default settings of the class for a stress type and subtype; none here. A bundle registers its
  // own default-settings function beside its classes.
  static std::optional<vl::Dictionary> getDefaultSettingsForType(std::string_view type,
                                                                 std::string_view subtype);

  // The registered name of the class when a bundle's registry created the object (its "Principal
  // Class", whatever C++ spelling or alias the class has), else the C++ name of the dynamic type
  // (so "VLTestCaseClass" for the base). A subclass that is to be archived registers its class
  // under this name with {"VLTestCaseClass", "NSObject"} as its superclasses, so that a process
  // that does not know it decodes it as a VLTestCaseClass.
  std::string className() const override;
  // "<ClassName: 0x...>", for records and reply owners alike.
  std::string description() const override;

  // The registered class an object was created as: its name and the shared object that registered
  // it ("" for classes compiled into the program). Two bundles may hold classes of the same C++
  // name, so this, not the C++ type, tells whose code the object runs.
  struct RegisteredClass {
    std::string name;
    std::string origin;
    bool operator==(const RegisteredClass&) const = default;
  };
  std::optional<RegisteredClass> registeredClass() const;
  // Set once by the registry that creates the object (bundle_registration.h).
  void setRegisteredClass(RegisteredClass registered);

  // Archives "instanceId" (string) and "technology" (number); the other properties describe the
  // waiting state of one process and are not archived.
  void encodeWithCoder(vl::KeyedArchiver& coder) const override;
  // Decodes what encodeWithCoder wrote into a new VLTestCaseClass made with make(). Returns nullptr
  // (the decode failed with an error) when a key holds a value of the wrong type.
  static std::shared_ptr<VLTestCaseClass> withCoder(vl::KeyedUnarchiver& coder);

 protected:
  // lastUsed = now, new empty responses and pendingMessageIDs, a new lock, technology = 0.
  void initializeProtocolVariables();
  void setTechnology(int64_t technology);

 private:
  mutable std::mutex mutex_;
  std::optional<std::string> instanceId_;
  vl::Array responses_;
  vl::Date lastUsed_;
  vl::Array pendingMessageIDs_;
  std::shared_ptr<vl::Condition> lock_;
  int64_t technology_ = 0;
  std::optional<RegisteredClass> registeredClass_;
};
