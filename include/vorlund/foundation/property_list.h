// Values to and from property lists (libplist): XML and binary both ways, files written atomically.
// A UID outside a keyed archive reads as the dictionary {"CF$UID": n}. Records cannot be written to a
// plain property list (archive them, conversion/keyed_archive.h); writing one fails.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

namespace vl::plist {

enum class Format { Xml, Binary };

// Parses XML or binary property-list bytes (the format is detected). None, with error, when the
// bytes are not a property list.
std::optional<Value> parse(std::string_view bytes, Error* error = nullptr);
// Serialises a value. None, with error, when it holds something a property list cannot (a record,
// a none value inside a collection).
std::optional<std::string> serialize(const Value& value, Format format, Error* error = nullptr);

// Reads a property-list file. None when it is missing, unreadable or not a property list.
std::optional<Value> readFile(const std::string& path, Error* error = nullptr);
// Reads a property-list file whose top level is a dictionary; none otherwise.
std::optional<Dictionary> readDictionary(const std::string& path, Error* error = nullptr);
// Writes a property-list file atomically (XML by default: files that people read). Returns false,
// with error, on failure; the old file is then left whole.
bool writeFile(const Value& value, const std::string& path, Format format = Format::Xml,
               Error* error = nullptr);

}  // namespace vl::plist
