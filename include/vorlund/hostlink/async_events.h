// Asynchronous events: delivering a manager's late answer to a callback, with a time-out.
//
// A manager command sent without a reply holder is answered later; the message router posts the
// answer as the in-process notification "com.brindle.vorlund.ManagerCommandResult.<UUID>". An
// AsyncManagerEventSource turns that notification into calls of its responders; the process-wide
// AsyncEventRegistry keeps one AsyncEvent per key with its AsyncListeners, and each listener
// carries a time-out. ManagerRemote (manager_remote.h) wraps the whole exchange behind callbacks.
//
// Every type here is a reference object made by a factory that returns a std::shared_ptr.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/notification_center.h"
#include "vorlund/foundation/value.h"

namespace vl {
class SerialQueue;

// The error domain of a listener's own time-out error.
inline constexpr const char* kAsyncListenerErrorDomain = "com.brindle.vorlund.asynclistener";
// The label of the queue each listener runs its time-out on.
inline constexpr const char* kAsyncDispatchQueueLabel = "com.brindle.vorlund.asyncdispatchqueue";
}  // namespace vl

// A callback of the framework: a dictionary (none for a time-out or a failure) and an error (none
// on success).
using AsyncHandler = std::function<void(const std::optional<vl::Dictionary>& dictionary,
                                        const std::optional<vl::Error>& error)>;

// Something that produces events for one key (its domain) and hands each to its responders.
class AsyncSource {
 public:
  static std::shared_ptr<AsyncSource> sourceWithDomain(std::string domain);
  static std::shared_ptr<AsyncSource> withDomain(std::string domain);
  virtual ~AsyncSource() = default;
  AsyncSource(const AsyncSource&) = delete;
  AsyncSource& operator=(const AsyncSource&) = delete;

  // The key of the events this source produces.
  const std::string& domain() const { return domain_; }

  // Responders are told apart by the pointer: adding the same one twice keeps one entry. The source
  // holds them strongly.
  void addResponder(std::shared_ptr<const AsyncHandler> responder);
  void removeResponder(const std::shared_ptr<const AsyncHandler>& responder);
  void removeAllResponders();
  size_t responderCount() const;

  // Calls every responder, on the calling thread, with dictionary and error. Logs "Sending to
  // responders" and " - %@" per responder (level 0, "AsyncSource"). Responders may add or remove
  // responders meanwhile; the call goes to those present when it began.
  void send(const std::optional<vl::Dictionary>& dictionary, const std::optional<vl::Error>& error);

 protected:
  explicit AsyncSource(std::string domain) : domain_(std::move(domain)) {}

 private:
  const std::string domain_;
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<const AsyncHandler>> responders_;
};

// A source fed by the router's "com.brindle.vorlund.ManagerCommandResult.<UUID>" notification of
// the default notification center. Each notification is sent to the responders, on the posting
// thread, with its user information and no error. The observer holds the source weakly; destroying
// the source removes the observer (and logs "Removed observer").
class AsyncManagerEventSource : public AsyncSource {
 public:
  // Observes the name prefix + "." + uuid, or the bare prefix when uuid is none. Logs "Registering
  // for events with :%@" (level 0, "AsyncManagerEventSource").
  static std::shared_ptr<AsyncManagerEventSource> withUUID(const std::optional<std::string>& uuid);
  // The same with no UUID.
  static std::shared_ptr<AsyncManagerEventSource> make();
  ~AsyncManagerEventSource() override;

  vl::NotificationCenter::ObserverToken managerObserver() const { return managerObserver_; }

 private:
  explicit AsyncManagerEventSource(std::string domain) : AsyncSource(std::move(domain)) {}

  vl::NotificationCenter::ObserverToken managerObserver_ = 0;
};

// One wait for an event: the callback (held weakly: whoever registers keeps it alive for as long as
// it wants to be called) and the moment it expires.
//
// After the time-out (scaled) the listener's own queue marks it done without calling the callback:
// it logs "Timeout HAPPENING NOW %@" (level 2, "AsyncListener") and notifies itself with the error
// "Timeout waiting for event to fire" (kAsyncListenerErrorDomain, -1), which only logs that it is
// already done. This is on purpose: whoever waits reports the missing event with its own error.
class AsyncListener {
 public:
  static std::shared_ptr<AsyncListener> withBlock(const std::shared_ptr<const AsyncHandler>& block,
                                                  double timeout);
  ~AsyncListener();
  AsyncListener(const AsyncListener&) = delete;
  AsyncListener& operator=(const AsyncListener&) = delete;

  // Calls the callback once with dictionary and error, unless the listener is done already, or the
  // event carries no error and the listener has expired (then it stays pending). Logs "Got %@, %@"
  // (level 0) and the outcome ("Got event, But not going to notify because we are already done.
  // %@", level 2; "Trying to notify a Listener that is expired %@", level 0; "Notify sent to
  // listener %@", level 2), all in the category "AsyncListener".
  void notifyEvent(const std::optional<vl::Dictionary>& dictionary,
                   const std::optional<vl::Error>& error);
  // Whether expires() is in the past.
  bool isExpired() const;
  bool done() const;

  // The callback, or nullptr once its owner has let it go.
  std::shared_ptr<const AsyncHandler> block() const { return block_.lock(); }
  // Now plus the time-out when the listener was made; the time-out is scaled, so this is the real
  // moment it falls due.
  vl::Date expires() const { return expires_; }
  // "<AsyncListener: 0x...>", as log lines print a listener.
  std::string description() const;

 private:
  AsyncListener(const std::shared_ptr<const AsyncHandler>& block, double timeout);
  void timeoutFired();

  std::weak_ptr<const AsyncHandler> block_;
  const vl::Date expires_;
  mutable std::mutex mutex_;
  bool done_ = false;
  // Declared last so that it is destroyed first: a time-out that is not yet due is dropped with it.
  std::unique_ptr<vl::SerialQueue> asyncDispatchQueue_;
};

// The listeners waiting for one key. A notification goes to every listener present and then
// removes them all: an event notified a second time has nobody left to call, though it still
// counts.
class AsyncEvent {
 public:
  static std::shared_ptr<AsyncEvent> eventWithUUID(std::string uuid);
  AsyncEvent(const AsyncEvent&) = delete;
  AsyncEvent& operator=(const AsyncEvent&) = delete;

  // Adds a listener for callback with the time-out (seconds, scaled) and raises expires() to its
  // expiry when that is later. Returns the listener.
  std::shared_ptr<AsyncListener> addListenerWithTimeout(
      double timeout, const std::shared_ptr<const AsyncHandler>& listener);
  // Counts the notification and hands it to each listener (logging " ~ %@" per listener, level 2,
  // "AsyncEvent"), then drops them. Two notifications at once never reach one listener twice.
  void notifyEvent(const std::optional<vl::Dictionary>& dictionary,
                   const std::optional<vl::Error>& error);
  // True when no listener ever set expires(), or it is in the past.
  bool isExpired() const;

  const std::string& eventUUID() const { return eventUUID_; }
  vl::Date created() const { return created_; }
  std::optional<vl::Date> expires() const;
  std::set<std::shared_ptr<AsyncListener>> listeners() const;
  int32_t notifyCount() const { return notifyCount_.load(); }
  // A free label, the key the event was made for until someone sets another.
  std::string uuid() const;
  void setUuid(std::string uuid);

 private:
  explicit AsyncEvent(std::string uuid);

  const std::string eventUUID_;
  const vl::Date created_;
  std::atomic<int32_t> notifyCount_{0};
  mutable std::mutex mutex_;
  std::optional<vl::Date> expires_;
  std::set<std::shared_ptr<AsyncListener>> listeners_;
  std::string uuid_;
};

// The process-wide table of events by key and of the sources that feed it. Thread-safe: the
// table's lock is never held while a callback runs.
class AsyncEventRegistry : public std::enable_shared_from_this<AsyncEventRegistry> {
 public:
  // The process's registry. It lives until the process ends.
  static const std::shared_ptr<AsyncEventRegistry>& sharedInstance();
  // A registry of one's own, apart from the shared one.
  static std::shared_ptr<AsyncEventRegistry> make();
  AsyncEventRegistry(const AsyncEventRegistry&) = delete;
  AsyncEventRegistry& operator=(const AsyncEventRegistry&) = delete;

  // The event for uuid, made and stored when there is none. nullptr for an empty uuid, which is no
  // key.
  std::shared_ptr<AsyncEvent> eventListenerForUUID(const std::string& uuid);
  // Adds a listener with the time-out (seconds, scaled) for completionHandler, which the caller
  // keeps alive (the listener holds it weakly). False, logging "Could not create an event listener
  // for %@", when no event could be had.
  bool registerForEventWithUUID(const std::string& uuid, double timeout,
                                const std::shared_ptr<const AsyncHandler>& completionHandler);
  // Removes the event and with it its pending listeners, whose time-outs are dropped.
  void unregisterForEventWithUUID(const std::string& uuid);
  // Delivers an event by hand, as a source would.
  void mockEventWithUUID(const std::string& uuid, const std::optional<vl::Dictionary>& dictionary,
                         const std::optional<vl::Error>& error);

  // Tracks source and gives it a responder that notifies the event of its domain. False, logging
  // "Error: Registry alreay has an entry for this source.", when it is tracked already.
  bool registerSource(const std::shared_ptr<AsyncSource>& source);
  // Stops tracking source (its responder stays on it). False, logging "Warn: Registry is not
  // tracking the source provided: %@", when it was not tracked. The name's spelling is the
  // interface's own.
  bool unregiserSource(const std::shared_ptr<AsyncSource>& source);
  void unregisterAllSources();

  // Removes every expired event (AsyncEvent::isExpired). Call it after each exchange so that the
  // table stays small.
  void clean();
  // The number of events, reduced to 16 bits.
  uint16_t eventCount() const;

  std::map<std::string, std::shared_ptr<AsyncEvent>> asyncEvents() const;
  std::set<std::shared_ptr<AsyncSource>> sources() const;

 private:
  AsyncEventRegistry() = default;
  // Logs "Notify eventListerners for UUID %@ [%@]" and notifies the event of uuid, made if missing.
  void notify(const std::string& uuid, const std::optional<vl::Dictionary>& dictionary,
              const std::optional<vl::Error>& error);

  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<AsyncEvent>> asyncEvents_;
  std::set<std::shared_ptr<AsyncSource>> sources_;
};
