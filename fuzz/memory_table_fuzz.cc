// Feeds arbitrary text to the memory table parser: the first line is the process name (put into
// the line pattern as it is, so it may be any expression, broken ones included), the rest is the
// table's output.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/devicetools/process_table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  size_t newline = input.find('\n');
  std::string name(input.substr(0, newline));
  std::string_view table = newline == std::string_view::npos ? std::string_view() : input.substr(newline + 1);

  std::string matched;
  vl::Error error;
  std::optional<double> megabytes = vl::memoryFromMemoryTable(table, name, &matched, &error);
  if (megabytes) {
    vl::fuzz::require(*megabytes >= 0, "a memory figure is never negative");
    vl::fuzz::require(table.find(matched) != std::string_view::npos,
                      "the matched line is part of the table");
  }
  return 0;
}
