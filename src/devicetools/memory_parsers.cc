// The pure readings of memory diagnostics: the dirty-page text of the arenalist one-liner, the
// anonymous dirty memory of smaps, and the cgroup memory limit.
#include <cstdlib>
#include <sstream>

#include "vorlund/devicetools/memory_diagnostics.h"

namespace vl {
namespace {

constexpr double kBytesPerMegabyte = 1024.0 * 1024.0;
// Version-1 cgroups write their "no limit" as the largest page-aligned counter, near 2^63.
constexpr unsigned long long kNoLimitFloor = 1ULL << 62;

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// The mapping header's path name (the sixth field on), "" for an unnamed mapping.
std::string_view mappingName(std::string_view header) {
  size_t at = 0;
  for (int field = 0; field < 5; ++field) {
    at = header.find_first_not_of(' ', at);
    if (at == std::string_view::npos) return {};
    at = header.find(' ', at);
    if (at == std::string_view::npos) return {};
  }
  return trimmed(header.substr(at));
}

bool anonymous(std::string_view name) {
  return name.empty() || name == "[heap]" || name.rfind("[anon:", 0) == 0;
}

}  // namespace

DirtyPageText dirtyPageSizeFromText(std::string_view text, double* kilobytes) {
  if (text.size() < 2) return DirtyPageText::kEmpty;
  // The unit is the last character as it stands: a trailing line feed makes the text invalid.
  const char unit = text.back();
  if (unit != 'K' && unit != 'M') return DirtyPageText::kInvalid;
  const std::string number(text.substr(0, text.size() - 1));
  const double value = std::strtod(number.c_str(), nullptr);
  if (kilobytes) *kilobytes = unit == 'M' ? value * 1024 : value;
  return DirtyPageText::kSize;
}

double dirtyAnonymousKilobytesFromSmaps(std::string_view smaps) {
  double kilobytes = 0;
  bool inAnonymous = false;
  size_t start = 0;
  while (start < smaps.size()) {
    size_t end = smaps.find('\n', start);
    std::string_view line = smaps.substr(start, end == std::string_view::npos ? end : end - start);
    start = end == std::string_view::npos ? smaps.size() : end + 1;
    size_t space = line.find(' ');
    std::string_view first = line.substr(0, space);
    if (first.empty()) continue;
    if (first.back() != ':') {
      inAnonymous = anonymous(mappingName(line));
    } else if (inAnonymous && (first == "Private_Dirty:" || first == "Shared_Dirty:")) {
      const std::string value(line.substr(first.size()));
      kilobytes += std::strtod(value.c_str(), nullptr);
    }
  }
  return kilobytes;
}

std::vector<std::string> cgroupMemoryLimitFiles(std::string_view cgroup) {
  std::vector<std::string> unified, legacy;
  std::istringstream lines{std::string(cgroup)};
  std::string line;
  while (std::getline(lines, line)) {
    size_t first = line.find(':');
    size_t second = first == std::string::npos ? first : line.find(':', first + 1);
    if (second == std::string::npos) continue;
    std::string controllers = line.substr(first + 1, second - first - 1);
    std::string path = line.substr(second + 1);
    if (path.empty() || path[0] != '/' || path.find("/..") != std::string::npos) continue;
    if (path == "/") path.clear();
    if (line.compare(0, first, "0") == 0 && controllers.empty()) {
      for (const char* mount : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"}) {
        unified.push_back(std::string(mount) + path + "/memory.max");
        unified.push_back(std::string(mount) + path + "/memory.high");
      }
    } else if (("," + controllers + ",").find(",memory,") != std::string::npos) {
      legacy.push_back("/sys/fs/cgroup/memory" + path + "/memory.limit_in_bytes");
    }
  }
  unified.insert(unified.end(), legacy.begin(), legacy.end());
  return unified;
}

std::optional<double> cgroupLimitMegabytes(std::string_view text) {
  std::string_view value = trimmed(text);
  if (value.empty() || value.size() > 20 ||
      value.find_first_not_of("0123456789") != std::string_view::npos) {
    return std::nullopt;
  }
  unsigned long long bytes = std::strtoull(std::string(value).c_str(), nullptr, 10);
  if (bytes >= kNoLimitFloor) return std::nullopt;
  return static_cast<double>(bytes) / kBytesPerMegabyte;
}

}  // namespace vl
