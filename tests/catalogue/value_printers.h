// Readable failure messages: GoogleTest prints values through their descriptions.
#pragma once

#include <ostream>

#include "vorlund/foundation/value.h"

namespace vl {

inline void PrintTo(const Value& value, std::ostream* out) { *out << value.description(); }
inline void PrintTo(const Array& array, std::ostream* out) { *out << array.description(); }
inline void PrintTo(const Dictionary& dictionary, std::ostream* out) {
  *out << dictionary.description();
}

}  // namespace vl
