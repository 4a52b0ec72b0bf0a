// The process-wide time scale. Every duration the system names (rests, spacings, waits, time-outs)
// is a constant of its module and passes through scaled(), so tests lower the scale and check the
// timing rules in milliseconds. The scale starts at $VORLUND_TIME_SCALE (default 1).
#pragma once

#include <chrono>

namespace vl::time {

double scale();
void setScale(double scale);

// The real duration of a nominal number of seconds.
std::chrono::nanoseconds scaled(double seconds);
// Sleeps for the scaled duration.
void sleepFor(double seconds);

// Sets the scale for the lifetime of the object.
class ScopedScale {
 public:
  explicit ScopedScale(double scale) : previous_(vl::time::scale()) { setScale(scale); }
  ~ScopedScale() { setScale(previous_); }
  ScopedScale(const ScopedScale&) = delete;
  ScopedScale& operator=(const ScopedScale&) = delete;

 private:
  double previous_;
};

}  // namespace vl::time
