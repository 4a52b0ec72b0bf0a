// Quoting of one word for a bash command line, for the paths that the device tools put into the
// commands they run.
#pragma once

#include <string>
#include <string_view>

namespace vl::devicetools {

// The word unchanged when it holds only characters that bash takes literally, otherwise the word in
// single quotes (a single quote inside becoming '\'').
inline std::string shellQuoted(std::string_view word) {
  auto plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
           c == '.' || c == '_' || c == '-' || c == '+' || c == ',' || c == ':' || c == '@' ||
           c == '%';
  };
  bool needsQuotes = word.empty();
  for (char c : word) needsQuotes = needsQuotes || !plain(c);
  if (!needsQuotes) return std::string(word);
  std::string quoted = "'";
  for (char c : word) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace vl::devicetools
