#include "vorlund/network/routes.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstdint>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>

namespace vl::network {

namespace {

constexpr const char* kRouteTable = "/proc/net/route";

std::string dotted(in_addr address) {
  char text[INET_ADDRSTRLEN] = {};
  return inet_ntop(AF_INET, &address, text, sizeof text) ? text : "";
}

std::optional<in_addr> resolveIPv4(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || !found) return std::nullopt;
  std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(found, freeaddrinfo);
  return reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
}

}  // namespace

std::optional<DefaultRoute> defaultRoute() {
  std::ifstream table(kRouteTable);
  std::string line;
  std::getline(table, line);  // the column names
  std::optional<DefaultRoute> best;
  unsigned long bestMetric = std::numeric_limits<unsigned long>::max();
  while (std::getline(table, line)) {
    // Iface Destination Gateway Flags RefCnt Use Metric Mask ..., addresses in host-order hex of
    // the network-order bytes.
    std::istringstream fields(line);
    std::string name;
    unsigned long destination = 1, gateway = 0, flags = 0, refCount = 0, use = 0, metric = 0;
    fields >> name >> std::hex >> destination >> gateway >> flags >> std::dec >> refCount >> use >>
        metric;
    constexpr unsigned long kRouteUp = 0x1;
    if (!fields || destination != 0 || !(flags & kRouteUp) || metric >= bestMetric) continue;
    bestMetric = metric;
    best = DefaultRoute{name, dotted(in_addr{static_cast<in_addr_t>(gateway)})};
  }
  return best;
}

std::optional<std::string> interfaceForIPv4Host(const std::string& host) {
  std::optional<in_addr> address = resolveIPv4(host);
  if (!address) return std::nullopt;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) == 0) {
    std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owned(list, freeifaddrs);
    for (ifaddrs* entry = list; entry; entry = entry->ifa_next) {
      if (!entry->ifa_addr || !entry->ifa_netmask || entry->ifa_addr->sa_family != AF_INET) {
        continue;
      }
      in_addr_t own = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr.s_addr;
      in_addr_t mask = reinterpret_cast<const sockaddr_in*>(entry->ifa_netmask)->sin_addr.s_addr;
      if ((own & mask) == (address->s_addr & mask)) return std::string(entry->ifa_name);
    }
  }
  std::optional<DefaultRoute> route = defaultRoute();
  if (!route) return std::nullopt;
  return route->interface;
}

}  // namespace vl::network
