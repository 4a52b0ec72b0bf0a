#include "vorlund/foundation/time_scale.h"

#include <atomic>
#include <cstdlib>
#include <thread>

namespace vl::time {

namespace {

double initialScale() {
  const char* text = std::getenv("VORLUND_TIME_SCALE");
  if (!text || !*text) return 1.0;
  char* end = nullptr;
  double value = std::strtod(text, &end);
  return (end && *end == '\0' && value > 0) ? value : 1.0;
}

std::atomic<double>& currentScale() {
  static std::atomic<double> value{initialScale()};
  return value;
}

}  // namespace

double scale() { return currentScale().load(); }

void setScale(double s) { currentScale().store(s > 0 ? s : 1.0); }

std::chrono::nanoseconds scaled(double seconds) {
  double ns = seconds * scale() * 1e9;
  if (!(ns > 0)) return std::chrono::nanoseconds(0);
  if (ns > 9.2e18) return std::chrono::nanoseconds::max();
  return std::chrono::nanoseconds(static_cast<int64_t>(ns));
}

void sleepFor(double seconds) { std::this_thread::sleep_for(scaled(seconds)); }

}  // namespace vl::time
