#include "deviceinfo/device_files.h"

#include <optional>

#include "vorlund/foundation/paths.h"

namespace vl::deviceinfo {

std::string trimmed(std::string_view text) {
  constexpr std::string_view kBlanks(" \t\r\n\0", 5);
  size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return "";
  size_t last = text.find_last_not_of(kBlanks);
  return std::string(text.substr(first, last - first + 1));
}

std::string deviceFileText(const char* devicePath) {
  std::optional<std::string> text = paths::readFile(paths::resolve(devicePath));
  return text ? trimmed(*text) : "";
}

}  // namespace vl::deviceinfo
