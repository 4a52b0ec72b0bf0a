// Saving a run while the stress service runs: the results file and the resume data are written
// every interval on a background queue, so that a service killed without warning (kill -9, a
// watchdog, a power cut) loses at most the last interval of its run. The service starts one for
// the run it serves and drops it when the run ends or is replaced.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>

#include "vorlund/foundation/serial_queue.h"
#include "vorlund/foundation/timer.h"
#include "vorlund/results/results.h"

namespace vl {

// The interval when the preferences do not set one, in nominal seconds (time-scaled).
inline constexpr double kResultsSaveIntervalSeconds = 60.0;
// The preference that sets the interval: a number of seconds greater than 0.
inline constexpr const char* kResultsSaveIntervalPreference = "ResultsSaveInterval";

// Owns the saving of one run. Destroying it (or stop()) cancels the timer: when it returns no save
// is running or will start. It does not save on the way out: a clean stop suspends the run itself.
class PeriodicSave {
 public:
  PeriodicSave(std::shared_ptr<VLResults> results, double intervalSeconds);
  ~PeriodicSave();
  PeriodicSave(const PeriodicSave&) = delete;
  PeriodicSave& operator=(const PeriodicSave&) = delete;

  void stop();
  // Saves completed so far (each one results->suspend(), successful or not).
  size_t saveCount() const;
  double intervalSeconds() const { return interval_; }

 private:
  std::shared_ptr<VLResults> results_;
  double interval_;
  std::shared_ptr<SerialQueue> queue_;
  std::unique_ptr<Timer> timer_;
};

// Starts saving results (suspend(): the results file, then the resume data) at once and then
// every interval; with results nullptr, whichever run VLResults::currentResults() is at each save
// (a service whose run may be reset and replaced). The interval is intervalSeconds when given, else the preference "ResultsSaveInterval", else
// kResultsSaveIntervalSeconds; a value that is not a number greater than 0 counts as not given.
// The saves run on the serial queue "com.brindle.Vorlund.ResultsSave"; failures are logged by
// suspend() and the next save tries again. Never returns nullptr.
[[nodiscard]] std::unique_ptr<PeriodicSave> startPeriodicSave(
    std::shared_ptr<VLResults> results, std::optional<double> intervalSeconds = std::nullopt);

}  // namespace vl
