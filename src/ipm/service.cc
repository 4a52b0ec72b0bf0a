#include "vorlund/ipm/service.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>

#include "vorlund/foundation/format.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/message_codec.h"
#include "vorlund/logging/log.h"

namespace vl::ipm {
namespace {

constexpr const char* kCategory = "IPM";

class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : fd_(fd) {}
  ~ScopedFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

uint64_t monotonicUsec() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

int methodCallback(sd_bus_message* m, void* userdata, sd_bus_error* error);

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Message", "a{sv}", "a{sv}", methodCallback, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

// Everything on the bus (the connection, the calls awaiting replies) is touched by the loop thread
// only; workers see plain IPM values and hand their replies back through `completed`.
struct Service::State {
  std::map<std::string, Handler> handlers;
  ServiceOptions options;
  ScopedBus bus;
  ScopedSlot slot;
  ScopedFd wake{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  std::thread loop;
  std::atomic<bool> stopping{false};
  std::atomic<size_t> answered{0};
  std::mutex stopMutex;
  bool abandoned = false;  // a bounded stop gave up on a handler; under stopMutex

  // Loop thread only.
  uint64_t nextId = 0;
  std::map<uint64_t, ScopedMessage> pending;

  // The worker pool: at most options.workers threads, started as requests need them; requests
  // beyond that wait in `queue` in arrival order.
  struct Job {
    uint64_t id;
    Handler handler;
    IpmValue request;
  };
  std::mutex poolMutex;
  std::condition_variable poolWork;
  std::deque<Job> queue;
  std::vector<std::thread> workers;
  size_t busy = 0;
  bool poolClosed = false;

  std::mutex completedMutex;
  std::deque<std::pair<uint64_t, IpmValue>> completed;

  // Signalled by the loop thread when it has ended.
  std::mutex doneMutex;
  std::condition_variable doneChanged;
  bool done = false;

  void work() {
    for (;;) {
      Job job;
      {
        std::unique_lock lock(poolMutex);
        poolWork.wait(lock, [&] { return poolClosed || !queue.empty(); });
        if (queue.empty()) return;
        job = std::move(queue.front());
        queue.pop_front();
        ++busy;
      }
      IpmValue replyValue;
      try {
        replyValue = job.handler(job.request);
      } catch (const std::exception& e) {
        replyValue = IpmValue::ofError(vl::format("The request failed: %s", e.what()));
      } catch (...) {
        replyValue = IpmValue::ofError("The request failed");
      }
      {
        std::lock_guard lock(completedMutex);
        completed.emplace_back(job.id, std::move(replyValue));
      }
      {
        std::lock_guard lock(poolMutex);
        --busy;
      }
      wakeLoop();
    }
  }

  // Queues a request; starts a worker when all are busy and the pool is not full.
  void submit(Job job) {
    std::lock_guard lock(poolMutex);
    queue.push_back(std::move(job));
    if (busy + queue.size() > workers.size() && workers.size() < options.workers) {
      workers.emplace_back([this] { work(); });
    }
    poolWork.notify_one();
  }

  // Requests still queued when the service stops are answered with an error, not run.
  std::deque<Job> takeQueued() {
    std::lock_guard lock(poolMutex);
    return std::exchange(queue, {});
  }

  bool handlersRunning() {
    std::lock_guard lock(poolMutex);
    return busy > 0 || !queue.empty();
  }

  void closePool() {
    {
      std::lock_guard lock(poolMutex);
      poolClosed = true;
    }
    poolWork.notify_all();
    for (std::thread& worker : workers) worker.join();
    workers.clear();
  }

  // Whether the caller may use the service: always, unless a group is configured; then root and
  // the members of that group (effective or supplementary).
  bool callerAllowed(sd_bus_message* call) {
    if (!options.allowedGroup) return true;
    sd_bus_creds* raw = nullptr;
    int r = sd_bus_query_sender_creds(call,
                                      SD_BUS_CREDS_EUID | SD_BUS_CREDS_EGID |
                                          SD_BUS_CREDS_SUPPLEMENTARY_GIDS | SD_BUS_CREDS_AUGMENT,
                                      &raw);
    std::unique_ptr<sd_bus_creds, decltype(&sd_bus_creds_unref)> creds(raw, sd_bus_creds_unref);
    if (r < 0) return false;
    uid_t uid = 0;
    if (sd_bus_creds_get_euid(creds.get(), &uid) >= 0 && uid == 0) return true;
    gid_t gid = 0;
    if (sd_bus_creds_get_egid(creds.get(), &gid) >= 0 && gid == *options.allowedGroup) return true;
    const gid_t* groups = nullptr;
    int count = sd_bus_creds_get_supplementary_gids(creds.get(), &groups);
    return count > 0 && std::find(groups, groups + count, *options.allowedGroup) != groups + count;
  }

  void wakeLoop() {
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(wake.get(), &one, sizeof one);
  }

  // A request is counted before its reply leaves, so that a client holding its reply always finds
  // it counted.
  void replyError(sd_bus_message* call, const char* name, const std::string& message) {
    ++answered;
    int r = sd_bus_reply_method_errorf(call, name, "%s", message.c_str());
    if (r < 0) {
      VLLog(VLLogLevelDebug, kCategory, "Unable to send an error reply: %s", errnoText(r).c_str());
    }
  }

  void reply(sd_bus_message* call, const IpmValue& value) {
    if (const IpmError* failure = value.asError()) {
      replyError(call, kErrorFailed, failure->description);
      return;
    }
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_return(call, &raw);
    ScopedMessage message(raw);
    Error error;
    if (r < 0) {
      error = ipmError(IpmErrorCode::kTransport, errnoText(r));
    } else if (appendDictionary(message.get(), value, &error)) {
      // A client that left before its reply is no error of the service: the bus drops the reply.
      ++answered;
      r = sd_bus_send(bus.get(), message.get(), nullptr);
      if (r < 0) {
        VLLog(VLLogLevelDebug, kCategory, "Unable to send a reply: %s", errnoText(r).c_str());
      }
      return;
    }
    VLLog(VLLogLevelError, kCategory, "Unable to reply: %s", error.localizedDescription().c_str());
    replyError(call, kErrorInvalidMessage,
               "The service's reply does not fit a message: " + error.localizedDescription());
  }

  int onMessage(sd_bus_message* call) {
    if (stopping) {
      replyError(call, kErrorFailed, "The stress service is stopping");
      return 1;
    }
    if (!callerAllowed(call)) {
      VLLog(VLLogLevelError, kCategory,
            "Refusing a message from a caller outside the service's group");
      replyError(call, SD_BUS_ERROR_ACCESS_DENIED,
                 "Only root and the members of the service's group may call the stress service");
      return 1;
    }
    Error error;
    auto request = readDictionary(call, &error);
    if (!request) {
      VLLog(VLLogLevelError, kCategory, "Refusing a malformed message: %s",
            error.localizedDescription().c_str());
      replyError(call, kErrorInvalidMessage, error.localizedDescription());
      return 1;
    }
    const IpmValue* type = request->asDictionary()->find(kVLMessageKeyType);
    const std::string* typeName = type ? type->asString() : nullptr;
    auto handler = typeName ? handlers.find(*typeName) : handlers.end();
    if (handler == handlers.end()) handler = handlers.find(kOtherMessages);
    if (handler == handlers.end()) {
      if (!typeName) {
        VLLog(VLLogLevelError, kCategory, "Refusing a message without a \"MessageType\"");
        replyError(call, kErrorInvalidMessage, "The message has no string \"MessageType\"");
        return 1;
      }
      VLLog(VLLogLevelError, kCategory, "Refusing a message of unsupported type \"%s\"",
            typeName->c_str());
      replyError(call, kErrorUnsupportedMessage,
                 vl::format("Unsupported message type \"%s\"", typeName->c_str()));
      return 1;
    }
    VLLog(VLLogLevelDebug, kCategory, "Received %s", typeName ? typeName->c_str() : "a message");
    uint64_t id = nextId++;
    pending.emplace(id, ScopedMessage(sd_bus_message_ref(call)));
    try {
      submit(Job{id, handler->second, std::move(*request)});
    } catch (const std::system_error& e) {
      // No worker could be started and none is running to take the request.
      pending.erase(id);
      replyError(call, kErrorFailed, vl::format("Unable to start a worker: %s", e.what()));
    }
    return 1;
  }

  void drainCompleted() {
    std::deque<std::pair<uint64_t, IpmValue>> done;
    {
      std::lock_guard lock(completedMutex);
      done.swap(completed);
    }
    for (auto& [id, value] : done) {
      if (auto call = pending.find(id); call != pending.end()) {
        reply(call->second.get(), value);
        pending.erase(call);
      }
    }
  }

  void run() {
    bool released = false;
    for (;;) {
      int r;
      while ((r = sd_bus_process(bus.get(), nullptr)) > 0) {
      }
      if (r < 0) {
        VLLog(VLLogLevelError, kCategory, "The bus connection failed: %s", errnoText(r).c_str());
        if (sd_bus_is_open(bus.get()) <= 0) break;
      }
      drainCompleted();
      if (stopping && !released) {
        sd_bus_release_name(bus.get(), kServiceName);
        released = true;
        for (Job& job : takeQueued()) {
          if (auto call = pending.find(job.id); call != pending.end()) {
            replyError(call->second.get(), kErrorFailed, "The stress service is stopping");
            pending.erase(call);
          }
        }
      }
      if (stopping && !handlersRunning()) break;

      pollfd fds[2] = {
          {sd_bus_get_fd(bus.get()), static_cast<short>(sd_bus_get_events(bus.get())), 0},
          {wake.get(), POLLIN, 0}};
      uint64_t until = UINT64_MAX;
      int timeoutMs = -1;
      if (sd_bus_get_timeout(bus.get(), &until) >= 0 && until != UINT64_MAX) {
        uint64_t now = monotonicUsec();
        timeoutMs = until <= now
                        ? 0
                        : static_cast<int>(std::min<uint64_t>((until - now + 999) / 1000, 60000));
      }
      if (poll(fds, 2, timeoutMs) < 0 && errno != EINTR) break;
      if (fds[1].revents & POLLIN) {
        uint64_t count;
        [[maybe_unused]] ssize_t n = ::read(wake.get(), &count, sizeof count);
      }
    }
    // The connection is gone or the service stops: wait for running handlers, whose replies can no
    // longer be sent when the connection failed.
    closePool();
    drainCompleted();
    pending.clear();
    sd_bus_flush(bus.get());
    if (!stopping && options.onDisconnect) options.onDisconnect();
    {
      std::lock_guard lock(doneMutex);
      done = true;
    }
    doneChanged.notify_all();
  }
};

namespace {

int methodCallback(sd_bus_message* m, void* userdata, sd_bus_error*) {
  return static_cast<Service::State*>(userdata)->onMessage(m);
}

}  // namespace

Service::Service(std::unique_ptr<State> state) : state_(std::move(state)) {}

Service::~Service() {
  {
    std::lock_guard lock(state_->stopMutex);
    if (state_->abandoned) {
      bool ended;
      {
        // Without a handler left, the loop ends at once: wait for that. A handler still running
        // keeps it going for as long as it likes.
        std::unique_lock doneLock(state_->doneMutex);
        state_->doneChanged.wait_for(doneLock, std::chrono::seconds(5), [&] {
          return state_->done || state_->handlersRunning();
        });
        ended = state_->done;
      }
      if (!ended) {
        // A handler outlived a bounded stop and still uses the state: leave both to the ending
        // process rather than wait for it.
        state_->loop.detach();
        (void)state_.release();
        return;
      }
      state_->abandoned = false;  // it ended after all: finish the stop below
    }
  }
  stop();
}

std::unique_ptr<Service> Service::start(std::map<std::string, Handler> handlers, Error* error) {
  return start(std::move(handlers), ServiceOptions{}, error);
}

std::unique_ptr<Service> Service::start(std::map<std::string, Handler> handlers,
                                        DisconnectHandler onDisconnect, Error* error) {
  ServiceOptions options;
  options.onDisconnect = std::move(onDisconnect);
  return start(std::move(handlers), std::move(options), error);
}

std::unique_ptr<Service> Service::start(std::map<std::string, Handler> handlers,
                                        ServiceOptions options, Error* error) {
  auto state = std::make_unique<State>();
  state->handlers = std::move(handlers);
  state->options = std::move(options);
  state->options.workers = std::max<size_t>(state->options.workers, 1);
  if (state->wake.get() < 0) {
    setError(error, ipmError(IpmErrorCode::kTransport, "Unable to create an event descriptor"));
    return nullptr;
  }
  state->bus = openBus(error);
  if (!state->bus) return nullptr;
  sd_bus_slot* slot = nullptr;
  int r = sd_bus_add_object_vtable(state->bus.get(), &slot, kObjectPath, kInterfaceName, kVtable,
                                   state.get());
  state->slot.reset(slot);
  if (r < 0) {
    setError(error,
             ipmError(IpmErrorCode::kTransport,
                      vl::format("Unable to register %s: %s", kObjectPath, errnoText(r).c_str())));
    return nullptr;
  }
  r = sd_bus_request_name(state->bus.get(), kServiceName, 0);
  if (r == -EEXIST) {
    setError(error, ipmError(IpmErrorCode::kNameTaken,
                             vl::format("Another process already owns %s", kServiceName)));
    return nullptr;
  }
  if (r < 0) {
    setError(error,
             ipmError(IpmErrorCode::kTransport,
                      vl::format("Unable to own %s: %s", kServiceName, errnoText(r).c_str())));
    return nullptr;
  }
  State* raw = state.get();
  state->loop = std::thread([raw] { raw->run(); });
  VLLog(VLLogLevelInfo, kCategory, "Serving %s on the %s bus", kServiceName,
        selectedBus() == BusKind::kSession ? "session" : "system");
  return std::unique_ptr<Service>(new Service(std::move(state)));
}

void Service::stop() { stop(std::chrono::milliseconds::max()); }

bool Service::stop(std::chrono::milliseconds bound) {
  std::lock_guard lock(state_->stopMutex);
  if (state_->abandoned) return false;
  if (!state_->loop.joinable()) return true;
  state_->stopping = true;
  state_->wakeLoop();
  {
    std::unique_lock doneLock(state_->doneMutex);
    auto isDone = [&] { return state_->done; };
    if (bound == std::chrono::milliseconds::max()) {
      state_->doneChanged.wait(doneLock, isDone);
    } else if (!state_->doneChanged.wait_for(doneLock, bound, isDone)) {
      state_->abandoned = true;
      VLLog(VLLogLevelError, kCategory, "Stopped waiting for the running requests of %s",
            kServiceName);
      return false;
    }
  }
  state_->loop.join();
  state_->slot.reset();
  state_->bus.reset();
  VLLog(VLLogLevelInfo, kCategory, "Stopped serving %s", kServiceName);
  return true;
}

size_t Service::answeredCount() const { return state_->answered; }

}  // namespace vl::ipm
