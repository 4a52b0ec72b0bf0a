// This user's run, wherever it is kept. While the stress service runs it holds the run, and every
// read and change goes to it; otherwise the run lives in its files and each command makes its
// change under the run lock (results/run_lock.h): resume, change, suspend. Consecutive commands
// build one run, concurrent ones serialise, and there is never a second writer beside the service.
#pragma once

#include <memory>
#include <string>

#include "vorlund/foundation/value.h"
#include "vorlund/ipm/results_service.h"
#include "vorlund/results/issue.h"
#include "vorlund/results/test_case_result.h"

namespace vorlundctl {

// Each call throws UsageFailure with the reason when the run cannot be reached or refuses the
// change (the service's validation reason, an unusable lock file).
void addResultToUserRun(const std::shared_ptr<VLTestCaseResult>& result);
void addIssueToUserRun(const std::shared_ptr<VLIssue>& issue);
// The run's summary (vl::runSummary), its run time brought up to date.
vl::Dictionary userRunSummary();
// Saves the run to its results file and lets the next change start a new run; returns the file.
std::string resetUserRun();
// Saves the run to its results file; the run goes on. Returns its results file and timeline.
vl::ipm::RunFiles saveUserRun();

// Sends the issues the library records about itself (an unlistable bundle folder, a test case no
// bundle implements) to the user's run, instead of starting a run in this process. While this
// process holds the run in its files they go to that run directly. A failure to record one is
// printed on standard error and is not fatal.
void recordLibraryIssuesInUserRun();

}  // namespace vorlundctl
