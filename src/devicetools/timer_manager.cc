#include "vorlund/devicetools/timer_manager.h"

#include "vorlund/logging/log.h"

FUTimerManager& FUTimerManager::sharedManager() {
  static FUTimerManager* manager = new FUTimerManager();
  return *manager;
}

void FUTimerManager::addTimer(std::shared_ptr<vl::Timer> timer, const std::string& key) {
  // The entry replaced may be the timer's last owner, and a timer's destructor waits for its
  // running handler, which may itself be calling the manager: it is let go of after the lock.
  std::shared_ptr<vl::Timer> replaced;
  std::lock_guard lock(mutex_);
  auto found = timers_.find(key);
  if (found != timers_.end()) {
    replaced = std::move(found->second);
    if (!timer) timers_.erase(found);
  }
  if (timer) timers_[key] = std::move(timer);
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
