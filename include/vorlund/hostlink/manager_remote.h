// Manager commands with callbacks: sends a command without a reply holder and calls a handler with
// the manager's answer once the router delivers it, or with an error once the wait is over.
//
// Every method blocks its caller until the handler has been called: with the answer (the whole
// "ManagerCommandResult" message the manager sent, no error), on the delivering thread; or with no
// dictionary and an error of the domain "ManagerRemote", code -1, on the calling thread. The
// handler is called exactly once.
#pragma once

#include <optional>
#include <string>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"
#include "vorlund/hostlink/async_events.h"

namespace vl {

inline constexpr const char* kManagerRemoteErrorDomain = "ManagerRemote";
// How long the convenience methods wait for the manager (nominal seconds, scaled).
inline constexpr double kManagerRemoteTimeoutSeconds = 30;
// What the caller waits beyond the listener's time-out before it gives up on the event.
inline constexpr double kManagerRemoteGraceSeconds = 5;

}  // namespace vl

class ManagerRemote {
 public:
  // The test case run() runs: its name, options and the characteristics of the devices to run on.
  const std::string& testCase() const { return testCase_; }
  void setTestCase(std::string testCase) { testCase_ = std::move(testCase); }
  const vl::Dictionary& options() const { return options_; }
  void setOptions(vl::Dictionary options) { options_ = std::move(options); }
  const vl::Value& characteristics() const { return characteristics_; }
  void setCharacteristics(vl::Value characteristics) {
    characteristics_ = std::move(characteristics);
  }

  // Waits for the answer to request, the envelope a manager command sent without a reply holder
  // returned, for timeout seconds (scaled) plus kManagerRemoteGraceSeconds. Errors: "Unable to
  // parse manager result: Missing UUID?" (the handler then gets the request itself as its
  // dictionary), "Could not register for event listener", "Peding event never fired!" (no answer
  // in time). An answer arriving after the wait is dropped. Leaves no event or source behind in
  // the shared registry, and cleans its expired events.
  void processAsyncRequest(const vl::Dictionary& request, double timeout,
                           const AsyncHandler& handler);
  // Sends command to the manager and waits for its answer as above; "Did not get result for
  // runTest" when the gateway cannot be reached.
  void runCommand(const vl::Dictionary& command, double timeout, const AsyncHandler& handler);
  // Asks the manager to run the test case name with options on a device matching characteristics,
  // and waits for its answer as above ("Did not get result for runTest" when the gateway cannot be
  // reached).
  void runTest(const std::string& name, const vl::Dictionary& options,
               const vl::Value& characteristics, double timeout, const AsyncHandler& handler);
  // runTest with testCase(), options() and characteristics(), waiting kManagerRemoteTimeoutSeconds.
  void run(const AsyncHandler& handler);
  // The serial numbers of the devices with, without, or with the attributes, as the manager's
  // answer; each waits kManagerRemoteTimeoutSeconds.
  void findDevicesWith(const vl::Value& characteristics, const AsyncHandler& handler);
  void findDevicesWithout(const vl::Value& characteristics, const AsyncHandler& handler);
  void findDevicesWithAttributes(const vl::Value& attributes, const AsyncHandler& handler);

  // Logs message (level 16, "ManagerRemote") and returns it as an error of
  // kManagerRemoteErrorDomain, code -1.
  static vl::Error errorWithMessage(const std::string& message);

 private:
  // Waits for the answer to envelope, or fails at once when the command was never sent.
  void processEnvelope(const std::optional<vl::Dictionary>& envelope, double timeout,
                       const AsyncHandler& handler);

  std::string testCase_;
  vl::Dictionary options_;
  vl::Value characteristics_;
};
