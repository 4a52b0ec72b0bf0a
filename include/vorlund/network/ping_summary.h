// The summary parser of ping output: text in, statistics record out, no I/O. It reads the summary
// that follows the "--- HOST ping statistics ---" line of every ping this system meets:
//   iputils  "N packets transmitted, M received, +E errors, +D duplicates, L% packet loss, time T
//   ms"
//            "rtt min/avg/max/mdev = a/b/c/d ms"
//   BSD, macOS "N packets transmitted, M packets received, L% packet loss"
//            "round-trip min/avg/max/stddev = a/b/c/d ms" (older ones: "std-dev")
//   BusyBox  as BSD, but "round-trip min/avg/max = a/b/c ms": no deviation, so it stays NaN.
// Per-packet lines, "unreachable" lines and IPv6 addresses before the summary are skipped.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "vorlund/network/ping.h"

namespace vl::network {

// The failure reasons, exactly as VLPing reports them.
inline constexpr const char* kPingNoStatistics = "Ping output did not include ping statistics";
inline constexpr const char* kPingNoCounts =
    "Ping output did not have packets transmitted/received correctly displayed";
inline constexpr const char* kPingAllLost = "100% Packet Loss";
inline constexpr const char* kPingNoRoundTrip =
    "Ping output did not have 'min/avg/max/stddev' correctly displayed";

struct PingSummary {
  // The record as far as the summary filled it (from VLPing::_initStats).
  VLPingStatistics statistics = VLPing::_initStats();
  // One of the reasons above, or none when the summary parsed whole.
  std::optional<std::string> failure;
};

// Reads the summary of ping's output. In order: no line containing "statistics ---" gives
// kPingNoStatistics; no counts line after it (or one without the transmitted, received or loss
// figure) kPingNoCounts; a loss of exactly 100.0 kPingAllLost (counts filled); no round-trip line
// ("min/avg/max" with three numbers, or four when its label names a fourth) kPingNoRoundTrip.
// Never throws; any text is accepted.
PingSummary parsePingSummary(std::string_view output);

// Whether the record carries a round-trip deviation (false for BusyBox's summaries).
bool hasRoundTripStdDev(const VLPingStatistics& statistics);

}  // namespace vl::network
