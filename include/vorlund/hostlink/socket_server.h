// The listening side of the framed socket transport: a blocking accept loop that hands every
// accepted connection to a handler on the server's own thread, one connection at a time.
//
// VLCreateServer never returns on its own while connections keep coming. Give it a ServerControl to
// stop it from another thread, or run it in a ServerThread, which stops and joins it when destroyed:
// no caller should ever leave a thread blocked in accept.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

// Receives one accepted descriptor and owns it (reads, replies, closes). It also receives -1 when
// an accept fails: the loop passes failures on like connections and goes on.
using VLConnectionHandler = std::function<void(int descriptor)>;

namespace vl {

// Pause between two bind attempts of a server whose port is taken (nominal seconds, scaled).
inline constexpr double kServerBindRetrySeconds = 10;
inline constexpr int kListenBacklog = 50;
inline constexpr int kBridgeListenBacklog = 200;

class ServerControl;

}  // namespace vl

// Serves port on 127.0.0.1, or on every interface when listenOnAllInterfaces is non-zero (IPv4 only).
// While bind fails it logs "Unable to bind to %d.  Trying again in 10 seconds" (level 16) and tries
// again every kServerBindRetrySeconds (scaled), without limit. It listens with a backlog of
// kBridgeListenBacklog in the process "VorlundBridge" and kListenBacklog elsewhere, logs "Starting
// server at %d with file descriptor %d" (level 0; with port 0 the port the kernel chose), then
// accepts and calls handler until accept returns descriptor 0. Then it closes the listening socket;
// a failing close logs "Socket close failure... %d" at level 0. A socket that cannot be made logs
// "Unable to open socket at port %d" (level 16) and returns at once.
void VLCreateServer(int port, int listenOnAllInterfaces, const VLConnectionHandler& handler);

// The same loop, which also returns, closing its listening socket, once control.stop() is called
// from any thread: while it waits for a connection or between bind attempts (a handler that is
// running is not interrupted). A control already stopped returns before binding.
void VLCreateServer(int port, int listenOnAllInterfaces, const VLConnectionHandler& handler,
                    vl::ServerControl& control);

namespace vl {

// The stop switch and start-up signal of one server loop. Thread-safe; use one per server run.
class ServerControl {
 public:
  ServerControl();
  ~ServerControl();
  ServerControl(const ServerControl&) = delete;
  ServerControl& operator=(const ServerControl&) = delete;

  // Asks the server to return; idempotent, callable before the server starts.
  void stop();
  bool isStopped() const;
  // Waits until the server listens (its port, the kernel's choice when started on port 0) or is
  // stopped (-1). seconds is real time, not scaled; -1 as well when it passes first.
  int waitUntilListening(double seconds) const;

 private:
  friend void ::VLCreateServer(int, int, const VLConnectionHandler&, ServerControl&);
  void setListening(int port);
  // An eventfd that becomes readable on stop(), so that the server can wait on it beside accept.
  int stopDescriptor() const { return stopFd_; }

  int stopFd_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  int port_ = -1;
  bool stopped_ = false;
};

// A server loop on a thread of its own, stopped and joined when the object dies.
class ServerThread {
 public:
  ServerThread(int port, bool listenOnAllInterfaces, VLConnectionHandler handler);
  ~ServerThread();
  ServerThread(const ServerThread&) = delete;
  ServerThread& operator=(const ServerThread&) = delete;

  // The port being served, waiting up to seconds (real time) for the server to listen; -1 when it
  // does not (port taken, stopped).
  int port(double seconds = 10) const { return control_.waitUntilListening(seconds); }
  // Stops the loop and waits for it; the handler's current connection is finished first.
  void stop();

 private:
  ServerControl control_;
  std::thread thread_;
};

}  // namespace vl
