// Test cases run by the stress service for other processes: the "TestCaseRequest" message, the
// client call that sends it and waits for the archived result, and the service's handler that
// runs the test case and archives its result.
#pragma once

#include <functional>
#include <memory>

#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/foundation/error.h"
#include "vorlund/ipm/service.h"
#include "vorlund/results/execution.h"
#include "vorlund/results/test_case_result.h"

namespace vl::ipm {

// The request carries the archived VLTestCaseObject under kVLMessageKeyTestCase, the reply the
// archived VLTestCaseResult under kVLMessageKeyResult (results/execution.h names the message keys).

// Sends object, archived, to the stress service as a "TestCaseRequest" and returns the result the
// service ran. Waits as long as the test case runs (no time-out of its own); ends early when the
// service leaves the bus. Returns nullptr, logged at level 16 ("Framework") and with an error,
// when the object cannot be archived, the service is not running ("the stress service is not
// running", at once), the exchange fails, or the reply holds no archived VLTestCaseResult.
std::shared_ptr<VLTestCaseResult> executeTestCaseInService(
    const std::shared_ptr<VLTestCaseObject>& object, vl::Error* error);

// How the service runs one test case; returns the result, or nullptr for none.
using TestCaseExecutor =
    std::function<std::shared_ptr<VLTestCaseResult>(const std::shared_ptr<VLTestCaseObject>&)>;

// The service's handler of "TestCaseRequest": unarchives "TestCase" with the classes of
// VLValidExternalClassesForCoding(), runs it with execute and replies {"Result": archived result},
// plus the request's "UUID" when it has one (requests relayed from the manager are matched by it).
// A test case without a selector (a manager's request names only the test case and its options) is
// first completed from this device's catalogue, as VLGetObjectForDictionary does with its "Name"
// and "Options". Replies with an IPM error (so a D-Bus error) when "TestCase" is missing, not data
// or not an archived VLTestCaseObject, when a test case without a selector has no name or no bundle
// offers its name, when execute gives no result or throws, or when the result cannot be archived.
Service::Handler testCaseRequestHandler(TestCaseExecutor execute);

// The service's handler of every other message ("ManagerCommandResult", "TestCaseResult", a reply
// carrying the "UUID" an object waits for): converts it to a dictionary, hands it to
// VLFindObjectForMessage (which wakes the waiting object, posts the manager-result notification or
// adds the result to this process's run) and replies with an empty dictionary. A message that does
// not convert gets an IPM error.
Service::Handler messageRouterHandler();

}  // namespace vl::ipm
