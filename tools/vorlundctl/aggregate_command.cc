// vorlundctl aggregate: one view of a fleet folder. Sorts the dropped files of DIR into its layout,
// merges every device's results file and prints the fleet summary; with --watch it prints a new
// one after every refresh until SIGINT or SIGTERM.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>

#include "commands.h"
#include "vorlund/foundation/notification_center.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/reports/fleet.h"
#include "vorlund/reports/fleet_summary.h"
#include "vorlund/results/config_result.h"

namespace vorlundctl {

namespace {

namespace fs = std::filesystem;

// How often a watch with no results file yet looks again (time-scaled, as the folder's own wait).
constexpr double kWaitSeconds = 1.0;

// Whether the folder holds a results file where the aggregate finds one: dropped into DIR (to be
// sorted) or in DIR/Plists. Without one the aggregate would wait for the first.
bool holdsResultsFile(const fs::path& dir) {
  for (const fs::path& folder : {dir, dir / kVLConfigResultPlistsFolder}) {
    std::error_code failure;
    for (fs::directory_iterator it(folder, failure), end; !failure && it != end;
         it.increment(failure)) {
      const fs::path& file = it->path();
      if (file.extension() == ".plist" && file.filename() != kVLConfigResultAggregatedFile &&
          it->is_regular_file(failure))
        return true;
    }
  }
  return false;
}

void printSummary(const VLConfigResult& config, bool json, bool oneLine) {
  vl::Error error;
  std::optional<vl::Fleet> fleet = vl::fleetOfConfigResult(config, &error);
  if (!fleet) {
    std::fprintf(stderr, "vorlundctl: no aggregate of %s: %s\n", config.getRootPath().c_str(),
                 error.localizedDescription().c_str());
    return;
  }
  vl::FleetSummary summary = vl::summarizeFleet(*fleet);
  if (json) {
    std::printf("%s\n", vl::fleetSummaryJson(summary).dump(oneLine ? -1 : 2).c_str());
  } else {
    std::printf("%s\n", vl::fleetSummaryText(summary).c_str());
  }
  std::fflush(stdout);
}

// SIGINT and SIGTERM, seen through a pipe: the handler works on whichever thread the signal
// reaches, so the threads of the library need no signal mask of their own.
int gSignalPipe[2] = {-1, -1};

void onSignal(int) {
  const char byte = 1;
  ssize_t ignored = write(gSignalPipe[1], &byte, 1);
  (void)ignored;
}

class StopSignals {
 public:
  StopSignals() {
    if (pipe2(gSignalPipe, O_CLOEXEC | O_NONBLOCK) != 0) throw UsageFailure("cannot make a pipe");
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
  }
  ~StopSignals() {
    for (int signal : {SIGINT, SIGTERM}) ::signal(signal, SIG_DFL);
    close(gSignalPipe[0]);
    close(gSignalPipe[1]);
  }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  int fd() const { return gSignalPipe[0]; }
  // Waits up to timeoutMs (-1: for ever) for a signal or for fd to be readable; true on a signal.
  bool wait(int otherFd, int timeoutMs) const {
    pollfd fds[2] = {{fd(), POLLIN, 0}, {otherFd, POLLIN, 0}};
    if (poll(fds, otherFd < 0 ? 1 : 2, timeoutMs) < 0 && errno != EINTR) return true;
    return fds[0].revents & POLLIN;
  }
};

int watch(const std::string& dir, bool json) {
  StopSignals signals;
  if (!holdsResultsFile(dir)) {
    std::printf("waiting for results files in %s or %s/%s...\n", dir.c_str(), dir.c_str(),
                kVLConfigResultPlistsFolder);
    std::fflush(stdout);
    while (!holdsResultsFile(dir)) {
      const int waitMs = static_cast<int>(
          std::chrono::duration_cast<std::chrono::milliseconds>(vl::time::scaled(kWaitSeconds))
              .count());
      if (signals.wait(-1, std::max(waitMs, 1))) return 0;
    }
  }

  // Every refresh (the first one included) wakes the loop, which prints the latest aggregate.
  const int refreshed = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (refreshed < 0) throw UsageFailure("cannot make an eventfd");
  auto token = vl::NotificationCenter::defaultCenter().addObserver(
      kVLResultsRefreshCompletedNotification, [refreshed](const vl::Notification&) {
        const uint64_t one = 1;
        ssize_t ignored = write(refreshed, &one, sizeof one);
        (void)ignored;
      });
  std::shared_ptr<VLConfigResult> config = VLConfigResult::withPath(dir);
  const bool opened = config != nullptr;
  if (opened) {
    while (!signals.wait(refreshed, -1)) {
      uint64_t count = 0;
      if (read(refreshed, &count, sizeof count) == sizeof count) printSummary(*config, json, true);
    }
  }
  vl::NotificationCenter::defaultCenter().removeObserver(token);
  // Joins the refresh queue and the watch thread before the descriptor they write to goes.
  config.reset();
  close(refreshed);
  return opened ? 0 : 1;
}

}  // namespace

void addAggregateCommand(CLI::App& app) {
  static std::string dir;
  static bool watchFolder = false;
  static bool json = false;
  auto* command = app.add_subcommand(
      "aggregate",
      "Sort a fleet folder (Plists, Databases), merge every device's results file and print the "
      "fleet summary");
  command->add_option("DIR", dir, "The fleet folder")->required();
  command->add_flag("--watch", watchFolder,
                    "Print a new summary after every refresh until SIGINT or SIGTERM");
  command->add_flag("--json", json,
                    "Print the summary as one JSON object (with --watch, one per line)");
  setAction(command, [] {
    std::error_code failure;
    if (!fs::is_directory(dir, failure)) throw UsageFailure("no such folder: " + dir);
    if (watchFolder) return watch(dir, json);
    if (!holdsResultsFile(dir)) {
      throw UsageFailure("no results file in " + dir + " or " + dir + "/" +
                         kVLConfigResultPlistsFolder);
    }
    std::shared_ptr<VLConfigResult> config = VLConfigResult::withPath(dir);
    if (!config) throw UsageFailure("cannot open the fleet folder " + dir);
    config->disableAutoUpdating();
    if (!config->aggregated()) throw UsageFailure("no readable results file in " + dir);
    printSummary(*config, json, false);
    return 0;
  });
}

}  // namespace vorlundctl
