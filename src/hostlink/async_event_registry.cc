// The process-wide registry of events and sources. Its lock guards only the table and the set;
// events are notified, and dropped events destroyed, outside it.
#include "hostlink/async_log_args.h"
#include "vorlund/hostlink/async_events.h"
#include "vorlund/logging/log.h"

const std::shared_ptr<AsyncEventRegistry>& AsyncEventRegistry::sharedInstance() {
  // Never destroyed: a reply delivered while the process exits must not meet a dead registry.
  static const auto* instance = new std::shared_ptr<AsyncEventRegistry>(make());
  return *instance;
}

std::shared_ptr<AsyncEventRegistry> AsyncEventRegistry::make() {
  return std::shared_ptr<AsyncEventRegistry>(new AsyncEventRegistry());
}

std::shared_ptr<AsyncEvent> AsyncEventRegistry::eventListenerForUUID(const std::string& uuid) {
  if (uuid.empty()) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  auto& event = asyncEvents_[uuid];
  if (!event) event = AsyncEvent::eventWithUUID(uuid);
  return event;
}

bool AsyncEventRegistry::registerForEventWithUUID(
    const std::string& uuid, double timeout,
    const std::shared_ptr<const AsyncHandler>& completionHandler) {
  auto event = eventListenerForUUID(uuid);
  if (!event) {
    VLLog(VLLogLevelError, nullptr, "Could not create an event listener for %@", uuid);
    return false;
  }
  event->addListenerWithTimeout(timeout, completionHandler);
  return true;
}

void AsyncEventRegistry::unregisterForEventWithUUID(const std::string& uuid) {
  std::shared_ptr<AsyncEvent> removed;
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = asyncEvents_.find(uuid);
  if (found == asyncEvents_.end()) return;
  removed = std::move(found->second);
  asyncEvents_.erase(found);
}

void AsyncEventRegistry::mockEventWithUUID(const std::string& uuid,
                                           const std::optional<vl::Dictionary>& dictionary,
                                           const std::optional<vl::Error>& error) {
  notify(uuid, dictionary, error);
}

void AsyncEventRegistry::notify(const std::string& uuid,
                                const std::optional<vl::Dictionary>& dictionary,
                                const std::optional<vl::Error>& error) {
  VLLog(VLLogLevelInfo, "AsyncEventRegistry", "Notify eventListerners for UUID %@ [%@]", uuid,
        vl::asyncDictionaryArg(dictionary));
  if (auto event = eventListenerForUUID(uuid)) event->notifyEvent(dictionary, error);
}

bool AsyncEventRegistry::registerSource(const std::shared_ptr<AsyncSource>& source) {
  if (!source) return false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!sources_.insert(source).second) {
      VLLog(VLLogLevelError, nullptr, "Error: Registry alreay has an entry for this source.");
      return false;
    }
  }
  std::string domain = source->domain();
  std::weak_ptr<AsyncEventRegistry> weakRegistry = weak_from_this();
  source->addResponder(std::make_shared<const AsyncHandler>(
      [weakRegistry, domain](const std::optional<vl::Dictionary>& dictionary,
                             const std::optional<vl::Error>& error) {
        auto registry = weakRegistry.lock();
        if (!registry) return;
        VLLog(VLLogLevelInfo, "AsyncEventRegistry", "Responder Block called with %@, %@",
              vl::asyncDictionaryArg(dictionary), vl::asyncErrorArg(error));
        registry->notify(domain, dictionary, error);
      }));
  return true;
}

bool AsyncEventRegistry::unregiserSource(const std::shared_ptr<AsyncSource>& source) {
  std::shared_ptr<AsyncSource> removed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = sources_.find(source);
    if (found != sources_.end()) {
      removed = *found;
      sources_.erase(found);
      return true;
    }
  }
  VLLog(VLLogLevelNotice, nullptr, "Warn: Registry is not tracking the source provided: %@",
        source ? source->domain() : std::string("(null)"));
  return false;
}

void AsyncEventRegistry::unregisterAllSources() {
  std::set<std::shared_ptr<AsyncSource>> removed;
  std::lock_guard<std::mutex> lock(mutex_);
  removed.swap(sources_);
}

void AsyncEventRegistry::clean() {
  std::vector<std::shared_ptr<AsyncEvent>> removed;
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = asyncEvents_.begin(); it != asyncEvents_.end();) {
    if (it->second->isExpired()) {
      removed.push_back(std::move(it->second));
      it = asyncEvents_.erase(it);
    } else {
      ++it;
    }
  }
}

uint16_t AsyncEventRegistry::eventCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<uint16_t>(asyncEvents_.size());
}

std::map<std::string, std::shared_ptr<AsyncEvent>> AsyncEventRegistry::asyncEvents() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return asyncEvents_;
}

std::set<std::shared_ptr<AsyncSource>> AsyncEventRegistry::sources() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sources_;
}
