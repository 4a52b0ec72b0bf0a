// JSON over nlohmann-json. Writing builds an ordered_json tree (dictionary order kept); reading
// goes through nlohmann's SAX parser straight into values, so that nesting is bounded while parsing
// and no intermediate tree is built.
#include "vorlund/foundation/json.h"

#include <charconv>
#include <cmath>
#include <ctime>
#include <limits>
#include <nlohmann/json.hpp>
#include <vector>

namespace vl::json {
namespace {

using Json = nlohmann::ordered_json;

constexpr int64_t kErrorCodeWrite = 1;
constexpr int64_t kErrorCodeRead = 2;
// Deeper JSON is refused when read or strictly written; display output stops there.
constexpr size_t kMaxDepth = 512;

Error makeError(int64_t code, std::string description) {
  return Error::withDescription(kErrorDomain, code, std::move(description));
}

// A float prints as the shortest decimal that reads back as the same float ("0.1", not
// "0.10000000149011612"), so the double handed to nlohmann is parsed from that text.
double floatAsDouble(double value) {
  const auto f = static_cast<float>(value);
  char buffer[64];
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, f);
  if (ec != std::errc()) return value;
  double d = value;
  std::from_chars(buffer, end, d);
  return d;
}

Json numberJson(const Number& n) {
  switch (n.typeCode()) {
    case 'B':
      return Json(n.boolValue());
    case 'Q':
      return Json(n.uint64Value());
    case 'f':
      return Json(floatAsDouble(n.doubleValue()));
    case 'd':
      return Json(n.doubleValue());
    default:
      return Json(n.int64Value());
  }
}

std::string base64(const Data& data) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto& b = data.bytes;
  std::string out;
  out.reserve((b.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < b.size(); i += 3) {
    const uint32_t v = (uint32_t{b[i]} << 16) | (uint32_t{b[i + 1]} << 8) | b[i + 2];
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  if (i + 1 == b.size()) {
    const uint32_t v = uint32_t{b[i]} << 16;
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += "==";
  } else if (i + 2 == b.size()) {
    const uint32_t v = (uint32_t{b[i]} << 16) | (uint32_t{b[i + 1]} << 8);
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += '=';
  }
  return out;
}

// "2026-01-31T08:15:02Z", or with milliseconds ("2026-01-31T08:15:02.250Z") when the date has a
// fraction of a second. Dates beyond what the C library can break down print as their seconds.
std::string iso8601(const Date& date) {
  const double t = date.secondsSince1970;
  constexpr double kLimit = 253402300800.0;  // year 10000
  if (!std::isfinite(t) || t < -62135596800.0 || t >= kLimit) return Number(t).description();
  double whole = std::floor(t);
  auto millis = static_cast<int>(std::llround((t - whole) * 1000.0));
  if (millis == 1000) {
    whole += 1;
    millis = 0;
  }
  const auto seconds = static_cast<time_t>(whole);
  std::tm tm{};
  if (!gmtime_r(&seconds, &tm)) return Number(t).description();
  char buffer[64];
  const size_t n = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S", &tm);
  std::string text(buffer, n);
  if (millis != 0) {
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03d", millis);
    text += fraction;
  }
  return text + "Z";
}

// Strict conversion: false with *why for anything JSON cannot hold.
bool toStrict(const Value& value, size_t depth, Json* out, std::string* why) {
  if (depth > kMaxDepth) {
    *why = "The value is nested too deeply for JSON.";
    return false;
  }
  switch (value.kind()) {
    case ValueKind::None:
      *out = nullptr;
      return true;
    case ValueKind::Number: {
      const Number& n = *value.asNumber();
      if (n.isFloatingPoint() && !std::isfinite(n.doubleValue())) {
        *why = "Invalid number value (" + n.description() + ") in JSON write.";
        return false;
      }
      *out = numberJson(n);
      return true;
    }
    case ValueKind::String:
      *out = *value.asString();
      return true;
    case ValueKind::Array: {
      *out = Json::array();
      for (const Value& item : *value.asArray()) {
        Json element;
        if (!toStrict(item, depth + 1, &element, why)) return false;
        out->push_back(std::move(element));
      }
      return true;
    }
    case ValueKind::Dictionary: {
      *out = Json::object();
      const Dictionary& d = *value.asDictionary();
      for (size_t i = 0; i < d.size(); ++i) {
        const auto [key, item] = d.entry(i);
        Json element;
        if (!toStrict(item, depth + 1, &element, why)) return false;
        (*out)[key] = std::move(element);
      }
      return true;
    }
    case ValueKind::Date:
    case ValueKind::Data:
    case ValueKind::Uuid:
    case ValueKind::Record:
      *why = "Invalid type in JSON write (" + value.className() + ").";
      return false;
  }
  *why = "Invalid type in JSON write.";
  return false;
}

Json toDisplay(const Value& value, size_t depth) {
  if (depth > kMaxDepth) return Json("<nested too deeply>");
  switch (value.kind()) {
    case ValueKind::None:
      return Json(nullptr);
    case ValueKind::Number: {
      const Number& n = *value.asNumber();
      if (n.isFloatingPoint() && !std::isfinite(n.doubleValue())) return Json(n.description());
      return numberJson(n);
    }
    case ValueKind::String:
      return Json(*value.asString());
    case ValueKind::Date:
      return Json(iso8601(*value.asDate()));
    case ValueKind::Data:
      return Json(base64(*value.asData()));
    case ValueKind::Uuid:
      return Json(value.asUuid()->string());
    case ValueKind::Array: {
      Json out = Json::array();
      for (const Value& item : *value.asArray()) out.push_back(toDisplay(item, depth + 1));
      return out;
    }
    case ValueKind::Dictionary: {
      Json out = Json::object();
      const Dictionary& d = *value.asDictionary();
      for (size_t i = 0; i < d.size(); ++i) {
        const auto [key, item] = d.entry(i);
        out[key] = toDisplay(item, depth + 1);
      }
      return out;
    }
    case ValueKind::Record: {
      const RecordPtr& record = *value.asRecord();
      Json out = toDisplay(Value(record->dictionaryRepresentation()), depth);
      out["$class"] = record->className();
      return out;
    }
  }
  return Json(nullptr);
}

// Builds values from nlohmann's SAX events. Containers under construction sit on a stack; a
// finished value is attached to the container below it (under the pending key of a dictionary).
class ValueBuilder : public nlohmann::json_sax<Json> {
 public:
  bool null() override { return add(Value()); }
  bool boolean(bool v) override { return add(Value(v)); }
  bool number_integer(number_integer_t v) override { return add(Value(Number(int64_t{v}))); }
  bool number_unsigned(number_unsigned_t v) override {
    if (v <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      return add(Value(Number(static_cast<int64_t>(v))));
    }
    return add(Value(Number(uint64_t{v})));
  }
  bool number_float(number_float_t v, const string_t&) override { return add(Value(double{v})); }
  bool string(string_t& v) override { return add(Value(std::move(v))); }
  bool binary(binary_t&) override {
    error_ = "Binary values are not JSON.";
    return false;
  }
  bool start_object(std::size_t) override { return open(Value(Dictionary())); }
  bool key(string_t& v) override {
    stack_.back().key = std::move(v);
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(Value(Array())); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception& e) override {
    error_ = "The JSON text is malformed at byte " + std::to_string(position) + ": " + e.what();
    return false;
  }

  std::optional<Value> result() { return std::move(result_); }
  const std::string& error() const { return error_; }

 private:
  struct Frame {
    Value container;
    std::string key;
  };

  bool add(Value v) {
    if (stack_.empty()) {
      result_ = std::move(v);
      return true;
    }
    Frame& top = stack_.back();
    if (Array* a = top.container.asArray()) {
      a->push_back(std::move(v));
    } else {
      top.container.asDictionary()->set(std::move(top.key), std::move(v));
      top.key.clear();
    }
    return true;
  }
  bool open(Value container) {
    if (stack_.size() >= kMaxDepth) {
      error_ = "The JSON text is nested more than " + std::to_string(kMaxDepth) + " levels deep.";
      return false;
    }
    stack_.push_back(Frame{std::move(container), {}});
    return true;
  }
  bool close() {
    Value done = std::move(stack_.back().container);
    stack_.pop_back();
    return add(std::move(done));
  }

  std::vector<Frame> stack_;
  std::optional<Value> result_;
  std::string error_;
};

}  // namespace

std::optional<Value> parse(std::string_view text, Error* error) {
  ValueBuilder builder;
  bool ok = false;
  try {
    ok = Json::sax_parse(text.begin(), text.end(), &builder);
  } catch (const std::exception& e) {
    setError(error, makeError(kErrorCodeRead,
                              std::string("The JSON text could not be read: ") + e.what()));
    return std::nullopt;
  }
  std::optional<Value> result = builder.result();
  if (!ok || !result) {
    setError(error,
             makeError(kErrorCodeRead, builder.error().empty() ? "The JSON text could not be read."
                                                               : builder.error()));
    return std::nullopt;
  }
  return result;
}

std::optional<std::string> serialize(const Value& value, bool pretty, bool requireContainer,
                                     Error* error) {
  if (requireContainer && !value.isArray() && !value.isDictionary()) {
    setError(error, makeError(kErrorCodeWrite,
                              "Invalid top-level type in JSON write (" + value.className() + ")."));
    return std::nullopt;
  }
  Json json;
  std::string why;
  if (!toStrict(value, 0, &json, &why)) {
    setError(error, makeError(kErrorCodeWrite, why));
    return std::nullopt;
  }
  try {
    return json.dump(pretty ? 2 : -1);
  } catch (const std::exception& e) {
    // Strings that are not UTF-8 cannot be JSON strings.
    setError(error, makeError(kErrorCodeWrite, std::string("The value could not be written as "
                                                           "JSON: ") +
                                                   e.what()));
    return std::nullopt;
  }
}

std::string displayString(const Value& value) {
  try {
    return toDisplay(value, 0).dump(2, ' ', false, Json::error_handler_t::replace);
  } catch (const std::exception& e) {
    return std::string("\"<") + e.what() + ">\"";
  }
}

}  // namespace vl::json
