// The one way the library records its own failures and the crashes it finds: each function makes
// a new VLIssue with the time now and adds it to the current results (VLResults::currentResults()),
// or hands it to the installed recorder.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "vorlund/results/issue.h"

namespace vl {
// Where the functions below send their issues instead of this process's current results: for a
// program that does not hold the user's run itself (a front end while the stress service or a run
// file holds it), so that the issue joins that run and no second run is started here. An empty
// function restores the default.
using IssueRecorder = std::function<void(const std::shared_ptr<VLIssue>& issue)>;
void setIssueRecorder(IssueRecorder record);
}  // namespace vl

// Process `process`, type "Crash", primaryProcess true.
void VLAddCrashToResults(const std::string& process, const std::string& reason);
// Process "Vorlund", type "Failure", primaryProcess false.
void VLAddFailureToResults(const std::string& reason);
// Process "Vorlund", type "Statistic", primaryProcess false.
void VLAddStatisticToResults(const std::string& reason);
