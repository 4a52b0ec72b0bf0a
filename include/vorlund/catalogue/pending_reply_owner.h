// VLPendingReplyOwner: the role of an object that sends requests to the host and waits for their
// replies (the test case class base takes it on; so may reporters and other senders). A sender
// holds the owner's `lock` condition from before its request goes out until its wait ends, lists
// the request's UUID in pendingMessageIDs, and waits; the message router (VLFindObjectForMessage)
// appends a reply whose UUID is pending to responses and broadcasts the condition.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "vorlund/catalogue/condition.h"
#include "vorlund/foundation/value.h"

class VLPendingReplyOwner {
 public:
  virtual ~VLPendingReplyOwner() = default;

  // The condition a sender holds while it sends and waits, and on which the router broadcasts.
  virtual std::shared_ptr<vl::Condition> lock() const = 0;
  // Copies of the UUID strings still awaiting a reply and of the replies delivered but not yet
  // taken, in order of arrival.
  virtual vl::Array pendingMessageIDs() const = 0;
  virtual vl::Array responses() const = 0;
  // Change an array in place under the owner's own guard, so that the sending thread and the
  // delivering thread do not lose each other's updates. The change must not call back into the
  // owner.
  virtual void updatePendingMessageIDs(const std::function<void(vl::Array&)>& change) = 0;
  virtual void updateResponses(const std::function<void(vl::Array&)>& change) = 0;

  // The technologies the owner works with (a technology bit mask), or none when it has none; a
  // remote test case's local result records it.
  virtual std::optional<int64_t> technology() const { return std::nullopt; }

  // The text a log line's "%@" prints for the owner.
  virtual std::string description() const;
};
