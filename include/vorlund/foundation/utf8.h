// UTF-8 validation: the one check used wherever bytes become text (property lists, JSON, archives,
// command output).
#pragma once

#include <cstdint>
#include <string_view>

namespace vl {

// Whether s is well-formed UTF-8: no overlong forms, surrogates or code points above U+10FFFF.
inline bool isValidUtf8(std::string_view s) {
  size_t i = 0;
  while (i < s.size()) {
    auto c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t extra;
    uint32_t cp;
    if ((c & 0xE0) == 0xC0) {
      extra = 1;
      cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (s.size() - i <= extra) return false;
    for (size_t k = 1; k <= extra; ++k) {
      auto cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    static constexpr uint32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMinimum[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += extra + 1;
  }
  return true;
}

}  // namespace vl
