// Which interface reaches a host, for callers that ping without naming one (VLPing takes a missing
// interface as a request for IPv6). Reads the interface list (getifaddrs) and the kernel's IPv4
// routing table (/proc/net/route).
#pragma once

#include <optional>
#include <string>

namespace vl::network {

struct DefaultRoute {
  std::string interface;
  std::string gateway;  // dotted IPv4 address
};

// The IPv4 default route with the lowest metric, or none when the table has none or cannot be read.
std::optional<DefaultRoute> defaultRoute();

// The interface that sends to host (a name or dotted address, resolved for IPv4 only): the one
// whose IPv4 network holds the address (loopback included), else the default route's interface.
// None when the host has no IPv4 address or nothing routes to it.
std::optional<std::string> interfaceForIPv4Host(const std::string& host);

}  // namespace vl::network
