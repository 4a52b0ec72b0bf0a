#include "vorlund/devicetools/timer_manager.h"

#include "vorlund/logging/log.h"

FUTimerManager& FUTimerManager::sharedManager() {
  static FUTimerManager* manager = new FUTimerManager();
  return *manager;
}

void FUTimerManager::addTimer(std::shared_ptr<vl::Timer> timer, const std::string& key) {
  std::lock_guard lock(mutex_);
  if (timer) {
    timers_[key] = std::move(timer);
  } else {
    timers_.erase(key);
  }
}

void FUTimerManager::cancelTimerForKey(const std::string& key) {
  std::shared_ptr<vl::Timer> timer;
  {
    std::lock_guard lock(mutex_);
    auto found = timers_.find(key);
    if (found != timers_.end()) {
      timer = std::move(found->second);
      timers_.erase(found);
    }
  }
  if (!timer) {
    VLLog(VLLogLevelError, "FileUtilities", "No timer exists for '%@'!", key);
    return;
  }
  // Outside the lock: cancel() waits for a running handler, which may itself use the manager.
  timer->cancel();
}
