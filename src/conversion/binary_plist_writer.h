// A binary property-list writer for libplist trees. libplist 2.2's own writer uniques objects through
// a hash table of fixed size, which turns quadratic beyond some hundred thousand nodes; keyed
// archives of large result sets exceed that, so archives are written here in linear time.
#pragma once

#include <plist/plist.h>

#include <optional>
#include <string>

namespace vl::conversion {

// The "bplist00" bytes of root. Equal strings (and dictionary keys) are written once. None when the
// tree is nested deeper than 512 levels or holds a node of unknown type.
std::optional<std::string> writeBinaryPlist(plist_t root);

}  // namespace vl::conversion
