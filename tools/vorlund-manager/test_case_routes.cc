#include "test_case_routes.h"

#include "manager_log.h"
#include "vorlund/foundation/time_scale.h"

namespace manager {

void TestCaseRoutes::add(const std::string& device, const std::string& requestUUID,
                         TestCaseRoute route) {
  auto now = std::chrono::steady_clock::now();
  auto lifetime = vl::time::scaled(kRouteLifetimeSeconds);
  std::lock_guard lock(mutex_);
  std::erase_if(routes_, [&](const auto& entry) {
    if (now - entry.second.added < lifetime) return false;
    log(VLLogLevelNotice, "Forgetting test case %s sent to %s: no reply in %.0f seconds",
        entry.second.route.testCaseName, entry.first.first, kRouteLifetimeSeconds);
    return true;
  });
  routes_[{device, requestUUID}] = Entry{std::move(route), now};
}

std::optional<TestCaseRoute> TestCaseRoutes::take(const std::string& device,
                                                  const std::string& requestUUID) {
  std::lock_guard lock(mutex_);
  auto it = routes_.find({device, requestUUID});
  if (it == routes_.end()) return std::nullopt;
  TestCaseRoute route = std::move(it->second.route);
  routes_.erase(it);
  return route;
}

std::vector<TestCaseRoute> TestCaseRoutes::takeAll(const std::string& device) {
  std::lock_guard lock(mutex_);
  std::vector<TestCaseRoute> taken;
  for (auto it = routes_.lower_bound({device, ""});
       it != routes_.end() && it->first.first == device;) {
    taken.push_back(std::move(it->second.route));
    it = routes_.erase(it);
  }
  return taken;
}

}  // namespace manager
