#include "user_run.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>

#include "commands.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/results_service.h"
#include "vorlund/results/issue_reporting.h"
#include "vorlund/results/results.h"
#include "vorlund/results/run_lock.h"
#include "vorlund/results/run_summary.h"

namespace vorlundctl {
namespace {

// True for the errors that say the service is not there to ask: nobody owns its name, or there is
// no bus at all. Any other failure came from a service that is there.
bool serviceAbsent(const vl::Error& error) {
  using vl::ipm::IpmErrorCode;
  return error.domain == vl::ipm::kIpmErrorDomain &&
         (error.code == static_cast<int64_t>(IpmErrorCode::kNotRunning) ||
          error.code == static_cast<int64_t>(IpmErrorCode::kTransport));
}

// Asks the service with inService; when it is not there, takes the run lock and runs inFiles on the
// run resumed from its files. A lock held elsewhere is either another command (done in a moment)
// or a service that is starting (on the bus in a moment), so both are asked again until one
// answers.
// Set while this process holds the run resumed from its files (under the run lock).
std::atomic<bool> holdingRunFiles{false};

template <typename T>
T withUserRun(const std::function<std::optional<T>(vl::Error*)>& inService,
              const std::function<T(VLResults&)>& inFiles) {
  const auto began = std::chrono::steady_clock::now();
  bool toldWaiting = false;
  for (;;) {
    vl::Error error;
    if (std::optional<T> answer = inService(&error)) return std::move(*answer);
    if (!serviceAbsent(error)) throw UsageFailure(error.localizedDescription());

    vl::Error lockError;
    if (std::unique_ptr<vl::RunLock> lock = vl::RunLock::take(false, &lockError)) {
      holdingRunFiles = true;
      struct Release {
        ~Release() { holdingRunFiles = false; }
      } release;
      T answer = inFiles(*VLResults::currentResults());
      // The run is in its files again; the next change resumes it from there, with whatever other
      // commands added in between.
      VLResults::setCurrentResults(nullptr);
      return answer;
    }
    if (!lockError.domain.empty()) throw UsageFailure(lockError.localizedDescription());
    if (!toldWaiting && std::chrono::steady_clock::now() - began > std::chrono::seconds(2)) {
      std::fprintf(stderr, "waiting for the run, which another process is writing...\n");
      toldWaiting = true;
    }
    vl::time::sleepFor(0.05);
  }
}

bool suspendOrFail(VLResults& run) {
  if (!run.suspend()) {
    throw UsageFailure("cannot save the run's resume data to " + VLResults::resumeDataPath());
  }
  return true;
}

}  // namespace

void addResultToUserRun(const std::shared_ptr<VLTestCaseResult>& result) {
  withUserRun<bool>(
      [&](vl::Error* error) -> std::optional<bool> {
        if (!vl::ipm::addResultToServiceRun(result, error)) return std::nullopt;
        return true;
      },
      [&](VLResults& run) {
        run.addTestCaseResult(result, true);
        return suspendOrFail(run);
      });
}

void addIssueToUserRun(const std::shared_ptr<VLIssue>& issue) {
  withUserRun<bool>(
      [&](vl::Error* error) -> std::optional<bool> {
        if (!vl::ipm::addIssueToServiceRun(issue, error)) return std::nullopt;
        return true;
      },
      [&](VLResults& run) {
        run.addIssue(issue);
        return suspendOrFail(run);
      });
}

vl::Dictionary userRunSummary() {
  return withUserRun<vl::Dictionary>(vl::ipm::serviceRunSummary, [](VLResults& run) {
    run.updateRuntime();
    vl::Dictionary summary = vl::runSummary(run);
    suspendOrFail(run);
    return summary;
  });
}

std::string resetUserRun() {
  return withUserRun<std::string>(vl::ipm::resetServiceRun, [](VLResults& run) {
    // Resuming consumed the resume data: without a suspend the next command starts a new run.
    run.finish();
    return run.getResultsFilePath();
  });
}

vl::ipm::RunFiles saveUserRun() {
  return withUserRun<vl::ipm::RunFiles>(vl::ipm::saveServiceRun, [](VLResults& run) {
    run.updateRuntime();
    if (!run.saveToDisk()) throw UsageFailure("cannot save the run to " + run.getResultsFilePath());
    suspendOrFail(run);
    return vl::ipm::RunFiles{run.plistPath(), run.timelinePath()};
  });
}

void recordLibraryIssuesInUserRun() {
  vl::setIssueRecorder([](const std::shared_ptr<VLIssue>& issue) {
    if (holdingRunFiles) {
      VLResults::currentResults()->addIssue(issue);
      return;
    }
    try {
      addIssueToUserRun(issue);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "vorlundctl: could not record the issue \"%s\": %s\n",
                   issue->reason().value_or("").c_str(), e.what());
    }
  });
}

}  // namespace vorlundctl
