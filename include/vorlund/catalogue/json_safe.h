// Cleaning of dictionaries and arrays for JSON: what a test case definition sends to tools that
// read JSON keeps only dictionaries, arrays, numbers and strings.
#pragma once

#include "vorlund/foundation/value.h"

// A copy of dictionary in which nested dictionaries and arrays are cleaned in turn, numbers and
// strings stay, and every other value (dates, data, UUIDs, records) is removed with its key.
vl::Dictionary JSONSafeDictionary(const vl::Dictionary& dictionary);

// A new array holding, in order, the cleaned dictionaries and arrays and the numbers and strings
// of array; other elements are dropped.
vl::Array JSONSafeArray(const vl::Array& array);
