// Feeds arbitrary text to the iperf readers: as iperf 2 client output (what follows the first NUL
// byte, if any, is its standard error) and as an iperf 3 JSON report.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/network/iperf_output.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  size_t nul = input.find('\0');
  std::string_view output = input.substr(0, nul);
  std::string_view errors =
      nul == std::string_view::npos ? std::string_view() : input.substr(nul + 1);

  vl::IperfClientReading reading = vl::readIperfClientOutput(output, errors);
  if (reading.succeeded) {
    vl::fuzz::require(
        reading.idx >= 1 && static_cast<size_t>(reading.idx) < reading.components.size(),
        "the figure's index lies inside the last line");
    vl::fuzz::require(reading.text == reading.components[static_cast<size_t>(reading.idx)],
                      "the figure is the part at the index");
    vl::fuzz::require(output.find(reading.text) != std::string_view::npos,
                      "the figure is text of the output");
  } else if (reading.components.empty()) {
    vl::fuzz::require(reading.text == errors, "a short report answers with the error text");
  }
  if (auto megabits = vl::iperfMegabitsPerSecond(reading)) {
    vl::fuzz::require(std::isfinite(*megabits), "a converted figure is finite");
  }

  std::string cleaned = vl::nullNonNumbersInJson(input);
  vl::fuzz::require(vl::nullNonNumbersInJson(cleaned) == cleaned, "cleaning twice changes nothing");
  vl::Iperf3Summary summary = vl::parseIperf3Output(input);
  for (const auto& figure :
       {summary.sentBitsPerSecond, summary.receivedBitsPerSecond, summary.jitterMilliseconds}) {
    vl::fuzz::require(!figure || std::isfinite(*figure), "iperf3 figures are finite or none");
  }
  return 0;
}
