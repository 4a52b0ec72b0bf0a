// Remote execution: a device hands a whole test case, or a numbered host ("king") command, to
// another party through the gateway on this machine and blocks until the answer comes back to its
// reply owner (catalogue/pending_reply_owner.h) through the message router.
//
// Both calls take one deadline, from the moment the request was sent: the time-out in seconds
// (through the time scale), -1 for ever. The owner's condition is held from before the request goes
// out until the wait ends, so one owner runs one remote call at a time. A reply that lands as the
// deadline passes is still taken (statistic "Found response in timeout check").
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "vorlund/catalogue/pending_reply_owner.h"
#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/foundation/value.h"
#include "vorlund/results/test_case_result.h"

namespace vl {

// The gateway's service for host commands.
inline constexpr const char* kKingRequestDestination = "service";
inline constexpr const char* kKingRequestIdentifier = "com.brindle.Vorlund.king";
// The outcomes of a host command besides the remote side's error text and the time-out text.
inline constexpr const char* kKingCommandSucceeded = "Success!";
inline constexpr const char* kNoHostConnection = "No Host Connection";

}  // namespace vl

// Sends testCase as {"MessageType": "TestCaseRequest", "UUID", "TestCase": the archived test case,
// "RequestingDevice": the serial number, "destination": its destinationClass, "identifier": its
// destinationIdentifier} and waits testCase->timeout() seconds for {"UUID", "Result": an archived
// VLTestCaseResult}. Before sending, the test case's options gain "RequestingDevice" (this change
// stays on the caller's object).
//
// Returns the remote result as it came. Otherwise a local result (name and type of the test case,
// technologies of holder, started when the call began, ended when it gave up) failed with the
// reason "No Host Connection" when the gateway cannot be reached, or "<timeout> second timer
// expired"
// ("%f") when no reply came in time ("Timed out waiting for <name> to finish.  Waited %f seconds",
// level 16). A reply whose "Result" does not unarchive counts as none.
//
// A time-out of 0 is a programming error: the process is aborted, before anything is sent, with a
// message saying so. Nothing is sent for a nullptr test case (a no-op result) or holder (a
// local result failed with "No reply holder").
std::shared_ptr<VLTestCaseResult> VLExecuteRemoteTestCase(
    const std::shared_ptr<VLPendingReplyOwner>& holder,
    const std::shared_ptr<VLTestCaseObject>& testCase);

// Sends {"UUID", "request": request, "command": command, "RequestingDevice": the serial number,
// "destination": "service", "identifier": "com.brindle.Vorlund.king"} and waits timeout seconds for
// {"UUID", "succeeded": bool, "error": text}.
//
// Returns "Success!" when the reply succeeded (whatever its "error"), else the reply's "error"
// text; "No Host Connection" when the gateway cannot be reached; "<timeout> second timer expired"
// ("%f") when no reply came in time (logged at level 16). A reply that did not succeed and has no
// "error" counts as no reply. A time-out of 0 sends the request and returns none without waiting.
// A nullptr holder sends nothing and returns none. The lines logged carry no category.
std::optional<std::string> VLExecuteKingCommandOnHost(
    const std::shared_ptr<VLPendingReplyOwner>& holder, int request, const vl::Value& command,
    double timeout);
