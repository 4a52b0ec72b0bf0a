// The two calls the catalogue makes into the layers above it: a bundle directory that cannot be
// listed is recorded as a "Failure" issue of the current results (the results layer installs the
// recorder when it is linked in; until then the call only logs), and the primary-process table
// asks deviceinfo whether the device has a modem (installed by deviceinfo; until then: no modem).
#pragma once

#include <functional>
#include <string>

namespace vl::catalogue {

// Installs (or, with an empty function, removes) the function that records a "Failure" issue.
void setFailureIssueRecorder(std::function<void(const std::string& reason)> recorder);
// Calls the installed recorder, if any. Never throws.
void recordFailureIssue(const std::string& reason);

// Installs (or, with an empty function, removes) the function that tells whether the device has a
// cellular modem.
void setBasebandProbe(std::function<bool()> probe);
// The installed probe's answer; false when none is installed or it throws.
bool deviceHasBaseband();

}  // namespace vl::catalogue
