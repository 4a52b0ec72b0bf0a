// Hand-built binary property lists for the readers' hostile-input tests: shapes that no writer
// produces (cycles, exponential sharing, bad strings), with one-byte offsets and references.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vl::test {

// objects start right after the header; offsets[i] is where object i starts; object 0 is the root.
inline std::string binaryPlist(const std::string& objects, const std::vector<uint8_t>& offsets) {
  std::string out = "bplist00" + objects;
  const uint64_t tableOffset = out.size();
  for (uint8_t o : offsets) out += static_cast<char>(o);
  std::string trailer(32, '\0');
  trailer[6] = 1;  // offset size
  trailer[7] = 1;  // reference size
  trailer[15] = static_cast<char>(offsets.size());
  trailer[31] = static_cast<char>(tableOffset);
  return out + trailer;
}

// levels arrays that each hold the next one twice: a naive reader expands them 2^levels fold.
inline std::string widening(int levels) {
  std::string objects;
  std::vector<uint8_t> offsets;
  for (int i = 0; i < levels; ++i) {
    offsets.push_back(static_cast<uint8_t>(8 + objects.size()));
    objects += {'\xA2', static_cast<char>(i + 1), static_cast<char>(i + 1)};
  }
  offsets.push_back(static_cast<uint8_t>(8 + objects.size()));
  objects += '\x09';
  return binaryPlist(objects, offsets);
}

}  // namespace vl::test
