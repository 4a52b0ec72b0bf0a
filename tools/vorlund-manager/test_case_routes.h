// The test case requests the manager has sent to a device and not yet seen answered: who asked,
// under which UUID, and how the answer goes back. A device's reply {"UUID", "Result"} is matched
// by the device's serial number and the UUID of the request it was sent.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vorlund/foundation/value.h"

namespace manager {

// A route left unanswered this long (nominal seconds, scaled) is forgotten, so that a device that
// swallows requests does not make the table grow for ever; a late reply is then ignored.
inline constexpr double kRouteLifetimeSeconds = 24 * 3600;

struct TestCaseRoute {
  std::string requester;  // serial number of the device that asked
  vl::Value answerUUID;   // the UUID the answer carries: the request's own
  // A "RunTestCase" command, answered as a "ManagerCommandResult"; otherwise a "TestCaseRequest"
  // relayed device to device, whose reply goes back as it came.
  bool managerCommand = false;
  std::string testCaseName;
};

class TestCaseRoutes {
 public:
  // Remembers a request sent to device under requestUUID.
  void add(const std::string& device, const std::string& requestUUID, TestCaseRoute route);
  // The route of device's reply to requestUUID, removed; none when there is none.
  std::optional<TestCaseRoute> take(const std::string& device, const std::string& requestUUID);
  // Every route still waiting for device, removed: the device has gone away.
  std::vector<TestCaseRoute> takeAll(const std::string& device);

 private:
  struct Entry {
    TestCaseRoute route;
    std::chrono::steady_clock::time_point added;
  };
  std::mutex mutex_;
  std::map<std::pair<std::string, std::string>, Entry> routes_;
};

}  // namespace manager
