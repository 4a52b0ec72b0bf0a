// The two relays of the bridge: the gateway, which takes frames from device-side processes and
// passes them on to the manager unchanged, and the service relay, which hands the manager's
// messages to the stress service and passes its replies back.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "vorlund/foundation/value.h"
#include "vorlund/hostlink/socket_server.h"
#include "workers.h"

namespace vl::bridge {

// A device-side connection that sends no frame within this time is closed (nominal seconds,
// scaled), so that a silent client holds nothing but its own worker, and that not for long.
inline constexpr double kDeviceReadTimeoutSeconds = 30;
// Device connections served at once; the accept loop waits for a free worker beyond that.
inline constexpr size_t kDeviceWorkers = 64;
// Messages of the manager in the stress service at once; reading the manager waits beyond that.
inline constexpr size_t kServiceWorkers = 64;

class DeviceGateway {
 public:
  using Relay = std::function<void(vl::Data payload)>;
  explicit DeviceGateway(Relay relay);
  ~DeviceGateway();
  DeviceGateway(const DeviceGateway&) = delete;
  DeviceGateway& operator=(const DeviceGateway&) = delete;

  // Serves port on loopback (VLCreateServer), on a thread of its own.
  void start(int port);
  // Stops accepting, ends every open connection and waits for their workers.
  void stop();

 private:
  void accept(int descriptor);
  void serve(int descriptor);

  const Relay relay_;
  WorkerSet workers_{kDeviceWorkers};
  std::unique_ptr<vl::ServerThread> server_;
  std::mutex mutex_;
  // Open connections by descriptor, so that stop() can end their reads.
  std::map<int, int> open_;
  bool stopping_ = false;
};

class ServiceRelay {
 public:
  using Reply = std::function<void(vl::Data payload)>;
  explicit ServiceRelay(Reply reply) : reply_(std::move(reply)) {}

  // Sends message to the stress service on a worker of its own (a test case may run for hours);
  // a non-empty reply goes to reply as one archived dictionary.
  void deliver(vl::Dictionary message);
  // Takes no more messages and waits up to wait for those in the service; false when some are
  // still there.
  bool stop(std::chrono::nanoseconds wait) { return workers_.close(wait); }
  size_t pending() const { return workers_.running(); }

 private:
  void exchange(const vl::Dictionary& message);

  const Reply reply_;
  WorkerSet workers_{kServiceWorkers};
};

}  // namespace vl::bridge
