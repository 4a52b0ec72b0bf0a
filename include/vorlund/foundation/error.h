// Errors as the system reports them: an error value with a domain, a code and user information for
// "error out" parameters, and the one exception type for broken invariants.
#pragma once

#include <stdexcept>
#include <string>

#include "vorlund/foundation/value.h"

namespace vl {

// The user-information key of an error's description.
inline constexpr const char* kErrorDescriptionKey = "NSLocalizedDescription";

struct Error {
  std::string domain;
  int64_t code = 0;
  Dictionary userInfo;

  static Error withDescription(std::string domain, int64_t code, std::string description);
  // The device tools' errors: domain "com.brindle.Vorlund", code 1, and the reason both as the
  // description and under the user-information key "Reason".
  static Error withReason(std::string reason);
  // The description of user information, or "The operation couldn't be completed. (domain error
  // code.)" when there is none.
  std::string localizedDescription() const;
  // "Error Domain=D Code=C \"description\" UserInfo={...}"
  std::string description() const;
};

// Stores e into *out when out is given; the way every function fills its error out parameter.
inline void setError(Error* out, Error e) {
  if (out) *out = std::move(e);
}

}  // namespace vl

// A named exception raised for a broken invariant ("VLIssueInvalid",
// "VLTestCaseStatisticMergeException", "File System free space too small", ...).
class VLException : public std::runtime_error {
 public:
  VLException(std::string name, std::string reason)
      : std::runtime_error(name + ": " + reason),
        name_(std::move(name)),
        reason_(std::move(reason)) {}
  const std::string& name() const { return name_; }
  const std::string& reason() const { return reason_; }

 private:
  std::string name_;
  std::string reason_;
};
