// Servers the network tests run on loopback: a free port, a server program owned by the test
// (its own process group, a deadline of its own through timeout(1), killed with the test even when
// an assertion fails), and a socket that accepts connections and never answers.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "vorlund/devicetools/shell.h"

namespace vl::test {

// Whether a TCP socket listens on port, read from the kernel's tables so that no probe connection
// disturbs the server.
inline bool isListening(int port) {
  char wanted[16];
  std::snprintf(wanted, sizeof wanted, ":%04X", port);
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream file(table);
    std::string sl, local, remote, state;
    std::string line;
    std::getline(file, line);
    while (file >> sl >> local >> remote >> state) {
      if (state == "0A" && local.size() > 5 && local.substr(local.size() - 5) == wanted) {
        return true;
      }
      std::getline(file, line);
    }
  }
  return false;
}

inline bool waitUntilListening(int port, std::chrono::seconds limit = std::chrono::seconds(10)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!isListening(port)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// A server command run for the test: at most 120 s, killed with its group when the object dies.
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
  SilentServer() {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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
  int fd_ = -1;
  int port_ = 0;
};

// A port nobody listens on right now (the kernel's choice for a bound, then closed, socket).
inline int freePort() { return SilentServer().port(); }

}  // namespace vl::test
