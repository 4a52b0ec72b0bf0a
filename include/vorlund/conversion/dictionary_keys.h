// A check that a dictionary received from elsewhere carries the keys a caller needs.
#pragma once

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

// The error domain and code of missing keys, and the user-information keys of that error.
inline constexpr const char* kVLErrorDomain = "VLErrorDomain";
inline constexpr int64_t kVLErrorKeysNotInDictionary = -1;
inline constexpr const char* kVLKeysNotInDictionaryKey = "KeysNotInDictionary";
inline constexpr const char* kVLDictionaryCheckedKey = "DictionaryChecked";

// True when dictionary holds every key of keys (always for an empty list). Otherwise logs the
// missing keys at level 16 and returns false, with an error of kVLErrorDomain code -1 whose user
// information lists the missing keys (in the order of keys) and the dictionary checked. A key that
// is not a string is never in a dictionary.
bool VLDoesDictionaryContainKeys(const vl::Dictionary& dictionary, const vl::Array& keys,
                                 vl::Error* error = nullptr);
