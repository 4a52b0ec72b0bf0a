#include "vorlund/catalogue/json_safe.h"

#include <optional>

namespace {

// The JSON-safe form of one value, or none when the value has no place in JSON. The recursion has
// no depth limit: the dictionaries cleaned here come from bundle settings and requests, which are
// shallow.
std::optional<vl::Value> jsonSafeValue(const vl::Value& value) {
  if (const auto* dictionary = value.asDictionary())
    return vl::Value(JSONSafeDictionary(*dictionary));
  if (const auto* array = value.asArray()) return vl::Value(JSONSafeArray(*array));
  if (value.isNumber() || value.isString()) return value;
  return std::nullopt;
}

}  // namespace

vl::Dictionary JSONSafeDictionary(const vl::Dictionary& dictionary) {
  vl::Dictionary safe;
  for (size_t i = 0; i < dictionary.size(); ++i) {
    auto [key, value] = dictionary.entry(i);
    if (auto cleaned = jsonSafeValue(value)) safe.set(key, std::move(*cleaned));
  }
  return safe;
}

vl::Array JSONSafeArray(const vl::Array& array) {
  vl::Array safe;
  for (const vl::Value& value : array) {
    if (auto cleaned = jsonSafeValue(value)) safe.push_back(std::move(*cleaned));
  }
  return safe;
}
