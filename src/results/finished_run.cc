#include "vorlund/results/finished_run.h"

#include <exception>
#include <mutex>

#include "vorlund/logging/log.h"
#include "vorlund/results/results.h"

namespace vl {
namespace {

struct Hook {
  std::mutex mutex;
  FinishedRunHandler handler;
};

Hook& hook() {
  static Hook* instance = new Hook();  // lives for the process
  return *instance;
}

}  // namespace

void setFinishedRunHandler(FinishedRunHandler handler) {
  std::lock_guard lock(hook().mutex);
  hook().handler = std::move(handler);
}

void announceFinishedRun(const VLResults& run) {
  FinishedRunHandler handler;
  {
    std::lock_guard lock(hook().mutex);
    handler = hook().handler;
  }
  if (!handler) return;
  try {
    handler(run);
  } catch (const std::exception& exception) {
    VLLog(VLLogLevelError, "Results", "Finished run handler failed: %@", exception.what());
  }
}

}  // namespace vl
