// Loopback connections for the transport tests: a free port, and a connected pair of descriptors
// made by the real server loop and client.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <utility>

#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/hostlink/socket_server.h"

namespace vl::test {

class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : fd_(fd) {}
  ScopedFd(ScopedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    reset();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  ~ScopedFd() { reset(); }
  int get() const { return fd_; }
  // For descriptors something else has closed already.
  int release() { return std::exchange(fd_, -1); }
  void reset() {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }

 private:
  int fd_;
};

// A port that nothing listens on right now.
inline int freePort() {
  ScopedFd probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (::bind(probe.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      ::getsockname(probe.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return -1;
  }
  return ntohs(address.sin_port);
}

struct ConnectedPair {
  ScopedFd client;
  ScopedFd server;
};

// A client descriptor and the descriptor the server loop accepted for it.
inline ConnectedPair connectedPair() {
  std::promise<int> accepted;
  std::future<int> acceptedFd = accepted.get_future();
  bool handed = false;
  vl::ServerThread server(0, false, [&](int fd) {
    if (!handed) accepted.set_value(fd);
    handed = true;
  });
  ConnectedPair pair{ScopedFd(VLGetClientForServer("127.0.0.1", server.port(), 1)), ScopedFd()};
  EXPECT_GE(pair.client.get(), 0);
  if (acceptedFd.wait_for(std::chrono::seconds(10)) == std::future_status::ready) {
    pair.server = ScopedFd(acceptedFd.get());
  }
  return pair;
}

}  // namespace vl::test
