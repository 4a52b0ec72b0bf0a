// The manager's message handling: hellos and their tokens, which connection speaks for which
// device, the manager commands, the routing of test case requests and their replies, and host
// ("king") requests. The network loop (server.h) feeds it every message a bridge sends; it answers
// through the connections it knows. Thread-safe: each connection's thread calls it at once.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "connection.h"
#include "device_registry.h"
#include "king_handler.h"
#include "test_case_routes.h"
#include "vorlund/foundation/value.h"

namespace manager {

inline constexpr const char* kKingIdentifier = "com.brindle.Vorlund.king";

struct ManagerSettings {
  // When set, a hello must carry this "Token".
  std::optional<std::string> token;
  // When set, the program that answers host requests (king_handler.h).
  std::optional<std::string> kingHandler;
  double kingDeadlineSeconds = kDefaultKingDeadlineSeconds;
};

class Manager {
 public:
  explicit Manager(ManagerSettings settings);

  // A bridge's first message, {"MessageType": "BridgeHello", ...}. Returns true when the device
  // is now connected through connection (replacing, and closing, an older connection of the same
  // serial number). Otherwise the connection has been sent {"MessageType": "BridgeRefused",
  // "error"} (no "RequestingDevice", wrong or missing token) and the caller finishes it.
  bool hello(const std::shared_ptr<Connection>& connection, const vl::Dictionary& message);

  // Every later message of a connected bridge. Never blocks on other devices: answers are queued
  // on the connections, and host requests run on threads of their own.
  void handleMessage(const std::shared_ptr<Connection>& connection, const vl::Dictionary& message);

  // The connection has ended. When it was its device's current one the device is marked
  // disconnected and every test case request still waiting for it is answered with an error.
  void connectionEnded(const std::shared_ptr<Connection>& connection);

  // {"MessageType": "Status", "Devices": [...]} (DeviceRegistry::status).
  vl::Dictionary statusMessage() const;

  // Kills the running host handlers and waits for them; later host requests fail.
  void stop();

 private:
  void handleCommand(const std::shared_ptr<Connection>& connection, const std::string& requester,
                     const vl::Dictionary& message);
  void runTestCase(const std::shared_ptr<Connection>& connection, const std::string& requester,
                   const vl::Value& uuid, const vl::Dictionary& command);
  void relayTestCaseRequest(const std::shared_ptr<Connection>& connection,
                            const std::string& requester, const vl::Dictionary& message);
  void handleKingRequest(const std::shared_ptr<Connection>& connection,
                         const std::string& requester, const vl::Dictionary& message);
  void deliverReply(const std::string& device, const TestCaseRoute& route,
                    const vl::Dictionary& reply);
  // Answers a route whose device went away (or could not be reached) with reason.
  void failRoute(const std::string& device, const TestCaseRoute& route, const std::string& reason);

  // Queues message for the device's current connection; false when it has none.
  bool sendTo(const std::string& serialNumber, const vl::Dictionary& message);

  const ManagerSettings settings_;
  DeviceRegistry registry_;
  TestCaseRoutes routes_;
  std::unique_ptr<KingHandler> king_;

  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Connection>> connections_;
};

// The answer of a test case request that could not run: {"UUID": uuid, "Result": the archive of
// a failed VLTestCaseResult named testCaseName whose reason is reason}.
vl::Dictionary failedTestCaseReply(const vl::Value& uuid, const std::string& testCaseName,
                                   const std::string& reason);

}  // namespace manager
