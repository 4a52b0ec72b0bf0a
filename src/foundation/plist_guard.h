// A structural check of property-list bytes before libplist parses them. libplist copies an object
// once for every reference to it and frees trees recursively, so a few kilobytes of hostile binary
// plist (objects that refer to each other in a widening chain) or of deeply nested XML can exhaust
// memory or the stack. Callers run this check first and refuse what it rejects.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vl::plist_guard {

// Deepest nesting of arrays and dictionaries accepted.
inline constexpr size_t kMaxDepth = 512;

// Returns true when bytes (binary or XML) stay within the limits: nesting depth, and, for binary
// plists, a well-formed trailer and offset table, in-bounds objects, no reference cycles, and a
// bounded size once shared objects are expanded. Otherwise false, with the reason in *why.
bool check(std::string_view bytes, std::string* why = nullptr);

}  // namespace vl::plist_guard
