// Events and their listeners: one notification reaches each pending listener once; a listener's
// time-out runs on its own queue through the time scale.
#include <chrono>

#include "hostlink/async_log_args.h"
#include "vorlund/foundation/serial_queue.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/async_events.h"
#include "vorlund/logging/log.h"

namespace {

// The real moment a nominal time-out from now falls due.
vl::Date expiryAfter(double timeout) {
  std::chrono::duration<double> real = vl::time::scaled(timeout);
  return vl::Date{vl::Date::now().secondsSince1970 + real.count()};
}

}  // namespace

std::shared_ptr<AsyncListener> AsyncListener::withBlock(
    const std::shared_ptr<const AsyncHandler>& block, double timeout) {
  std::shared_ptr<AsyncListener> listener(new AsyncListener(block, timeout));
  std::weak_ptr<AsyncListener> weakListener = listener;
  listener->asyncDispatchQueue_->asyncAfter(timeout, [weakListener] {
    if (auto strongListener = weakListener.lock()) strongListener->timeoutFired();
  });
  return listener;
}

AsyncListener::AsyncListener(const std::shared_ptr<const AsyncHandler>& block, double timeout)
    : block_(block),
      expires_(expiryAfter(timeout)),
      // One item ever runs on it, so a serial queue serves where a concurrent one would.
      asyncDispatchQueue_(std::make_unique<vl::SerialQueue>(vl::kAsyncDispatchQueueLabel)) {}

AsyncListener::~AsyncListener() = default;

void AsyncListener::timeoutFired() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (done_) return;
    done_ = true;
  }
  VLLog(VLLogLevelDebug, "AsyncListener", "Timeout HAPPENING NOW %@", description());
  vl::Error error = vl::Error::withDescription(vl::kAsyncListenerErrorDomain, -1,
                                               "Timeout waiting for event to fire");
  // done is already set, so this only logs: the time-out never reaches the callback on purpose.
  notifyEvent(std::nullopt, error);
}

void AsyncListener::notifyEvent(const std::optional<vl::Dictionary>& dictionary,
                                const std::optional<vl::Error>& error) {
  VLLog(VLLogLevelInfo, "AsyncListener", "Got %@, %@", vl::asyncDictionaryArg(dictionary),
        vl::asyncErrorArg(error));
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (done_) {
      VLLog(VLLogLevelDebug, "AsyncListener",
            "Got event, But not going to notify because we are already done. %@", description());
      return;
    }
    if (!error && isExpired()) {
      VLLog(VLLogLevelInfo, "AsyncListener", "Trying to notify a Listener that is expired %@",
            description());
      return;
    }
    // Claimed before the call, so that a time-out running meanwhile finds the listener done.
    done_ = true;
  }
  VLLog(VLLogLevelDebug, "AsyncListener", "Notify sent to listener %@", description());
  if (auto callback = block_.lock()) (*callback)(dictionary, error);
}

bool AsyncListener::isExpired() const { return expires_ < vl::Date::now(); }

bool AsyncListener::done() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return done_;
}

std::string AsyncListener::description() const {
  return vl::format("<AsyncListener: %p>", static_cast<const void*>(this));
}

std::shared_ptr<AsyncEvent> AsyncEvent::eventWithUUID(std::string uuid) {
  return std::shared_ptr<AsyncEvent>(new AsyncEvent(std::move(uuid)));
}

AsyncEvent::AsyncEvent(std::string uuid)
    : eventUUID_(uuid), created_(vl::Date::now()), uuid_(std::move(uuid)) {}

std::shared_ptr<AsyncListener> AsyncEvent::addListenerWithTimeout(
    double timeout, const std::shared_ptr<const AsyncHandler>& listener) {
  auto added = AsyncListener::withBlock(listener, timeout);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!expires_ || *expires_ < added->expires()) expires_ = added->expires();
  listeners_.insert(added);
  return added;
}

void AsyncEvent::notifyEvent(const std::optional<vl::Dictionary>& dictionary,
                             const std::optional<vl::Error>& error) {
  ++notifyCount_;
  // Taken out under the lock and called outside it: a callback may register again for this very
  // event, and a second notification at the same time finds nobody left.
  std::set<std::shared_ptr<AsyncListener>> listeners;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    listeners.swap(listeners_);
  }
  for (const auto& listener : listeners) {
    VLLog(VLLogLevelDebug, "AsyncEvent", " ~ %@", listener->description());
    listener->notifyEvent(dictionary, error);
  }
}

bool AsyncEvent::isExpired() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return !expires_ || *expires_ < vl::Date::now();
}

std::optional<vl::Date> AsyncEvent::expires() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return expires_;
}

std::set<std::shared_ptr<AsyncListener>> AsyncEvent::listeners() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return listeners_;
}

std::string AsyncEvent::uuid() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return uuid_;
}

void AsyncEvent::setUuid(std::string uuid) {
  std::lock_guard<std::mutex> lock(mutex_);
  uuid_ = std::move(uuid);
}
