// The program's user defaults: the argument domain ("-Key value" pairs among the process
// arguments) over the program's defaults file "~/Library/Preferences/<process name>.plist".
// Nothing is cached: every call reads the arguments and the file again.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vorlund/foundation/value.h"

namespace vl {

class UserDefaults {
 public:
  // The defaults of the running process.
  static UserDefaults& standard();

  // The value for key, the argument domain first; none when neither source has it.
  Value object(std::string_view key) const;
  // The value for key when it is a string; none otherwise.
  std::optional<std::string> string(std::string_view key) const;
  // Every default: the file's entries, then the argument domain's (which win), in that order.
  Dictionary dictionaryRepresentation() const;

  // The argument domain: each argument "-Key" (after the program path) takes the next argument as
  // its value, whatever it looks like; the value is a property-list value when it is XML
  // property-list text ("<integer>5</integer>" inside a plist element) and the plain string
  // otherwise. Later pairs win; a trailing "-Key" without a value is ignored.
  static Dictionary argumentDomain(const std::vector<std::string>& arguments);
  // "~/Library/Preferences/<process name>.plist", expanded.
  static std::string defaultsPath();

 private:
  UserDefaults() = default;
};

}  // namespace vl
