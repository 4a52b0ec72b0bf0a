// Objects to and from the data that crosses a process or file boundary: a secure keyed archive
// (conversion/keyed_archive.h) that admits, when read, only the classes of
// VLValidExternalClassesForCoding().
#pragma once

#include <optional>

#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

// The classes allowed when unarchiving anything from another process or a file: the records
// "VLTestCaseClass", "VLTestCaseResult", "VLTestCaseObject", "VLIssue" and every plain value class
// (strings, numbers, dates, data, UUIDs, arrays, dictionaries).
const vl::ClassSet& VLValidExternalClassesForCoding();

// The keyed archive of object. None for a none object and when archiving fails (a record that
// cannot be coded, a string a property list cannot hold), logged at level 16; the reason also in
// *error when given.
std::optional<vl::Data> VLConvertObjectToData(const vl::Value& object, vl::Error* error = nullptr);

// The object of a keyed archive, refusing every class outside VLValidExternalClassesForCoding().
// None for no data (nullptr), refused classes and malformed archives, logged at level 16; the
// reason also in *error when given. An archive of none also gives none.
vl::Value VLConvertDataToObject(const vl::Data* data, vl::Error* error = nullptr);
vl::Value VLConvertDataToObject(const vl::Data& data, vl::Error* error = nullptr);
