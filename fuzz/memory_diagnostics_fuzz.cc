// Feeds arbitrary text to the memory diagnostics' parsers: as a dirty-page text, a smaps text, a
// /proc/PID/cgroup text and a cgroup limit file, and (first line the process name, the rest the
// table) to the memory-limit line pattern.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/devicetools/memory_diagnostics.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);

  double kilobytes = -1;
  vl::DirtyPageText kind = vl::dirtyPageSizeFromText(input, &kilobytes);
  if (kind == vl::DirtyPageText::kSize) {
    vl::fuzz::require(input.back() == 'K' || input.back() == 'M', "a size ends in its unit");
  } else {
    vl::fuzz::require(kilobytes == -1, "no size is given for an empty or invalid text");
  }

  vl::dirtyAnonymousKilobytesFromSmaps(input);

  for (const std::string& file : vl::cgroupMemoryLimitFiles(input)) {
    vl::fuzz::require(file.rfind("/sys/fs/cgroup", 0) == 0,
                      "limit files lie under the cgroup mount");
    vl::fuzz::require(file.find("/..") == std::string::npos, "limit files never climb out of it");
  }
  if (std::optional<double> megabytes = vl::cgroupLimitMegabytes(input)) {
    vl::fuzz::require(*megabytes >= 0, "a limit is never negative");
  }

  size_t newline = input.find('\n');
  std::string name(input.substr(0, newline));
  std::string_view table =
      newline == std::string_view::npos ? std::string_view() : input.substr(newline + 1);
  std::string matched;
  vl::Error error;
  if (std::optional<double> limit = vl::memoryLimitFromMemoryTable(table, name, &matched, &error)) {
    vl::fuzz::require(*limit >= 0, "a memory figure is never negative");
    vl::fuzz::require(table.find(matched) != std::string_view::npos,
                      "the matched line is part of the table");
  }
  return 0;
}
