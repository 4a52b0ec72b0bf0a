// Feeds arbitrary text to the curl write-out and stream-performance readers.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/network/throughput_parsers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  double curl = VLGetThroughputFromCurlOutput(input);
  if (input.find_first_of(" \t\n\r\v\f") == std::string_view::npos) {
    vl::fuzz::require(curl == 0, "a single part has no speed");
  }
  double stream = VLGetThroughputForStreamPerfOutput(input);
  if (input.find("Average Throughput") == std::string_view::npos) {
    vl::fuzz::require(stream == 0, "a report without its average line reads 0");
  }
  return 0;
}
