// The one reading of the memory table tool's lines, shared by the resident-memory and the
// memory-limit queries, which differ only in their line pattern.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "vorlund/foundation/error.h"

namespace vl {

// The first group of the first match of linePattern (a format with one "%@" for the name, put in
// as it is) read as a number. None when nothing matches, with *matched left alone, or when the
// pattern does not compile, with *error set. *matched gets the whole matching text.
std::optional<double> megabytesOnMemoryTableLine(std::string_view output, const char* linePattern,
                                                 const std::string& name, std::string* matched,
                                                 Error* error);

}  // namespace vl
