#include "vorlund/catalogue/condition.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace vl {

void Condition::wait() { cv_.wait(mutex_); }

bool Condition::waitUntil(const Date& limit) {
  using Clock = std::chrono::system_clock;
  // Far-off limits ("wait for ever") are clamped so that the conversion cannot overflow; a limit
  // that is not a number counts as already passed.
  constexpr double kLatestSeconds = 1e11;
  double seconds = std::isnan(limit.secondsSince1970)
                       ? 0
                       : std::clamp(limit.secondsSince1970, 0.0, kLatestSeconds);
  auto deadline = Clock::time_point(
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
  return cv_.wait_until(mutex_, deadline) == std::cv_status::no_timeout;
}

}  // namespace vl
