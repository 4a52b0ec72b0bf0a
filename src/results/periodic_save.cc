#include "vorlund/results/periodic_save.h"

#include "vorlund/catalogue/preferences.h"
#include "vorlund/logging/log.h"

namespace vl {

namespace {

constexpr const char* kQueueLabel = "com.brindle.Vorlund.ResultsSave";
// A save may come this much late; it only documents the timer's slack.
constexpr double kLeewaySeconds = 1.0;

double configuredInterval(std::optional<double> given) {
  if (given && *given > 0) return *given;
  const Dictionary preferences = VLGetPreferences();
  const Value& preference = preferences.get(kResultsSaveIntervalPreference);
  if (const Number* number = preference.asNumber(); number && number->doubleValue() > 0)
    return number->doubleValue();
  return kResultsSaveIntervalSeconds;
}

}  // namespace

PeriodicSave::PeriodicSave(std::shared_ptr<VLResults> results, double intervalSeconds)
    : results_(std::move(results)),
      interval_(intervalSeconds),
      queue_(std::make_shared<SerialQueue>(kQueueLabel)) {
  VLLog(VLLogLevelInfo, "Results", "Saving results every %f seconds", interval_);
  timer_ = std::make_unique<Timer>(queue_, 0.0, interval_, kLeewaySeconds, [results = results_] {
    (results ? results : VLResults::currentResults())->suspend();
  });
}

PeriodicSave::~PeriodicSave() { stop(); }

void PeriodicSave::stop() {
  if (timer_) timer_->cancel();
}

size_t PeriodicSave::saveCount() const { return timer_ ? timer_->fireCount() : 0; }

std::unique_ptr<PeriodicSave> startPeriodicSave(std::shared_ptr<VLResults> results,
                                                std::optional<double> intervalSeconds) {
  return std::make_unique<PeriodicSave>(std::move(results), configuredInterval(intervalSeconds));
}

}  // namespace vl
