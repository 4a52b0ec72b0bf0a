// The one call the catalogue makes into the results layer above it: a bundle directory that cannot
// be listed is recorded as a "Failure" issue of the current results. The results layer installs
// the recorder when it is linked in; until then the call only logs.
#pragma once

#include <functional>
#include <string>

namespace vl::catalogue {

// Installs (or, with an empty function, removes) the function that records a "Failure" issue.
void setFailureIssueRecorder(std::function<void(const std::string& reason)> recorder);
// Calls the installed recorder, if any. Never throws.
void recordFailureIssue(const std::string& reason);

}  // namespace vl::catalogue
