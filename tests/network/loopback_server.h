// Servers the network tests run on loopback: a free port, a server program owned by the test
// (its own process group, a deadline of its own through timeout(1), killed with the test even when
// an assertion fails), and a socket that accepts connections and never answers.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "support/test_support.h"
#include "vorlund/devicetools/shell.h"

namespace vl::test {

// Whether a TCP socket listens on port, read from the kernel's tables (state 0A) so that no probe
// connection disturbs the server.
inline bool isListening(int port) {
  char wanted[24];
  std::snprintf(wanted, sizeof wanted, ":%04X 00000000", port);
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::string text = readFile(table);
    for (size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1)) {
      size_t state = text.find(' ', at + 6) + 1;  // after the remote address
      if (text.compare(state, 2, "0A") == 0) return true;
    }
  }
  return false;
}

inline bool waitUntilListening(int port) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!isListening(port) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return isListening(port);
}

// A server command in its own process group, ended after 120 s or with the object.
class ServerProcess {
 public:
  explicit ServerProcess(const std::string& command)
      : task_(VLCreateBashCommand("exec timeout 120 " + command + " >/dev/null 2>&1")) {
    task_->setStandardOutput(nullptr);
    task_->setStandardError(nullptr);
    task_->launch();
  }
  bool isRunning() const { return task_->isRunning(); }

 private:
  std::shared_ptr<Task> task_;
};

// A listening socket whose connections the kernel accepts and nobody ever reads or answers.
class SilentServer {
 public:
  SilentServer() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(fd_, 16);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~SilentServer() { close(fd_); }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;
  int port() const { return port_; }

 private:
  int fd_;
  int port_ = 0;
};

// A port nobody listens on right now (the kernel's choice for a bound, then closed, socket).
inline int freePort() { return SilentServer().port(); }

}  // namespace vl::test
