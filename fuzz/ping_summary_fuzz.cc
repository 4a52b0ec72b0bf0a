// Feeds arbitrary text to the ping summary parser. Whatever it reads, it fails with one of its
// reasons or gives a record whose figures a ping could print.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/network/ping_summary.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view output(reinterpret_cast<const char*>(data), size);
  vl::network::PingSummary summary = vl::network::parsePingSummary(output);
  const VLPingStatistics& s = summary.statistics;
  vl::fuzz::require(s.packetsTransmitted >= 0 && s.packetsReceived >= 0,
                    "counts are never negative");
  vl::fuzz::require(std::isfinite(s.packetLoss) && s.packetLoss >= 0,
                    "the loss is a finite percent");
  for (double time : {s.roundTripMin, s.roundTripAverage, s.roundTripMax}) {
    vl::fuzz::require(std::isfinite(time) && time >= 0, "round-trip times are finite and positive");
  }
  if (!summary.failure) {
    vl::fuzz::require(output.find("statistics ---") != std::string_view::npos,
                      "a parsed summary follows its statistics line");
    vl::fuzz::require(s.packetLoss != 100.0, "a total loss is a failure");
    vl::fuzz::require(std::isnan(s.roundTripStdDev) || s.roundTripStdDev >= 0,
                      "the deviation is absent or positive");
  } else {
    const std::string& reason = *summary.failure;
    vl::fuzz::require(
        reason == vl::network::kPingNoStatistics || reason == vl::network::kPingNoCounts ||
            reason == vl::network::kPingAllLost || reason == vl::network::kPingNoRoundTrip,
        "a failure is one of the parser's reasons", reason);
  }
  // The description formats every record, an absent deviation included.
  vl::fuzz::require(!VLGetPingStatisticsDescription(s).empty(), "every record has a description");
  return 0;
}
