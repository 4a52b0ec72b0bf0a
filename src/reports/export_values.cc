#include "reports/export_values.h"

#include <charconv>
#include <cmath>

#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/json.h"

namespace vl::reports {
namespace {

// The value with what the display form would write differently replaced; the display conversion
// then does the rest (base64, UUIDs, records, key order).
Value exportable(const Value& value) {
  switch (value.kind()) {
    case ValueKind::Number: {
      const Number& n = *value.asNumber();
      if (n.isFloatingPoint() && !std::isfinite(n.doubleValue())) return Value();
      return value;
    }
    case ValueKind::Date:
      return Value(dateString(*value.asDate()));
    case ValueKind::Array: {
      Array out;
      for (const Value& item : *value.asArray()) out.push_back(exportable(item));
      return Value(std::move(out));
    }
    case ValueKind::Dictionary: {
      const Dictionary& d = *value.asDictionary();
      Dictionary out;
      for (size_t i = 0; i < d.size(); ++i) {
        const auto [key, item] = d.entry(i);
        out.set(key, exportable(item));
      }
      return Value(std::move(out));
    }
    case ValueKind::Record: {
      Dictionary out = (*value.asRecord())->dictionaryRepresentation();
      return exportable(Value(std::move(out)));
    }
    default:
      return value;
  }
}

}  // namespace

nlohmann::ordered_json exportJson(const Value& value) {
  // The display text is always well-formed JSON, so parsing it back cannot fail.
  return nlohmann::ordered_json::parse(json::displayString(exportable(value)));
}

std::string shortestNumber(double value) {
  char text[64];
  auto [end, status] = std::to_chars(text, text + sizeof text, value);
  return status == std::errc() ? std::string(text, end) : std::string("nan");
}

}  // namespace vl::reports
