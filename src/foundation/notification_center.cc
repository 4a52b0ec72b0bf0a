#include "vorlund/foundation/notification_center.h"

#include <algorithm>

namespace vl {

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter center;
  return center;
}

NotificationCenter::ObserverToken NotificationCenter::addObserver(std::string name,
                                                                  Callback callback) {
  std::lock_guard lock(mutex_);
  const ObserverToken token = nextToken_++;
  observers_.push_back(
      Observer{token, std::move(name), std::make_shared<Callback>(std::move(callback))});
  return token;
}

void NotificationCenter::removeObserver(ObserverToken token) {
  std::shared_ptr<Callback> released;
  std::lock_guard lock(mutex_);
  auto it = std::find_if(observers_.begin(), observers_.end(),
                         [&](const Observer& o) { return o.token == token; });
  if (it == observers_.end()) return;
  released = std::move(it->callback);  // destroyed after the lock is released
  observers_.erase(it);
}

bool NotificationCenter::isRegistered(ObserverToken token) const {
  std::lock_guard lock(mutex_);
  return std::any_of(observers_.begin(), observers_.end(),
                     [&](const Observer& o) { return o.token == token; });
}

void NotificationCenter::post(std::string name, Dictionary userInfo) {
  std::vector<std::pair<ObserverToken, std::shared_ptr<Callback>>> targets;
  {
    std::lock_guard lock(mutex_);
    for (const Observer& o : observers_) {
      if (o.name.empty() || o.name == name) targets.emplace_back(o.token, o.callback);
    }
  }
  const Notification notification{std::move(name), std::move(userInfo)};
  for (const auto& [token, callback] : targets) {
    if (isRegistered(token)) (*callback)(notification);
  }
}

}  // namespace vl
