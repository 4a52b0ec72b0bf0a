// The manager's network loop: listens on one IPv4 address and port, and gives every accepted
// bridge a thread of its own that reads its frames and hands them to the Manager. A slow or silent
// bridge therefore stalls only its own thread; answers to it are queued on its connection.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "connection.h"
#include "manager.h"

namespace manager {

inline constexpr int kDefaultManagerPort = 3002;
// A connection must send its hello or status request within this long (nominal seconds, scaled).
inline constexpr double kFirstMessageSeconds = 30;

class Server {
 public:
  explicit Server(Manager& manager) : manager_(manager) {}
  // Closes every connection and waits for their threads.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds address (dotted quad; "0.0.0.0" is every interface) and port (0: the kernel picks one)
  // and listens. False, logged, when the address is not an IPv4 address or the port is taken.
  bool listen(const std::string& address, int port);
  // The port listened on, once listen() has succeeded.
  int port() const { return port_; }

  // Accepts bridges until stopDescriptor becomes readable (a signalfd in the program), then closes
  // every connection, waits for their threads and returns.
  void run(int stopDescriptor);

 private:
  struct Session {
    std::shared_ptr<Connection> connection;
    std::thread thread;
    std::atomic<bool> done{false};
  };
  void serve(const std::shared_ptr<Connection>& connection);
  // Joins the threads of sessions that have ended.
  void reap();
  void closeAll();

  Manager& manager_;
  int listener_ = -1;
  int port_ = -1;
  std::list<Session> sessions_;
};

}  // namespace manager
