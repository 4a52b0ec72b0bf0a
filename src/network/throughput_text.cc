#include "network/throughput_text.h"

#include <charconv>
#include <cmath>

namespace vl::network {

std::vector<std::string> splitKeepingEmpty(std::string_view text, std::string_view separators) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    size_t end = text.find_first_of(separators, start);
    if (end == std::string_view::npos) {
      parts.emplace_back(text.substr(start));
      return parts;
    }
    parts.emplace_back(text.substr(start, end - start));
    start = end + 1;
  }
}

double leadingDouble(std::string_view text) {
  size_t i = text.find_first_not_of(kWhiteSpace);
  if (i == std::string_view::npos) return 0;
  bool negative = false;
  if (text[i] == '+' || text[i] == '-') {
    negative = text[i] == '-';
    ++i;
  }
  // from_chars alone would also take "inf" and "nan", which are not numbers here.
  if (i >= text.size() || !((text[i] >= '0' && text[i] <= '9') || text[i] == '.')) return 0;
  double value = 0;
  auto [end, failure] = std::from_chars(text.data() + i, text.data() + text.size(), value);
  if (failure == std::errc::result_out_of_range) {
    // Too large reads as infinity, too small as 0, like strtod.
    std::string_view digits = text.substr(i, static_cast<size_t>(end - (text.data() + i)));
    size_t e = digits.find_first_of("eE");
    bool tiny = e != std::string_view::npos && e + 1 < digits.size() && digits[e + 1] == '-';
    value = tiny ? 0 : HUGE_VAL;
  } else if (failure != std::errc()) {
    return 0;
  }
  return negative ? -value : value;
}

}  // namespace vl::network
