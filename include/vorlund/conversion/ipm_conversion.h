// The mapping between IPM values and the system's values, both ways:
//   double <-> number 'd', int64 <-> number 'q', uint64 <-> number 'Q', bool <-> number 'B',
//   date <-> date, data <-> data, string <-> string, file descriptor <-> file handle (the descriptor
//   is duplicated), array <-> array and dictionary <-> dictionary (element by element).
// What has no mapping is logged at level 16 ("Framework") and left out; the rest arrives.
#pragma once

#include <optional>

#include "vorlund/conversion/ipm_value.h"
#include "vorlund/foundation/value.h"

// The dictionary of an IPM dictionary, entries of unsupported types left out. None, logging
// "Unsupported ipm type", when ipmDictionary is not a dictionary.
std::optional<vl::Dictionary> VLIPMDictionaryToNSDictionary(const vl::IpmValue& ipmDictionary);

// The array of an IPM array, elements of unsupported types left out. None, logging "Unsupported
// ipm type", when ipmArray is not an array.
std::optional<vl::Array> VLIPMArrayToNSArray(const vl::IpmValue& ipmArray);

// One IPM value as a value; none for no object (nullptr), for errors and for unsupported types.
vl::Value VLIPMObjectToNSObject(const vl::IpmValue* ipmObject);
vl::Value VLIPMObjectToNSObject(const vl::IpmValue& ipmObject);

// The IPM dictionary of a dictionary. Numbers map by their type code: 'd' to double, 'q' to int64,
// 'Q' and 'i' to uint64, 'B' and 'c' to bool; other numbers and values of other classes (records
// other than file handles, UUIDs, none) are logged and left out. Every entry is also logged at
// level 2 with its key, class and description.
vl::IpmValue VLNSDictionaryToIPMDictionary(const vl::Dictionary& dictionary);

// The IPM array of an array, element by element under the rules of VLNSDictionaryToIPMDictionary.
vl::IpmValue VLNSArrayToIPMArray(const vl::Array& array);
