// Vorlund, the stress service: owns "com.brindle.Vorlund" on the bus and runs the test cases that
// other processes send it, adding each result to the run this process keeps (its currentResults,
// carried on from the resume data when the last instance was suspended). While it serves, it is the
// one writer of its user's run: it holds the run lock, and front ends add their results and issues
// through its "ResultsRequest" messages; every other message goes to the message router
// (VLFindObjectForMessage). SIGTERM and SIGINT suspend the run and end the process (status 0); so
// does the loss of the bus connection (status 1), so that a service whose bus went away does not
// hold the run. While it serves, the run is saved every "ResultsSaveInterval" seconds (default 60).
// On a stop signal the run is suspended first, then running test cases get a bounded time to finish
// (their results are then written too), so the service ends well inside systemd's stop time-out.
//
// The journal's crashes are collected into the Faultbin folders and the folders scanned at start,
// after every test case the service runs, and every "CrashScanInterval" seconds (default 300),
// each request resting 60 seconds after the last one for the same user. The folders scanned are
// those of the service's own user and of "root": the daemons whose crashes matter run as root, the
// test code as the service's user.
//
// Requests run on a bounded pool of workers. On the system bus only root and the members of the
// group named by the preference "ServiceGroup" (default "vorlund") are served.
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "vorlund/catalogue/preferences.h"
#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/conversion/file_handle.h"
#include "vorlund/devicetools/crash_collector.h"
#include "vorlund/devicetools/crash_scanner.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/results_service.h"
#include "vorlund/ipm/service.h"
#include "vorlund/ipm/service_client.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/execution.h"
#include "vorlund/results/periodic_save.h"
#include "vorlund/results/results.h"
#include "vorlund/results/run_lock.h"

namespace {

constexpr const char* kCategory = "Vorlund";
// How long running test cases may go on after a stop signal, once the run is suspended; systemd's
// TimeoutStopSec in the unit leaves room beyond it.
constexpr double kStopWaitSeconds = 20.0;
constexpr const char* kServiceGroupPreference = "ServiceGroup";
constexpr const char* kDefaultServiceGroup = "vorlund";

// The users whose Faultbin folders the service scans.
std::vector<std::string> faultbinUsers() {
  std::string user = vl::process::userName();
  if (user == "root") return {user};
  return {user, "root"};
}

// Runs one requested test case here and records its result in this process's run. The service
// runs test code itself whatever its process is called: sending the request on to the stress
// service would be sending it to itself.
std::shared_ptr<VLTestCaseResult> executeAndRecord(
    const std::shared_ptr<VLTestCaseObject>& object) {
  std::shared_ptr<VLTestCaseResult> result = vl::executeTestCaseInProcess(object);
  if (!result) return nullptr;
  try {
    VLResults::currentResults()->addTestCaseResult(result, VLGetClassForTestCase(object), true);
  } catch (const std::exception& e) {
    // The caller still gets its result; the run's own record of it failed.
    VLLog(VLLogLevelError, kCategory, "Unable to add the result of %@ to the run: %s",
          object->name().value_or(""), e.what());
  }
  for (const std::string& user : faultbinUsers()) VLProcessCrashesInFaultbinFolder(user);
  return result;
}

// A descriptor that reads SIGTERM and SIGINT, which are blocked for every thread from here on.
int blockTerminationSignals(sigset_t* signals) {
  sigemptyset(signals);
  sigaddset(signals, SIGTERM);
  sigaddset(signals, SIGINT);
  if (pthread_sigmask(SIG_BLOCK, signals, nullptr) != 0) return -1;
  return signalfd(-1, signals, SFD_CLOEXEC);
}

// Blocks until SIGTERM or SIGINT arrives (false) or the service reports that it lost the bus
// (true), and logs which.
bool waitForSignalOrLostBus(int signalFd, int lostBus) {
  pollfd fds[2] = {{signalFd, POLLIN, 0}, {lostBus, POLLIN, 0}};
  while (poll(fds, 2, -1) < 0 && errno == EINTR) {
  }
  if (fds[1].revents & POLLIN) {
    VLLog(VLLogLevelError, kCategory, "Lost the connection to the bus, suspending the run");
    return true;
  }
  signalfd_siginfo info{};
  ssize_t n;
  do {
    n = read(signalFd, &info, sizeof info);
  } while (n < 0 && errno == EINTR);
  VLLog(VLLogLevelInfo, kCategory, "Received %s, suspending the run",
        n == static_cast<ssize_t>(sizeof info) ? strsignal(static_cast<int>(info.ssi_signo))
                                               : "an unreadable signal");
  return false;
}

// The group whose members may call the service on the system bus: "ServiceGroup" as a group name
// or number. None on the session bus, which is the user's own. A group that does not exist leaves
// only root (and the root group) able to call.
std::optional<gid_t> allowedGroup() {
  if (vl::ipm::selectedBus() != vl::ipm::BusKind::kSystem) return std::nullopt;
  const vl::Value preference = VLGetPreferences().get(kServiceGroupPreference);
  if (const vl::Number* number = preference.asNumber())
    return static_cast<gid_t>(number->int64Value());
  std::string name = preference.stringOr(kDefaultServiceGroup);
  if (const group* found = getgrnam(name.c_str())) return found->gr_gid;
  VLLog(VLLogLevelError, kCategory, "The group %@ does not exist; only root may call the service",
        name);
  return static_cast<gid_t>(0);
}

bool suspendRun() {
  bool suspended = VLResults::currentResults()->suspend();
  VLLog(suspended ? VLLogLevelInfo : VLLogLevelError, kCategory,
        suspended ? "Vorlund stopped; the run is suspended"
                  : "Vorlund stopped; the run could not be suspended");
  return suspended;
}

}  // namespace

int main() {
  // Before any thread starts, so that every thread inherits the mask.
  sigset_t signals;
  auto signalFd = vl::FileHandle::adopt(blockTerminationSignals(&signals));
  if (!signalFd) {
    VLLog(VLLogLevelFatal, kCategory, "Unable to watch for termination signals: %s",
          std::strerror(errno));
    return 1;
  }
  // The service's thread reports a lost bus connection here, so that the main thread wakes up as
  // it does for a signal.
  auto lostBus = vl::FileHandle::adopt(eventfd(0, EFD_CLOEXEC));
  if (!lostBus) {
    VLLog(VLLogLevelFatal, kCategory, "Unable to create an event descriptor: %s",
          std::strerror(errno));
    return 1;
  }

  // Taken before the run is resumed and the name is owned: a front end that is writing the run in
  // its files finishes first, and none starts writing once this process serves the run.
  vl::Error error;
  std::unique_ptr<vl::RunLock> runLock = vl::RunLock::take(true, &error);
  if (!runLock) {
    VLLog(VLLogLevelFatal, kCategory, "%@", error.localizedDescription());
    return 1;
  }

  // Created now, so that a suspended run is resumed before the first request arrives.
  std::shared_ptr<VLResults> results = VLResults::currentResults();
  VLLog(VLLogLevelInfo, kCategory, "Vorlund started (%s run)",
        results->resumed() ? "resumed" : "new");

  if (!vl::isTestHostProcess()) {
    VLLog(VLLogLevelError, kCategory,
          "Vorlund runs as %@, which is not a host process; it runs test cases itself all the same",
          vl::process::name());
  }
  vl::ipm::ServiceOptions options;
  options.allowedGroup = allowedGroup();
  options.onDisconnect = [fd = lostBus->fileDescriptor()] {
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(fd, &one, sizeof one);
  };
  auto service = vl::ipm::Service::start(
      {{kVLMessageTypeTestCaseRequest, vl::ipm::testCaseRequestHandler(executeAndRecord)},
       {vl::ipm::kResultsRequestMessageType, vl::ipm::resultsRequestHandler()},
       {vl::ipm::kOtherMessages, vl::ipm::messageRouterHandler()}},
      std::move(options), &error);
  if (!service) {
    VLLog(VLLogLevelFatal, kCategory, "Unable to serve %s: %@", vl::ipm::kServiceName,
          error.localizedDescription());
    // The run was resumed (its resume data consumed): write it back for the next start.
    suspendRun();
    return 1;
  }

  // The resumed run is written back at once and then every "ResultsSaveInterval" seconds, so that
  // a service killed without warning loses at most the last interval.
  std::unique_ptr<vl::PeriodicSave> saving = vl::startPeriodicSave(nullptr);
  // Each queued scan first turns the journal's new crashes and kills into reports.
  auto collector = std::make_shared<vl::CrashCollector>(vl::makeSystemJournalSource());
  vl::setFaultbinCollection([collector] {
    vl::Error collectError;
    if (!collector->collect(&collectError)) {
      VLLog(VLLogLevelError, kCategory, "The journal's crashes were not collected: %@",
            collectError.localizedDescription());
    }
  });
  std::unique_ptr<vl::Timer> scanning = vl::startPeriodicFaultbinScans(faultbinUsers());

  bool busLost = waitForSignalOrLostBus(signalFd->fileDescriptor(), lostBus->fileDescriptor());
  scanning->cancel();
  // A scan still running would add to the run while it is suspended, or outlive the process.
  vl::waitForFaultbinScans();
  vl::setFaultbinCollection({});
  saving->stop();
  // The run is on disk before anything can hold the stop up; test cases that finish within the
  // bound add their results, and the run is written again.
  bool suspended = suspendRun();
  auto bound =
      std::chrono::duration_cast<std::chrono::milliseconds>(vl::time::scaled(kStopWaitSeconds));
  if (!service->stop(bound)) {
    VLLog(VLLogLevelError, kCategory,
          "Test cases still running after %.1f seconds; leaving them with the run suspended",
          static_cast<double>(bound.count()) / 1000.0);
    // Running handlers still use the process's objects: end without running static destructors.
    std::_Exit(suspended && !busLost ? 0 : 1);
  }
  suspended = suspendRun();
  return suspended && !busLost ? 0 : 1;
}
