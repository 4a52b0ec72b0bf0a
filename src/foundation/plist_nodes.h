// Small readers of libplist nodes that the property-list reader and the keyed archiver share.
#pragma once

#include <plist/plist.h>

#include <string>
#include <vector>

namespace vl::plist_nodes {

// The items of an array node in order. libplist keeps arrays as linked lists, so they are walked
// once rather than looked up by position (which is quadratic).
std::vector<plist_t> arrayItems(plist_t array);

// Whether an integer node holds an unsigned value above the int64 range. libplist 2.2 stores every
// integer as 64 unsigned bits and hides its own "unsigned" mark from the public API; its XML form
// shows it (a negative number is printed with a sign, a marked unsigned one without).
bool isMarkedUnsigned(plist_t node);

// Whether every string (and, with checkKeys, every dictionary key) under root is UTF-8 without a
// NUL character, as every string of a vl::Value and of what the writers accept must be. libplist
// takes any bytes. False with the reason in *why otherwise. Nesting deeper than maxDepth counts as
// well-formed (callers bound the depth before). checkKeys only where a key is known to hold no NUL
// (libplist aborts when asked for such a key).
bool holdsOnlyText(plist_t root, size_t maxDepth, bool checkKeys, std::string* why);

}  // namespace vl::plist_nodes
