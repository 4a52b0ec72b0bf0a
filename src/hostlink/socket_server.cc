// The listening side of the framed socket transport, and its stop switch.
#include "vorlund/hostlink/socket_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "hostlink/descriptor_wait.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kCategory = "Framework";

// Pauses for the nominal seconds (scaled); true when stopped meanwhile.
bool sleepUnlessStopped(double seconds, int stopDescriptor) {
  if (stopDescriptor < 0) {
    vl::time::sleepFor(seconds);
    return false;
  }
  return vl::hostlink::waitUntilReadable(stopDescriptor, vl::time::scaled(seconds));
}

// Waits until a connection is waiting on the listener (true) or the stop descriptor turns readable
// (false).
bool waitForConnection(int listener, int stopDescriptor) {
  pollfd entries[2] = {{stopDescriptor, POLLIN, 0}, {listener, POLLIN, 0}};
  for (;;) {
    int ready = ::poll(entries, 2, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready > 0 && (entries[0].revents & POLLIN)) return false;
    // Anything else, a poll failure included, goes on to accept, whose result the handler gets.
    return true;
  }
}

int boundPort(int listener, int requested) {
  sockaddr_in bound{};
  socklen_t size = sizeof bound;
  if (::getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &size) != 0) return requested;
  return ntohs(bound.sin_port);
}

void serve(int port, int listenOnAllInterfaces, const VLConnectionHandler& handler,
           int stopDescriptor, const std::function<void(int)>& listening) {
  int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) {
    VLLog(VLLogLevelError, kCategory, "Unable to open socket at port %d", port);
    return;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(listenOnAllInterfaces != 0 ? INADDR_ANY : INADDR_LOOPBACK);
  int on = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);

  bool stopped = false;
  while (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    VLLog(VLLogLevelError, kCategory, "Unable to bind to %d.  Trying again in 10 seconds", port);
    if (sleepUnlessStopped(vl::kServerBindRetrySeconds, stopDescriptor)) {
      stopped = true;
      break;
    }
  }
  if (!stopped) {
    int backlog = vl::process::name() == vl::kBridgeProcessName ? vl::kBridgeListenBacklog
                                                                 : vl::kListenBacklog;
    ::listen(listener, backlog);
    int served = boundPort(listener, port);
    VLLog(VLLogLevelInfo, kCategory, "Starting server at %d with file descriptor %d", served,
          listener);
    listening(served);
    // Descriptor 0 ends the loop and a failed accept (-1) goes to the handler like a connection:
    // callers have always relied on exactly this, so it stays.
    for (;;) {
      if (stopDescriptor >= 0 && !waitForConnection(listener, stopDescriptor)) break;
      int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection == 0) break;
      handler(connection);
    }
  }
  if (::close(listener) != 0) {
    VLLog(VLLogLevelInfo, kCategory, "Socket close failure... %d", errno);
  }
}

}  // namespace

void VLCreateServer(int port, int listenOnAllInterfaces, const VLConnectionHandler& handler) {
  serve(port, listenOnAllInterfaces, handler, -1, [](int) {});
}

void VLCreateServer(int port, int listenOnAllInterfaces, const VLConnectionHandler& handler,
                    vl::ServerControl& control) {
  if (control.isStopped()) return;
  serve(port, listenOnAllInterfaces, handler, control.stopDescriptor(),
        [&control](int served) { control.setListening(served); });
  // A server that ends on its own (descriptor 0) no longer listens either.
  control.stop();
}

namespace vl {

ServerControl::ServerControl() : stopFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ServerControl::~ServerControl() {
  if (stopFd_ >= 0) ::close(stopFd_);
}

void ServerControl::stop() {
  std::lock_guard lock(mutex_);
  if (stopped_) return;
  stopped_ = true;
  uint64_t one = 1;
  if (stopFd_ >= 0) (void)!::write(stopFd_, &one, sizeof one);
  changed_.notify_all();
}

bool ServerControl::isStopped() const {
  std::lock_guard lock(mutex_);
  return stopped_;
}

int ServerControl::waitUntilListening(double seconds) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                    [this] { return stopped_ || port_ >= 0; });
  return stopped_ || port_ < 0 ? -1 : port_;
}

void ServerControl::setListening(int port) {
  std::lock_guard lock(mutex_);
  port_ = port;
  changed_.notify_all();
}

ServerThread::ServerThread(int port, bool listenOnAllInterfaces, VLConnectionHandler handler)
    : thread_([this, port, listenOnAllInterfaces, handler = std::move(handler)] {
        VLCreateServer(port, listenOnAllInterfaces ? 1 : 0, handler, control_);
      }) {}

ServerThread::~ServerThread() { stop(); }

void ServerThread::stop() {
  control_.stop();
  if (thread_.joinable()) thread_.join();
}

}  // namespace vl
