// Hand-built binary property lists for the readers' hostile-input tests: shapes that no writer
// produces (cycles, exponential sharing, bad strings), with one-byte offsets and references; and a
// dictionary of every kind for the writers' round trips.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vorlund/foundation/value.h"

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

// Every kind a property list holds, nested, with keys out of alphabetical order.
inline Dictionary everyKind() {
  return Dictionary{{"Name", "Grüße aus 東京 🌍"},
                    {"Negative", int64_t{-9000000000}},
                    {"Smallest", INT64_MIN},
                    {"Largest Unsigned", UINT64_MAX},
                    {"Int32", 7},
                    {"Real", -2.5},
                    {"Whole Real", 2.0},
                    {"Date", Date{1700000000.25}},
                    {"Data", Data(std::vector<uint8_t>{0, 1, 2, 0xff, 0})},
                    {"Empty Data", Data()},
                    {"List", Array{"a", Array{int64_t{1}, Dictionary()}, Array()}},
                    {"Inner", Dictionary{{"zeta", true}, {"alpha", false}, {"mid", -5}}},
                    {"", "empty key"}};
}

}  // namespace vl::test
