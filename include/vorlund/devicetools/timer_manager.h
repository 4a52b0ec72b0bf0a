// FUTimerManager: the process's registry of repeating timers by key, so that the file
// synchronisation tools can cancel a folder's timer by the folder's name. It logs under the
// category "FileUtilities".
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "vorlund/foundation/timer.h"

class FUTimerManager {
 public:
  // The one manager of the process, created on first use; it lives until the process ends.
  static FUTimerManager& sharedManager();

  // Keeps timer under key. A timer already kept under the key is replaced without being cancelled;
  // a null timer removes the key.
  void addTimer(std::shared_ptr<vl::Timer> timer, const std::string& key);
  // Cancels the timer kept under key and forgets it. Without one, logs at level 16 "No timer exists
  // for '<key>'!".
  void cancelTimerForKey(const std::string& key);

 private:
  FUTimerManager() = default;

  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<vl::Timer>> timers_;
};
