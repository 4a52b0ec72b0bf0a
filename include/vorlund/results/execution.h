// Running a test case and routing the messages that come back. In a host process (one that runs
// test code itself) VLExecuteTestCase calls the implementing test method on the calling thread;
// in every other process it asks the stress service to run it. VLFindObjectForMessage hands an
// incoming message to the object waiting for it, or to the notification or results it belongs to.
//
// This lives in the results module, not the catalogue, because it makes and records results
// (VLTestCaseResult, VLResults). The call to the stress service goes up to the IPM transport
// through one installed function (setServiceExecutor below), which the transport installs when it
// is linked in; without it, remote calls fail with an error.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"
#include "vorlund/results/test_case_result.h"

// The processes that run test code themselves, by process name.
inline constexpr const char* kVLHostProcessNames[] = {"forgetest", "Vorlund", "Procedor_Vorlund",
                                                      "vorlund_jeeves"};

// The message keys and types of the stress service and the message router.
inline constexpr const char* kVLMessageKeyType = "MessageType";
inline constexpr const char* kVLMessageKeyTestCase = "TestCase";
inline constexpr const char* kVLMessageKeyResult = "Result";
inline constexpr const char* kVLMessageKeyUUID = "UUID";
inline constexpr const char* kVLMessageTypeTestCaseRequest = "TestCaseRequest";
inline constexpr const char* kVLMessageTypeManagerCommandResult = "ManagerCommandResult";
inline constexpr const char* kVLMessageTypeTestCaseResult = "TestCaseResult";
// The notification of a manager command result is this name, ".", and the message's UUID.
inline constexpr const char* kVLManagerCommandResultNotificationPrefix =
    "com.brindle.vorlund.ManagerCommandResult";

namespace vl {
// True when the current process (vl::process::name()) is one of kVLHostProcessNames.
bool isTestHostProcess();

// Runs a test case in the stress service: returns its result, or nullptr with *error set (never
// null) when the exchange fails. The client logs its own failures.
using ServiceExecutor = std::function<std::shared_ptr<VLTestCaseResult>(
    const std::shared_ptr<VLTestCaseObject>& testCase, Error* error)>;
// Installs (or, with an empty function, removes) the executor VLExecuteTestCase uses outside host
// processes. The IPM transport installs its client when it is linked in.
void setServiceExecutor(ServiceExecutor executor);
}  // namespace vl

// Runs the test case and returns its result.
// In a host process: a fresh UUID becomes the test case's instanceId and the test method named by
// its selector (":" appended unless present) is called with the test case, synchronously, and its
// result returned. Returns a no-op result (and logs at level 16) for a nil test case, for a test
// case that no loaded class implements (also recorded as the statistic issue "%@ requested but not
// implemented in any bundles") and for a class that declares the selector but has no method for it
// (the statistic issue "Action Required - %@ declared but didnt implement %@"). A test method that
// throws gives a failed result whose reason names the method and the exception; one that returns
// no result gives a failed result too. Never throws.
// In any other process: sends a "TestCaseRequest" to the stress service and waits for its reply
// without a time-out of its own. Returns nullptr, logged at level 16 and with *error set when
// given, when the exchange fails (no service, a broken reply).
std::shared_ptr<VLTestCaseResult> VLExecuteTestCase(
    const std::shared_ptr<VLTestCaseObject>& testCase, vl::Error* error = nullptr);
// Runs the test case in this process, as a host process does, whatever this process is called: for
// front ends that run test code themselves (vorlundctl run --local). Same results and issues as the
// host path of VLExecuteTestCase; never throws.
namespace vl {
std::shared_ptr<VLTestCaseResult> executeTestCaseInProcess(
    const std::shared_ptr<VLTestCaseObject>& testCase);
}  // namespace vl

// The same for a test case that arrives as a value (an unarchived request). A value that is not a
// VLTestCaseObject is logged at level 16 "Recevied a test case object that was of the wrong type
// (%@)...%@" with its class and the call stack, and gives a no-op result in a host process.
std::shared_ptr<VLTestCaseResult> VLExecuteTestCase(const vl::Value& testCase,
                                                    vl::Error* error = nullptr);

// Routes one incoming message: to the first loaded remote-execution object (a reply owner, see
// catalogue/pending_reply_owner.h) whose pendingMessageIDs hold the message's "UUID" (appended to
// its responses, then its lock broadcast); else by "MessageType": a
// "ManagerCommandResult" is posted on the default notification center as
// "com.brindle.vorlund.ManagerCommandResult.<UUID>" with the message as user info, a
// "TestCaseResult" has its archived "Result" added to the current results; any other message is
// logged at level 16 and dropped. Never throws.
void VLFindObjectForMessage(const vl::Dictionary& message);
