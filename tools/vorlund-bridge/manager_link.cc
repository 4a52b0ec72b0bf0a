#include "manager_link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "bridge_log.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/results/execution.h"

namespace vl::bridge {

namespace {

// Waits for events on descriptor or for the stop descriptor; limit < 0 waits for ever. Returns
// the descriptor's events, 0 on time-out, -1 when stopped.
int waitFor(int descriptor, short events, int stopFd, int limitMilliseconds) {
  pollfd entries[2] = {{stopFd, POLLIN, 0}, {descriptor, events, 0}};
  for (;;) {
    int ready = ::poll(entries, 2, limitMilliseconds);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return events;  // let the call that follows report the failure
    if (entries[0].revents & POLLIN) return -1;
    return ready == 0 ? 0 : entries[1].revents;
  }
}

int milliseconds(double nominalSeconds) {
  auto scaled = std::chrono::ceil<std::chrono::milliseconds>(vl::time::scaled(nominalSeconds));
  return static_cast<int>(std::min<long long>(scaled.count(), 24LL * 3600 * 1000));
}

}  // namespace

ManagerLink::ManagerLink(ManagerAddress address, size_t queueLimit, MessageHandler onMessage)
    : address_(std::move(address)),
      queueLimit_(std::max<size_t>(queueLimit, 1)),
      onMessage_(std::move(onMessage)),
      stopFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ManagerLink::~ManagerLink() {
  stop();
  if (stopFd_ >= 0) ::close(stopFd_);
}

void ManagerLink::start() {
  linkThread_ = std::thread([this] { connectLoop(); });
  sendThread_ = std::thread([this] { sendLoop(); });
}

void ManagerLink::send(vl::Data payload) {
  std::lock_guard lock(mutex_);
  if (queue_.size() >= queueLimit_) {
    queue_.pop_front();
    ++dropped_;
    ++droppedUnreported_;
    VLLog(VLLogLevelDebug, kLogCategory,
          "The queue for the manager is full; dropped its oldest frame");
  }
  queue_.push_back(std::move(payload));
  changed_.notify_all();
}

void ManagerLink::stop() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_ && !linkThread_.joinable() && !sendThread_.joinable()) return;
    stopping_ = true;
    uint64_t one = 1;
    if (stopFd_ >= 0) (void)!::write(stopFd_, &one, sizeof one);
    // Wakes a read or write that is under way on the connection.
    if (socket_ >= 0) ::shutdown(socket_, SHUT_RDWR);
    changed_.notify_all();
  }
  if (linkThread_.joinable()) linkThread_.join();
  if (sendThread_.joinable()) sendThread_.join();
  std::lock_guard lock(mutex_);
  if (!queue_.empty()) {
    note(VLLogLevelError, "%zu frame(s) for the manager were not sent", queue_.size());
    queue_.clear();
  }
}

bool ManagerLink::pauseUnlessStopped(double seconds) {
  return waitFor(stopFd_, 0, stopFd_, milliseconds(seconds)) < 0;
}

void ManagerLink::reportDrops() {
  std::lock_guard lock(mutex_);
  if (droppedUnreported_ == 0) return;
  note(VLLogLevelError,
       "Dropped %llu frame(s) while the manager was unreachable (the queue holds %zu; %llu dropped "
       "in all)",
       static_cast<unsigned long long>(droppedUnreported_), queueLimit_,
       static_cast<unsigned long long>(dropped_));
  droppedUnreported_ = 0;
}

int ManagerLink::connectOnce() {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (int failure = ::getaddrinfo(address_.host.c_str(), nullptr, &hints, &found); failure != 0) {
    note(VLLogLevelError, "Unable to find the manager's host %@: %s", address_.host,
         ::gai_strerror(failure));
    return -1;
  }
  sockaddr_in peer = *reinterpret_cast<const sockaddr_in*>(found->ai_addr);
  ::freeaddrinfo(found);
  peer.sin_port = htons(static_cast<uint16_t>(address_.port));

  int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) {
    note(VLLogLevelError, "Unable to open a socket for the manager: %s", std::strerror(errno));
    return -1;
  }
  // Connecting without blocking, so that a stop does not wait for an unreachable host.
  int error = 0;
  if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
    error = errno;
    if (error == EINPROGRESS) {
      int events = waitFor(descriptor, POLLOUT, stopFd_, milliseconds(kConnectTimeoutSeconds));
      socklen_t size = sizeof error;
      if (events < 0) {
        ::close(descriptor);
        return -1;
      }
      if (events == 0) {
        error = ETIMEDOUT;
      } else if (::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
        error = errno;
      }
    }
  }
  if (error != 0) {
    note(VLLogLevelError, "Unable to reach the manager at %@:%d: %s", address_.host, address_.port,
         std::strerror(error));
    ::close(descriptor);
    return -1;
  }
  ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
  return descriptor;
}

void ManagerLink::connectLoop() {
  double pause = kReconnectFirstPauseSeconds;
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
    }
    int descriptor = connectOnce();
    bool greeted = false;
    if (descriptor >= 0) {
      std::optional<vl::Data> hello = VLConvertObjectToData(vl::Value(helloMessage()));
      greeted = hello && VLWriteDataToSocket(*hello, descriptor) ==
                             static_cast<ssize_t>(hello->size() + kFrameHeaderLength);
      if (!greeted) {
        note(VLLogLevelError, "Unable to send the hello to the manager at %@:%d", address_.host,
             address_.port);
        ::close(descriptor);
      }
    }
    if (!greeted) {
      if (pauseUnlessStopped(pause)) return;
      pause = std::min(pause * 2, kReconnectLongestPauseSeconds);
      continue;
    }

    {
      std::lock_guard lock(mutex_);
      socket_ = descriptor;
      connected_ = true;
      if (stopping_) ::shutdown(descriptor, SHUT_RDWR);
      changed_.notify_all();
    }
    note(VLLogLevelInfo, "Connected to the manager at %@:%d", address_.host, address_.port);
    reportDrops();

    Ending ending = readLoop(descriptor);
    {
      std::unique_lock lock(mutex_);
      connected_ = false;
      ::shutdown(descriptor, SHUT_RDWR);
      changed_.wait(lock, [this] { return !writing_; });
      socket_ = -1;
    }
    ::close(descriptor);
    note(VLLogLevelInfo, "Disconnected from the manager at %@:%d", address_.host, address_.port);
    if (ending == Ending::Stopped) return;
    pause = ending == Ending::Closed ? kReconnectFirstPauseSeconds
                                     : std::min(pause * 2, kReconnectLongestPauseSeconds);
    if (pauseUnlessStopped(pause)) return;
  }
}

ManagerLink::Ending ManagerLink::readLoop(int descriptor) {
  bool refusedHello = false;
  for (;;) {
    if (waitFor(descriptor, POLLIN, stopFd_, -1) < 0) return Ending::Stopped;
    Receipt receipt = receiveFrame(descriptor);
    if (receipt.status == ReceiptStatus::Closed) {
      return refusedHello ? Ending::Damaged : Ending::Closed;
    }
    std::string reason = std::move(receipt.reason);
    std::optional<vl::Dictionary> message;
    if (receipt.status == ReceiptStatus::Frame)
      message = decodeManagerFrame(receipt.payload, &reason);
    if (!message) {
      {
        std::lock_guard lock(mutex_);
        if (stopping_) return Ending::Stopped;
      }
      note(VLLogLevelError, "Dropping the connection to the manager: %@", reason);
      return Ending::Damaged;
    }
    if (message->get(kVLMessageKeyType) == vl::Value(kRefusedMessageType)) {
      note(VLLogLevelError, "The manager refused the bridge: %@",
           message->get(kErrorKey).stringOr("no reason given"));
      refusedHello = true;
      continue;
    }
    onMessage_(std::move(*message));
  }
}

void ManagerLink::sendLoop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopping_ || (connected_ && !queue_.empty()); });
    if (stopping_) return;
    vl::Data payload = std::move(queue_.front());
    queue_.pop_front();
    const int descriptor = socket_;
    writing_ = true;
    lock.unlock();
    const ssize_t written = VLWriteDataToSocket(payload, descriptor);
    const int failure = errno;
    lock.lock();
    writing_ = false;
    changed_.notify_all();
    if (written == static_cast<ssize_t>(payload.size() + kFrameHeaderLength)) continue;
    if (written < 0) {
      // Nothing of it went out: it goes first on the next connection.
      queue_.push_front(std::move(payload));
    } else {
      ++dropped_;
      ++droppedUnreported_;
    }
    note(VLLogLevelError, "Sending a frame to the manager failed: %s",
         written < 0 ? std::strerror(failure) : "short write");
    // The reader sees the end of the connection and reconnects.
    if (connected_ && socket_ == descriptor) {
      connected_ = false;
      ::shutdown(descriptor, SHUT_RDWR);
    }
  }
}

}  // namespace vl::bridge
