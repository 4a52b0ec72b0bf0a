// VLTestEnvironment: the small context object handed to test code, with the test's identifier, the
// device's serial number and a log call that goes to the shared log.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "vorlund/foundation/format.h"
#include "vorlund/logging/log.h"

class VLTestEnvironment {
 public:
  static std::shared_ptr<VLTestEnvironment> make() { return std::make_shared<VLTestEnvironment>(); }

  const std::optional<std::string>& testId() const { return testId_; }
  void setTestId(std::optional<std::string> testId) { testId_ = std::move(testId); }
  const std::optional<std::string>& serialNumber() const { return serialNumber_; }
  void setSerialNumber(std::optional<std::string> serialNumber) {
    serialNumber_ = std::move(serialNumber);
  }

  // Formats the message and logs it at level 1 with no category.
  template <typename... Args>
  void log(std::string_view fmt, const Args&... args) const {
    std::string message = vl::format(fmt, args...);
    // The formatted text is passed as the format, so a "%" that survives the first formatting is
    // interpreted a second time. Test code relies on this behaviour; it is kept on purpose.
    VLLog(VLLogLevelNotice, nullptr, message);
  }

 private:
  std::optional<std::string> testId_;
  std::optional<std::string> serialNumber_;
};
