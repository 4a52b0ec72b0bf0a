#include "vorlund/foundation/value.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <limits>
#include <utility>

#include "vorlund/foundation/format.h"

namespace vl {

namespace {

const Value kNone;

// Float to integer without the undefined behaviour of an out-of-range cast.
template <typename Int>
Int saturatingCast(double d) {
  if (std::isnan(d)) return 0;
  if (d <= static_cast<double>(std::numeric_limits<Int>::min())) {
    return std::numeric_limits<Int>::min();
  }
  if (d >= static_cast<double>(std::numeric_limits<Int>::max())) {
    return std::numeric_limits<Int>::max();
  }
  return static_cast<Int>(d);
}

std::string indentation(int depth) { return std::string(static_cast<size_t>(depth) * 4, ' '); }

// Strings inside collections are quoted unless they are plain words, as text property lists print.
std::string quotedIfNeeded(const std::string& s) {
  bool plain = !s.empty() && std::all_of(s.begin(), s.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '_' || c == '$' || c == '.' || c == '/' || c == ':' || c >= 0x80;
  });
  if (plain) return s;
  std::string out = "\"";
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        out += c;
    }
  }
  return out + "\"";
}

}  // namespace

// ---- Number ----

Number Number::withChar(int8_t v) { return Number('c', static_cast<int64_t>(v)); }
Number Number::withShort(int16_t v) { return Number('s', static_cast<int64_t>(v)); }
Number Number::withLong(int64_t v) { return Number('l', v); }

bool Number::boolValue() const {
  if (auto* d = std::get_if<double>(&storage_)) return *d != 0;
  if (auto* u = std::get_if<uint64_t>(&storage_)) return *u != 0;
  return std::get<int64_t>(storage_) != 0;
}

int64_t Number::int64Value() const {
  if (auto* d = std::get_if<double>(&storage_)) return saturatingCast<int64_t>(*d);
  if (auto* u = std::get_if<uint64_t>(&storage_)) return static_cast<int64_t>(*u);
  return std::get<int64_t>(storage_);
}

uint64_t Number::uint64Value() const {
  if (auto* d = std::get_if<double>(&storage_)) {
    return *d < 0 ? static_cast<uint64_t>(saturatingCast<int64_t>(*d))
                  : saturatingCast<uint64_t>(*d);
  }
  if (auto* u = std::get_if<uint64_t>(&storage_)) return *u;
  return static_cast<uint64_t>(std::get<int64_t>(storage_));
}

double Number::doubleValue() const {
  if (auto* d = std::get_if<double>(&storage_)) return *d;
  if (auto* u = std::get_if<uint64_t>(&storage_)) return static_cast<double>(*u);
  return static_cast<double>(std::get<int64_t>(storage_));
}

int Number::compare(const Number& other) const {
  bool exact =
      !std::holds_alternative<double>(storage_) && !std::holds_alternative<double>(other.storage_);
  if (exact) {
    // Signed against unsigned: a negative signed value is the smaller one.
    auto* ua = std::get_if<uint64_t>(&storage_);
    auto* ub = std::get_if<uint64_t>(&other.storage_);
    if (!ua && !ub) {
      int64_t a = std::get<int64_t>(storage_), b = std::get<int64_t>(other.storage_);
      return a < b ? -1 : (a > b ? 1 : 0);
    }
    if (ua && ub) return *ua < *ub ? -1 : (*ua > *ub ? 1 : 0);
    if (ua) {
      int64_t b = std::get<int64_t>(other.storage_);
      if (b < 0) return 1;
      auto ub2 = static_cast<uint64_t>(b);
      return *ua < ub2 ? -1 : (*ua > ub2 ? 1 : 0);
    }
    int64_t a = std::get<int64_t>(storage_);
    if (a < 0) return -1;
    auto ua2 = static_cast<uint64_t>(a);
    return ua2 < *ub ? -1 : (ua2 > *ub ? 1 : 0);
  }
  double a = doubleValue(), b = other.doubleValue();
  if (a < b) return -1;
  if (a > b) return 1;
  return 0;
}

bool Number::operator==(const Number& other) const {
  if (std::isnan(doubleValue()) || std::isnan(other.doubleValue())) return false;
  return compare(other) == 0;
}

std::string Number::description() const {
  if (auto* d = std::get_if<double>(&storage_)) {
    if (std::isnan(*d)) return "nan";
    if (std::isinf(*d)) return *d > 0 ? "inf" : "-inf";
    char buffer[64];
    auto result = type_ == 'f'
                      ? std::to_chars(buffer, buffer + sizeof buffer, static_cast<float>(*d))
                      : std::to_chars(buffer, buffer + sizeof buffer, *d);
    return std::string(buffer, result.ptr);
  }
  if (auto* u = std::get_if<uint64_t>(&storage_)) return std::to_string(*u);
  return std::to_string(std::get<int64_t>(storage_));
}

// ---- Date, Data, Uuid ----

Date Date::now() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return Date{static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9};
}

std::string Date::description() const {
  time_t seconds = static_cast<time_t>(std::floor(secondsSince1970));
  tm utc;
  gmtime_r(&seconds, &utc);
  char buffer[64];
  strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &utc);
  return buffer;
}

std::string Data::description() const {
  static const char* kHex = "0123456789abcdef";
  std::string out = "<";
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0 && i % 4 == 0) out += ' ';
    out += kHex[bytes[i] >> 4];
    out += kHex[bytes[i] & 0xf];
  }
  return out + ">";
}

Uuid Uuid::random() {
  uuid_t raw;
  uuid_generate_random(raw);
  std::array<uint8_t, 16> bytes;
  std::copy(raw, raw + 16, bytes.begin());
  return Uuid(bytes);
}

std::optional<Uuid> Uuid::fromString(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::string copy(text);
  uuid_t raw;
  if (uuid_parse(copy.c_str(), raw) != 0) return std::nullopt;
  std::array<uint8_t, 16> bytes;
  std::copy(raw, raw + 16, bytes.begin());
  return Uuid(bytes);
}

std::string Uuid::string() const {
  char text[37];
  uuid_unparse_upper(bytes_.data(), text);
  return text;
}

// ---- Array ----

Array::Array(std::initializer_list<Value> values) : items_(values) {}
Array::Array(std::vector<Value> values) : items_(std::move(values)) {}
const Value& Array::operator[](size_t i) const { return items_[i]; }
Value& Array::operator[](size_t i) { return items_[i]; }
const Value& Array::at(size_t i) const { return i < items_.size() ? items_[i] : kNone; }
void Array::push_back(Value v) { items_.push_back(std::move(v)); }
void Array::insert(size_t index, Value v) {
  items_.insert(items_.begin() + static_cast<std::ptrdiff_t>(std::min(index, items_.size())),
                std::move(v));
}
void Array::erase(size_t index) {
  if (index < items_.size()) items_.erase(items_.begin() + static_cast<std::ptrdiff_t>(index));
}
bool Array::contains(const Value& v) const {
  return std::find(items_.begin(), items_.end(), v) != items_.end();
}
std::vector<Value>::const_iterator Array::begin() const { return items_.begin(); }
std::vector<Value>::const_iterator Array::end() const { return items_.end(); }
std::vector<Value>::iterator Array::begin() { return items_.begin(); }
std::vector<Value>::iterator Array::end() { return items_.end(); }
bool Array::operator==(const Array& other) const { return items_ == other.items_; }
std::string Array::description() const { return describe(Value(*this), 0); }

// ---- Dictionary ----

Dictionary::Dictionary(std::initializer_list<std::pair<std::string, Value>> entries) {
  for (const auto& [key, value] : entries) set(key, value);
}

bool Dictionary::contains(std::string_view key) const { return find(key) != nullptr; }

namespace {

// Most dictionaries (a result's keys, a metric's four figures) are small: they are searched in
// order, which costs less than hashing and allocates nothing. The hash index is built once a
// dictionary grows past this many keys and kept from then on.
constexpr size_t kDictionaryIndexThreshold = 16;

}  // namespace

const Value* Dictionary::find(std::string_view key) const {
  if (index_.empty()) {
    for (size_t i = 0; i < keys_.size(); ++i) {
      if (keys_[i] == key) return &values_[i];
    }
    return nullptr;
  }
  auto it = index_.find(std::string(key));
  return it == index_.end() ? nullptr : &values_[it->second];
}

Value* Dictionary::find(std::string_view key) {
  return const_cast<Value*>(std::as_const(*this).find(key));
}

const Value& Dictionary::get(std::string_view key) const {
  const Value* v = find(key);
  return v ? *v : kNone;
}

void Dictionary::set(std::string key, Value value) {
  if (Value* existing = find(key)) {
    *existing = std::move(value);
    return;
  }
  if (!index_.empty()) {
    index_.emplace(key, keys_.size());
  } else if (keys_.size() + 1 > kDictionaryIndexThreshold) {
    for (size_t i = 0; i < keys_.size(); ++i) index_.emplace(keys_[i], i);
    index_.emplace(key, keys_.size());
  }
  keys_.push_back(std::move(key));
  values_.push_back(std::move(value));
}

bool Dictionary::erase(std::string_view key) {
  const Value* found = find(key);
  if (!found) return false;
  const size_t position = static_cast<size_t>(found - values_.data());
  // key may view the stored key itself, so the index lets go of it before the key goes.
  if (!index_.empty()) {
    index_.erase(std::string(key));
    for (auto& [k, i] : index_) {
      if (i > position) --i;
    }
  }
  keys_.erase(keys_.begin() + static_cast<std::ptrdiff_t>(position));
  values_.erase(values_.begin() + static_cast<std::ptrdiff_t>(position));
  return true;
}

void Dictionary::clear() {
  keys_.clear();
  values_.clear();
  index_.clear();
}

std::pair<const std::string&, const Value&> Dictionary::entry(size_t i) const {
  return {keys_[i], values_[i]};
}

bool Dictionary::operator==(const Dictionary& other) const {
  if (size() != other.size()) return false;
  for (size_t i = 0; i < keys_.size(); ++i) {
    const Value* theirs = other.find(keys_[i]);
    if (!theirs || !(values_[i] == *theirs)) return false;
  }
  return true;
}

std::string Dictionary::description() const { return describe(Value(*this), 0); }

// ---- Record ----

std::string Record::description() const {
  return vl::format("<%@: %p>", className(), static_cast<const void*>(this));
}

// ---- Value ----

std::string Value::stringOr(std::string_view fallback) const {
  if (auto* s = asString()) return *s;
  return std::string(fallback);
}

double Value::doubleOr(double fallback) const {
  if (auto* n = asNumber()) return n->doubleValue();
  return fallback;
}

int64_t Value::int64Or(int64_t fallback) const {
  if (auto* n = asNumber()) return n->int64Value();
  return fallback;
}

bool Value::boolOr(bool fallback) const {
  if (auto* n = asNumber()) return n->boolValue();
  return fallback;
}

bool Value::operator==(const Value& other) const {
  if (kind() != other.kind()) return false;
  switch (kind()) {
    case ValueKind::None:
      return true;
    case ValueKind::Number:
      return *asNumber() == *other.asNumber();
    case ValueKind::String:
      return *asString() == *other.asString();
    case ValueKind::Date:
      return *asDate() == *other.asDate();
    case ValueKind::Data:
      return *asData() == *other.asData();
    case ValueKind::Uuid:
      return *asUuid() == *other.asUuid();
    case ValueKind::Array:
      return *asArray() == *other.asArray();
    case ValueKind::Dictionary:
      return *asDictionary() == *other.asDictionary();
    case ValueKind::Record: {
      const RecordPtr& a = *asRecord();
      const RecordPtr& b = *other.asRecord();
      return a == b || a->isEqual(*b);
    }
  }
  return false;
}

std::string Value::description() const { return describe(*this, 0); }

std::string Value::className() const {
  switch (kind()) {
    case ValueKind::None:
      return "NSNull";
    case ValueKind::Number:
      return "NSNumber";
    case ValueKind::String:
      return "NSString";
    case ValueKind::Date:
      return "NSDate";
    case ValueKind::Data:
      return "NSData";
    case ValueKind::Uuid:
      return "NSUUID";
    case ValueKind::Array:
      return "NSArray";
    case ValueKind::Dictionary:
      return "NSDictionary";
    case ValueKind::Record:
      return (*asRecord())->className();
  }
  return "";
}

namespace {

std::string describeElement(const Value& v, int indent) {
  if (auto* s = v.asString()) return quotedIfNeeded(*s);
  if (v.isDate()) return quotedIfNeeded(v.asDate()->description());
  return describe(v, indent);
}

}  // namespace

std::string describe(const Value& v, int indent) {
  switch (v.kind()) {
    case ValueKind::None:
      return "(null)";
    case ValueKind::Number:
      return v.asNumber()->description();
    case ValueKind::String:
      return *v.asString();
    case ValueKind::Date:
      return v.asDate()->description();
    case ValueKind::Data:
      return v.asData()->description();
    case ValueKind::Uuid:
      return v.asUuid()->string();
    case ValueKind::Record:
      return (*v.asRecord())->description();
    case ValueKind::Array: {
      const Array& a = *v.asArray();
      std::string out = "(\n";
      for (size_t i = 0; i < a.size(); ++i) {
        out += indentation(indent + 1) + describeElement(a[i], indent + 1);
        out += i + 1 < a.size() ? ",\n" : "\n";
      }
      return out + indentation(indent) + ")";
    }
    case ValueKind::Dictionary: {
      const Dictionary& d = *v.asDictionary();
      std::string out = "{\n";
      for (size_t i = 0; i < d.size(); ++i) {
        auto [key, value] = d.entry(i);
        out += indentation(indent + 1) + quotedIfNeeded(key) + " = " +
               describeElement(value, indent + 1) + ";\n";
      }
      return out + indentation(indent) + "}";
    }
  }
  return "";
}

}  // namespace vl
