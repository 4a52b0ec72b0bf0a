// The two calls the logging module makes into the layers above it: a failed log write asks for a
// diagnostic archive, and a malformed log-stream event is recorded as a statistic issue. Both are
// extension points: the results layer installs the real functions at start-up; until then each call
// does nothing.
#pragma once

#include <functional>
#include <string>

namespace vl::logging {

// Installs (or, with an empty function, removes) the diagnostic-archive request.
void setDiagnosticArchiveRequest(std::function<void()> request);
// Fire and forget: calls the installed request, if any. Never throws.
void requestDiagnosticArchive();

// Installs (or removes) the function that records a "Statistic" issue with a reason.
void setStatisticIssueRecorder(std::function<void(const std::string& reason)> recorder);
// Calls the installed recorder, if any. Never throws.
void recordStatisticIssue(const std::string& reason);

}  // namespace vl::logging
