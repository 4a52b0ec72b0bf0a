// One bridge's TCP connection to the manager, in the project's framing. Reading happens on the
// connection's own thread (the server's), writing on a writer thread of its own behind a queue, so
// that a peer that stops reading holds up nobody but itself: sending to it only queues.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "vorlund/foundation/value.h"
#include "vorlund/hostlink/manager_frames.h"

namespace manager {

// Frames waiting for one peer beyond which the peer is taken to be stuck and is dropped.
inline constexpr size_t kMaximumQueuedFrames = 1000;
// A frame write that makes no progress for this long (nominal seconds, scaled) drops the peer.
inline constexpr double kSendTimeoutSeconds = 10;

class Connection {
 public:
  // Takes ownership of the connected descriptor; peer names the other end in log lines.
  Connection(int descriptor, std::string peer);
  // Closes the connection and waits for its writer.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  const std::string& peer() const { return peer_; }
  // The device that said hello on this connection; "" before.
  std::string serialNumber() const;
  void setSerialNumber(const std::string& serialNumber);

  // The next message, a dictionary. None when the connection has ended: the peer closed it, it was
  // closed here, or the peer sent what is not a message (a header that is not eight digits, a
  // length over the framing's limit, a truncated frame, a payload that does not decode to a
  // dictionary), which is logged and leaves the connection unusable. With firstByteSeconds > 0
  // (nominal, scaled) a peer that sends nothing for that long is logged and dropped as well. Called
  // by one thread at a time.
  std::optional<vl::Dictionary> readMessage(double firstByteSeconds = 0);

  // Queues message for the peer. False when the connection is closing or the message cannot be
  // archived (logged). A peer with kMaximumQueuedFrames frames waiting is dropped.
  bool send(const vl::Dictionary& message);
  // Writes out what is queued, then closes: the end of a refusal or of a status answer.
  void finish();
  // Closes now: a read blocked on the connection returns none, queued frames are dropped.
  void close();

 private:
  void writeLoop();
  // Logs why a frame was refused, in the manager's words.
  void logRefusal(const vl::bridge::Receipt& receipt);

  const int descriptor_;
  const std::string peer_;

  mutable std::mutex mutex_;
  std::condition_variable queueChanged_;
  std::deque<vl::Data> queue_;
  bool closing_ = false;
  bool finishing_ = false;
  std::string serialNumber_;
  std::thread writer_;
};

}  // namespace manager
