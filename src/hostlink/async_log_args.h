// How the event framework's log lines print an optional dictionary or error: "(null)" for none.
#pragma once

#include <optional>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/value.h"

namespace vl {

inline Value asyncDictionaryArg(const std::optional<Dictionary>& dictionary) {
  return dictionary ? Value(*dictionary) : Value();
}

inline FormatArg asyncErrorArg(const std::optional<Error>& error) {
  return error ? FormatArg(*error) : FormatArg(nullptr);
}

}  // namespace vl
