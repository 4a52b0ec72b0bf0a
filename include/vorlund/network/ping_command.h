// The ping command line for the kinds of ping a Linux machine may have. VLPing's options are those
// of a BSD-style ping; iputils (Debian's) and BusyBox spell some of them differently or lack them.
// Building a command is a pure function of the kind and the options, so every kind is testable
// without that ping installed; which kind this machine has is found once per process.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vl::network {

enum class PingFlavour {
  kIputils,   // Linux iputils: "ping -V" prints "ping from iputils ..."
  kBusyBox,   // BusyBox's applet: rejects -V and prints its "BusyBox v..." banner
  kBsdStyle,  // anything else: the BSD options (-k traffic class, -b interface, ping6)
};

// "iputils", "BusyBox" or "BSD-style".
std::string_view pingFlavourName(PingFlavour flavour);

// The kind of ping whose "ping -V" output (standard output and error together) is text.
PingFlavour pingFlavourFromVersionOutput(std::string_view text);

// The kind of the "ping" on PATH, found on the first call by running "ping -V" through the shell
// runner (10 s time-out) and kept for the life of the process.
PingFlavour detectedPingFlavour();

struct PingOptions {
  std::string host;
  bool ipv6 = false;
  // A traffic class number of VLPing::_convertAccessClassStringToInt (0 to 3), if any.
  std::optional<int> trafficClass = std::nullopt;
  std::optional<std::string> interface = std::nullopt;
  bool flood = false;
  double interval = 1.0;
  int64_t count = 10;
  int64_t size = 56;
};

// The IPv4 type-of-service byte (IPv6 traffic class) iputils is given for a traffic class, so that
// the 802.11 stack queues the packets in that access category. The values are class-selector code
// points whose precedence bits are a user priority of the category, which Linux's precedence
// mapping and the RFC 8325 mapping both put in the same category:
//   0 BE -> 0x00 (CS0, UP 0)   1 BK -> 0x20 (CS1, UP 1)
//   2 VI -> 0xA0 (CS5, UP 5)   3 VO -> 0xC0 (CS6, UP 6 or 7)
// -1 for any other number.
int trafficClassTypeOfService(int trafficClass);

// The command line for that kind of ping; the host and interface are quoted for bash when they hold
// anything but plain characters. Numbers print as "%ld" and the interval as "%f" ("1.000000").
// - BSD-style: "ping -q" or "ping6 -q", " -k CLASS", " -b IF" (IPv4) or " -I IF" (IPv6), " -f" or
//   " -i INTERVAL", " -c COUNT -s SIZE HOST": the default run reads
//   "ping -q -i 1.000000 -c 10 -s 56 HOST".
// - iputils: "ping -q" or "ping -6 -q", " -Q TOS" (trafficClassTypeOfService), " -I IF" for both
//   families, then as BSD-style.
// - BusyBox: as iputils, except that it cannot set a traffic class (left out) and has no flood
//   mode: " -A" (send as soon as each reply arrives) stands in for " -f".
std::string pingCommand(PingFlavour flavour, const PingOptions& options);

}  // namespace vl::network
