#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "manager_log.h"

namespace manager {

Server::~Server() {
  closeAll();
  if (listener_ >= 0) ::close(listener_);
}

bool Server::listen(const std::string& address, int port) {
  sockaddr_in socketAddress{};
  socketAddress.sin_family = AF_INET;
  socketAddress.sin_port = htons(static_cast<uint16_t>(port));
  if (port < 0 || port > 65535 || inet_pton(AF_INET, address.c_str(), &socketAddress.sin_addr) != 1) {
    log(VLLogLevelError, "Cannot listen on %s:%d: not an IPv4 address and port", address, port);
    return false;
  }
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  if (listener_ < 0 || setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::bind(listener_, reinterpret_cast<sockaddr*>(&socketAddress), sizeof socketAddress) != 0 ||
      ::listen(listener_, 50) != 0) {
    log(VLLogLevelError, "Cannot listen on %s:%d: %s", address, port, std::strerror(errno));
    return false;
  }
  socklen_t length = sizeof socketAddress;
  getsockname(listener_, reinterpret_cast<sockaddr*>(&socketAddress), &length);
  port_ = ntohs(socketAddress.sin_port);
  log(VLLogLevelInfo, "Listening on %s:%d", address, port_);
  return true;
}

void Server::run(int stopDescriptor) {
  pollfd entries[2] = {{listener_, POLLIN, 0}, {stopDescriptor, POLLIN, 0}};
  for (;;) {
    if (::poll(entries, 2, -1) < 0) {
      if (errno == EINTR) continue;
      log(VLLogLevelError, "Waiting for bridges failed: %s", std::strerror(errno));
      break;
    }
    if (entries[1].revents) break;
    if (!entries[0].revents) continue;
    sockaddr_in peerAddress{};
    socklen_t length = sizeof peerAddress;
    int descriptor = ::accept4(listener_, reinterpret_cast<sockaddr*>(&peerAddress), &length,
                               SOCK_CLOEXEC);
    if (descriptor < 0) continue;  // the peer gave up before it was accepted, or no descriptors
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &peerAddress.sin_addr, text, sizeof text);
    auto connection = std::make_shared<Connection>(
        descriptor, std::string(text) + ":" + std::to_string(ntohs(peerAddress.sin_port)));
    reap();
    Session& session = sessions_.emplace_back();
    session.connection = connection;
    session.thread = std::thread([this, &session, connection] {
      serve(connection);
      connection->close();
      session.done = true;
    });
  }
  closeAll();
}

void Server::serve(const std::shared_ptr<Connection>& connection) {
  std::optional<vl::Dictionary> first = connection->readMessage(kFirstMessageSeconds);
  if (!first) {
    log(VLLogLevelDebug, "%s left without a word", connection->peer());
    return;
  }
  const vl::Value& type = first->get("MessageType");
  if (type == vl::Value("StatusRequest")) {
    connection->send(manager_.statusMessage());
    connection->finish();
    log(VLLogLevelDebug, "Answered a status request from %s", connection->peer());
    return;
  }
  if (type != vl::Value("BridgeHello")) {
    log(VLLogLevelError, "Dropping %s: its first message is not a hello: %@", connection->peer(),
        *first);
    return;
  }
  if (!manager_.hello(connection, *first)) {
    connection->finish();
    return;
  }
  while (std::optional<vl::Dictionary> message = connection->readMessage()) {
    manager_.handleMessage(connection, *message);
  }
  connection->close();
  manager_.connectionEnded(connection);
}

void Server::reap() {
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    if (it->done) {
      it->thread.join();
      it = sessions_.erase(it);
    } else {
      ++it;
    }
  }
}

void Server::closeAll() {
  for (Session& session : sessions_) session.connection->close();
  for (Session& session : sessions_) {
    if (session.thread.joinable()) session.thread.join();
  }
  sessions_.clear();
}

}  // namespace manager
