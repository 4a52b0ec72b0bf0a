// In-process notifications: observers register a callback for a name; a post delivers the
// notification synchronously, on the posting thread, to the observers registered for that name
// when the post began. The results aggregate, the message router and the event framework talk
// through the default center.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vorlund/foundation/value.h"

namespace vl {

struct Notification {
  std::string name;
  Dictionary userInfo;
};

class NotificationCenter {
 public:
  using Callback = std::function<void(const Notification&)>;
  // Identifies one registration; 0 is never a valid token.
  using ObserverToken = uint64_t;

  NotificationCenter() = default;
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // The process's shared center.
  static NotificationCenter& defaultCenter();

  // Registers callback for notifications named name (an empty name observes every notification).
  ObserverToken addObserver(std::string name, Callback callback);
  // Removes a registration; unknown tokens are ignored. An observer removed while a post is under
  // way is not called by that post from then on, including when it removes itself or another
  // observer from inside a callback. A callback already running on another thread is not waited
  // for.
  void removeObserver(ObserverToken token);

  // Delivers to each matching observer in registration order and returns when all have run.
  // Observers added during the post are not called by it.
  void post(std::string name, Dictionary userInfo = {});

 private:
  struct Observer {
    ObserverToken token;
    std::string name;
    std::shared_ptr<Callback> callback;
  };
  bool isRegistered(ObserverToken token) const;

  mutable std::mutex mutex_;
  std::vector<Observer> observers_;
  ObserverToken nextToken_ = 1;
};

}  // namespace vl
