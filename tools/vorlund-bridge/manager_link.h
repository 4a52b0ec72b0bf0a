// The bridge's one connection to the run's manager: connects (again and again, with back-off),
// says hello first on every connection, sends the frames given to it in order, and hands every
// dictionary the manager sends to a handler. Frames given while the manager is unreachable wait in
// a bounded queue and go out after the next hello.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "vorlund/foundation/value.h"
#include "vorlund/hostlink/manager_frames.h"

namespace vl::bridge {

// Pause after a failed connection or a damaged one, doubling up to the maximum (nominal seconds,
// scaled); a connection that ends cleanly restarts at the first pause.
inline constexpr double kReconnectFirstPauseSeconds = 1;
inline constexpr double kReconnectLongestPauseSeconds = 30;
// How long a connection attempt may take before it counts as failed (nominal seconds, scaled).
inline constexpr double kConnectTimeoutSeconds = 10;

class ManagerLink {
 public:
  // Called on the link's own thread for each dictionary the manager sends, "BridgeRefused" apart
  // (that one is logged). It must not block: long work belongs on a worker.
  using MessageHandler = std::function<void(vl::Dictionary message)>;

  ManagerLink(ManagerAddress address, size_t queueLimit, MessageHandler onMessage);
  ~ManagerLink();
  ManagerLink(const ManagerLink&) = delete;
  ManagerLink& operator=(const ManagerLink&) = delete;

  void start();
  // Queues one payload for the manager; it is framed and sent as it is. When the queue holds
  // queueLimit frames already, the oldest is dropped (counted, and logged when the manager is
  // back).
  void send(vl::Data payload);
  // Closes the connection and ends both threads; frames still queued are logged as not sent.
  void stop();

 private:
  // How a connection ended, which decides the next pause.
  enum class Ending { Stopped, Closed, Damaged };

  void connectLoop();
  void sendLoop();
  int connectOnce();
  Ending readLoop(int descriptor);
  // Waits the nominal seconds (scaled); true when stopped meanwhile.
  bool pauseUnlessStopped(double seconds);
  void reportDrops();

  const ManagerAddress address_;
  const size_t queueLimit_;
  const MessageHandler onMessage_;
  const int stopFd_;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<vl::Data> queue_;
  uint64_t dropped_ = 0;
  uint64_t droppedUnreported_ = 0;
  int socket_ = -1;
  bool connected_ = false;
  bool writing_ = false;
  bool stopping_ = false;

  std::thread linkThread_;
  std::thread sendThread_;
};

}  // namespace vl::bridge
