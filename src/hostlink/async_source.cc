// Event sources: a domain with responders, and the source fed by the router's manager-result
// notifications.
#include <algorithm>

#include "vorlund/hostlink/async_events.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/execution.h"

namespace {

// A responder as " - %@" prints it; a callback has no description of its own.
std::string responderDescription(const void* responder) {
  return vl::format("<AsyncResponder: %p>", responder);
}

}  // namespace

std::shared_ptr<AsyncSource> AsyncSource::sourceWithDomain(std::string domain) {
  return withDomain(std::move(domain));
}

std::shared_ptr<AsyncSource> AsyncSource::withDomain(std::string domain) {
  return std::shared_ptr<AsyncSource>(new AsyncSource(std::move(domain)));
}

void AsyncSource::addResponder(std::shared_ptr<const AsyncHandler> responder) {
  if (!responder) return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (std::find(responders_.begin(), responders_.end(), responder) != responders_.end()) return;
  responders_.push_back(std::move(responder));
}

void AsyncSource::removeResponder(const std::shared_ptr<const AsyncHandler>& responder) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::erase(responders_, responder);
}

void AsyncSource::removeAllResponders() {
  std::lock_guard<std::mutex> lock(mutex_);
  responders_.clear();
}

size_t AsyncSource::responderCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return responders_.size();
}

void AsyncSource::send(const std::optional<vl::Dictionary>& dictionary,
                       const std::optional<vl::Error>& error) {
  std::vector<std::shared_ptr<const AsyncHandler>> responders;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    responders = responders_;
  }
  VLLog(VLLogLevelInfo, "AsyncSource", "Sending to responders");
  for (const auto& responder : responders) {
    VLLog(VLLogLevelInfo, "AsyncSource", " - %@", responderDescription(responder.get()));
    (*responder)(dictionary, error);
  }
}

std::shared_ptr<AsyncManagerEventSource> AsyncManagerEventSource::withUUID(
    const std::optional<std::string>& uuid) {
  std::string domain = kVLManagerCommandResultNotificationPrefix;
  if (uuid) domain += "." + *uuid;
  std::shared_ptr<AsyncManagerEventSource> source(new AsyncManagerEventSource(domain));
  VLLog(VLLogLevelInfo, "AsyncManagerEventSource", "Registering for events with :%@", domain);
  std::weak_ptr<AsyncManagerEventSource> weakSource = source;
  source->managerObserver_ = vl::NotificationCenter::defaultCenter().addObserver(
      domain, [weakSource](const vl::Notification& notification) {
        auto strongSource = weakSource.lock();
        if (!strongSource) return;
        // The category's spelling is the one the log readers filter on.
        VLLog(VLLogLevelInfo, "AyncManagerEventSource", "Got event %@", notification.userInfo);
        strongSource->send(notification.userInfo, std::nullopt);
      });
  return source;
}

std::shared_ptr<AsyncManagerEventSource> AsyncManagerEventSource::make() {
  return withUUID(std::nullopt);
}

AsyncManagerEventSource::~AsyncManagerEventSource() {
  vl::NotificationCenter::defaultCenter().removeObserver(managerObserver_);
  VLLog(VLLogLevelInfo, nullptr, "Removed observer");
}
