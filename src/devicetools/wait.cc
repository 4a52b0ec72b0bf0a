#include "vorlund/devicetools/wait.h"

#include <chrono>
#include <thread>

#include "vorlund/foundation/time_scale.h"

void waitForSeconds(double seconds) {
  // Sleeps to a deadline, so an early wake-up (a signal) does not shorten the pause.
  const auto deadline = std::chrono::steady_clock::now() + vl::time::scaled(seconds);
  while (std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_until(deadline);
}
