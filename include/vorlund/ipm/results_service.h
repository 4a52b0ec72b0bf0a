// The stress service's run, read and changed from other processes: the "ResultsRequest" message,
// the client calls that send it, and the service's handler. While the service runs it is the one
// writer of its user's run (results/run_lock.h), so front ends record their results through it.
//
// A request names its "Action":
//   "AddResult"  with "Result", an archived VLTestCaseResult  -> {}
//   "AddIssue"   with "Issue", an archived VLIssue            -> {}
//   "Show"                                                    -> {"Summary": archived dictionary}
//   "Reset"                                                   -> {"ResultsFile": path}
// The summary is vl::runSummary of the run (results/run_summary.h), its run time brought up to
// date.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"
#include "vorlund/ipm/service.h"
#include "vorlund/results/issue.h"
#include "vorlund/results/test_case_result.h"

namespace vl::ipm {

inline constexpr const char* kResultsRequestMessageType = "ResultsRequest";
inline constexpr const char* kResultsKeyAction = "Action";
inline constexpr const char* kResultsKeyIssue = "Issue";
inline constexpr const char* kResultsKeySummary = "Summary";
inline constexpr const char* kResultsKeyResultsFile = "ResultsFile";
inline constexpr const char* kResultsActionAddResult = "AddResult";
inline constexpr const char* kResultsActionAddIssue = "AddIssue";
inline constexpr const char* kResultsActionShow = "Show";
inline constexpr const char* kResultsActionReset = "Reset";
inline constexpr const char* kResultsActionSave = "Save";
inline constexpr const char* kResultsKeyTimeline = "Timeline";

// How long a client waits for the service to answer a results request: adding a result commits
// it to the timeline first, which a busy disk can hold up for a while.
inline constexpr std::chrono::seconds kResultsRequestTimeout{120};

// Each call fails, with an error of kIpmErrorDomain, as sendMessage (ipm/client.h) does: at once
// with kNotRunning when the service is not on the bus, kTransport when there is no bus. A result or
// issue the service refuses gives kRemote with the service's reason; a reply without the expected
// entry gives kInvalidMessage.
bool addResultToServiceRun(const std::shared_ptr<VLTestCaseResult>& result, Error* error = nullptr);
bool addIssueToServiceRun(const std::shared_ptr<VLIssue>& issue, Error* error = nullptr);
std::optional<Dictionary> serviceRunSummary(Error* error = nullptr);
// Saves the service's run to its results file and starts a new run there; returns the file's path.
std::optional<std::string> resetServiceRun(Error* error = nullptr);

// Where a run is written: its results file and its timeline database.
struct RunFiles {
  std::string resultsFile;
  std::string timeline;
};
// Writes the service's run to its results file (the timeline is written as results arrive) and
// returns both paths; the run goes on. kRemote when the file cannot be written.
std::optional<RunFiles> saveServiceRun(Error* error = nullptr);

// The service's handler of "ResultsRequest", acting on VLResults::currentResults(). Replies with
// an IPM error (so a D-Bus error) for an unknown or missing "Action", a missing or undecodable
// "Result" or "Issue", and a result or issue that fails validation (with the validation's reason);
// the run is then left as it was.
Service::Handler resultsRequestHandler();

}  // namespace vl::ipm
