// Watching one folder for changes with inotify: a thread of the watch's own waits on the inotify
// descriptor and calls a handler once per batch of events. The multi-device results folder
// refreshes its aggregate through one; anything that reacts to files arriving in a folder can.
#pragma once

#include <sys/inotify.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "vorlund/foundation/error.h"

namespace vl {

class DirectoryWatch {
 public:
  // The events that mean "a file of the folder is complete or gone": closed after writing, moved
  // in or out, deleted. Plain writes are left out on purpose, so that a file still being written
  // is never seen half-way.
  static constexpr uint32_t kCompletedFileEvents =
      IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;

  // Watches path for events (IN_* bits of <sys/inotify.h>) and runs onChange on the watch's
  // thread after each read of the descriptor, however many events it held. nullptr, with error
  // (domain "com.brindle.Vorlund", the system's reason), when path cannot be watched (missing, not
  // a folder, no inotify descriptor left).
  static std::unique_ptr<DirectoryWatch> start(const std::string& path, uint32_t events,
                                               std::function<void()> onChange,
                                               Error* error = nullptr);
  // cancel().
  ~DirectoryWatch();
  DirectoryWatch(const DirectoryWatch&) = delete;
  DirectoryWatch& operator=(const DirectoryWatch&) = delete;

  // Stops the thread (a handler already running finishes first; none starts afterwards, and a
  // handler may cancel its own watch) and closes the inotify descriptor. Returns 0, or the errno of
  // a failing close. A second call does nothing and returns 0.
  int cancel();
  bool isCancelled() const;
  const std::string& path() const;

  struct State;

 private:
  explicit DirectoryWatch(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

}  // namespace vl
