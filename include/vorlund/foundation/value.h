// The one value type of Vorlund: what a property list, a keyed archive, a JSON text or an IPM
// message holds. A value is none, a number (with its type code), a UTF-8 string, a date, bytes, a
// UUID, an array, an insertion-ordered dictionary, or a shared reference to a record.
//
// Arrays and dictionaries have value semantics: copying one copies its elements (records inside stay
// shared, as references do).
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace vl {

class Value;
class Record;

// A number that remembers how it was made. The type code decides how it crosses a process boundary
// and how it is printed: 'B' bool, 'c' char, 's' short, 'i' int32, 'l' long, 'q' int64, 'Q' uint64,
// 'f' float, 'd' double.
class Number {
 public:
  Number() : Number(int64_t{0}) {}
  Number(bool v) : type_('B'), storage_(static_cast<int64_t>(v)) {}
  Number(int32_t v) : type_('i'), storage_(static_cast<int64_t>(v)) {}
  Number(int64_t v) : type_('q'), storage_(v) {}
  Number(long long v) : type_('q'), storage_(static_cast<int64_t>(v)) {}
  Number(uint64_t v) : type_('Q'), storage_(v) {}
  Number(unsigned long long v) : type_('Q'), storage_(static_cast<uint64_t>(v)) {}
  Number(uint32_t v) : type_('q'), storage_(static_cast<int64_t>(v)) {}
  Number(double v) : type_('d'), storage_(v) {}
  Number(float v) : type_('f'), storage_(static_cast<double>(v)) {}

  // Explicit type codes: char 'c', short 's', long 'l'.
  static Number withChar(int8_t v);
  static Number withShort(int16_t v);
  static Number withLong(int64_t v);

  char typeCode() const { return type_; }
  bool isBool() const { return type_ == 'B'; }
  bool isFloatingPoint() const { return type_ == 'd' || type_ == 'f'; }
  bool isUnsigned() const { return type_ == 'Q'; }

  bool boolValue() const;
  int64_t int64Value() const;
  uint64_t uint64Value() const;
  double doubleValue() const;

  // Numeric comparison across type codes (1 equals 1.0 equals true).
  bool operator==(const Number& other) const;
  int compare(const Number& other) const;

  // "1", "-3", "0.5", "1e+20": the shortest text that reads back as the same number.
  std::string description() const;

 private:
  Number(char type, std::variant<int64_t, uint64_t, double> storage)
      : type_(type), storage_(storage) {}
  char type_;
  std::variant<int64_t, uint64_t, double> storage_;
};

// A point in time: seconds since 1970-01-01 00:00:00 UTC.
struct Date {
  double secondsSince1970 = 0;

  static Date now();
  // The reference date of keyed archives and binary property lists: 2001-01-01 00:00:00 UTC.
  static constexpr double kReferenceDateOffset = 978307200.0;
  double secondsSinceReferenceDate() const { return secondsSince1970 - kReferenceDateOffset; }
  static Date fromReferenceDate(double s) { return Date{s + kReferenceDateOffset}; }

  bool operator==(const Date&) const = default;
  auto operator<=>(const Date&) const = default;
  // "2026-01-31 08:15:02 +0000"
  std::string description() const;
};

// Raw bytes.
struct Data {
  std::vector<uint8_t> bytes;

  Data() = default;
  explicit Data(std::vector<uint8_t> b) : bytes(std::move(b)) {}
  static Data fromString(std::string_view s) { return Data(std::vector<uint8_t>(s.begin(), s.end())); }
  std::string_view view() const {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }
  size_t size() const { return bytes.size(); }
  bool operator==(const Data&) const = default;
  // "<0a1b2c3d 4e>" in groups of four bytes.
  std::string description() const;
};

// A 128-bit UUID. Its text form is the canonical upper-case one.
class Uuid {
 public:
  Uuid() = default;  // all zero
  explicit Uuid(const std::array<uint8_t, 16>& bytes) : bytes_(bytes) {}
  static Uuid random();
  // Accepts either case; none for anything that is not a canonical 36-character UUID.
  static std::optional<Uuid> fromString(std::string_view text);
  // A fresh random UUID as its upper-case string: the instance and message identifiers.
  static std::string randomString() { return random().string(); }

  const std::array<uint8_t, 16>& bytes() const { return bytes_; }
  std::string string() const;
  bool operator==(const Uuid&) const = default;

 private:
  std::array<uint8_t, 16> bytes_{};
};

class Array {
 public:
  Array() = default;
  Array(std::initializer_list<Value> values);
  explicit Array(std::vector<Value> values);

  size_t size() const;
  bool empty() const;
  const Value& operator[](size_t i) const;
  Value& operator[](size_t i);
  const Value& at(size_t i) const;
  void push_back(Value v);
  void insert(size_t index, Value v);
  void erase(size_t index);
  void clear();
  bool contains(const Value& v) const;

  std::vector<Value>::const_iterator begin() const;
  std::vector<Value>::const_iterator end() const;
  std::vector<Value>::iterator begin();
  std::vector<Value>::iterator end();
  const std::vector<Value>& values() const { return items_; }

  bool operator==(const Array& other) const;
  std::string description() const;

 private:
  std::vector<Value> items_;
};

// String-keyed dictionary that keeps the order in which keys were first set, with keyed lookup.
class Dictionary {
 public:
  Dictionary() = default;
  Dictionary(std::initializer_list<std::pair<std::string, Value>> entries);

  size_t size() const { return keys_.size(); }
  bool empty() const { return keys_.empty(); }
  bool contains(std::string_view key) const;
  // The value for key, or nullptr when absent.
  const Value* find(std::string_view key) const;
  Value* find(std::string_view key);
  // The value for key, or a none value when absent.
  const Value& get(std::string_view key) const;
  // Sets key to value; a key already present keeps its place.
  void set(std::string key, Value value);
  // Removes key; returns whether it was there.
  bool erase(std::string_view key);
  void clear();

  const std::vector<std::string>& keys() const { return keys_; }
  const std::vector<Value>& values() const { return values_; }
  // Entry i in insertion order.
  std::pair<const std::string&, const Value&> entry(size_t i) const;

  // Order-insensitive equality, as dictionaries compare.
  bool operator==(const Dictionary& other) const;
  std::string description() const;

 private:
  std::vector<std::string> keys_;
  std::vector<Value> values_;
  std::unordered_map<std::string, size_t> index_;
};

// Base of every record that a value can hold by reference (test case definitions, results, issues,
// ...). A codable record also registers itself with the keyed archiver (conversion/keyed_archive.h).
class Record : public std::enable_shared_from_this<Record> {
 public:
  virtual ~Record() = default;
  // The class name written into archives and printed by descriptions.
  virtual std::string className() const = 0;
  // The text that "%@" prints.
  virtual std::string description() const;
  // Equality as the record defines it; by default, identity.
  virtual bool isEqual(const Record& other) const { return this == &other; }
  // The dictionary form of the record, for JSON and for people; by default, empty.
  virtual Dictionary dictionaryRepresentation() const;
};
using RecordPtr = std::shared_ptr<Record>;

enum class ValueKind { None, Number, String, Date, Data, Uuid, Array, Dictionary, Record };

class Value {
 public:
  Value() = default;
  Value(std::nullptr_t) {}
  Value(Number n) : v_(n) {}
  Value(bool b) : v_(Number(b)) {}
  Value(int32_t i) : v_(Number(i)) {}
  Value(int64_t i) : v_(Number(i)) {}
  Value(long long i) : v_(Number(i)) {}
  Value(uint64_t i) : v_(Number(i)) {}
  Value(unsigned long long i) : v_(Number(i)) {}
  Value(uint32_t i) : v_(Number(i)) {}
  Value(double d) : v_(Number(d)) {}
  Value(float f) : v_(Number(f)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(char* s) : v_(std::string(s)) {}
  // Any other pointer would silently become a boolean.
  template <typename T>
  Value(T*) = delete;
  Value(Date d) : v_(d) {}
  Value(Data d) : v_(std::move(d)) {}
  Value(Uuid u) : v_(u) {}
  Value(Array a) : v_(std::move(a)) {}
  Value(Dictionary d) : v_(std::move(d)) {}
  template <typename T, typename = std::enable_if_t<std::is_base_of_v<Record, T>>>
  Value(std::shared_ptr<T> r) {
    if (r) v_ = RecordPtr(std::move(r));
  }

  ValueKind kind() const { return static_cast<ValueKind>(v_.index()); }
  bool isNone() const { return kind() == ValueKind::None; }
  bool isNumber() const { return kind() == ValueKind::Number; }
  bool isString() const { return kind() == ValueKind::String; }
  bool isDate() const { return kind() == ValueKind::Date; }
  bool isData() const { return kind() == ValueKind::Data; }
  bool isUuid() const { return kind() == ValueKind::Uuid; }
  bool isArray() const { return kind() == ValueKind::Array; }
  bool isDictionary() const { return kind() == ValueKind::Dictionary; }
  bool isRecord() const { return kind() == ValueKind::Record; }
  explicit operator bool() const { return !isNone(); }

  // Typed views: nullptr when the value is of another kind.
  const Number* asNumber() const { return std::get_if<Number>(&v_); }
  const std::string* asString() const { return std::get_if<std::string>(&v_); }
  const Date* asDate() const { return std::get_if<Date>(&v_); }
  const Data* asData() const { return std::get_if<Data>(&v_); }
  const Uuid* asUuid() const { return std::get_if<Uuid>(&v_); }
  const Array* asArray() const { return std::get_if<Array>(&v_); }
  Array* asArray() { return std::get_if<Array>(&v_); }
  const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&v_); }
  Dictionary* asDictionary() { return std::get_if<Dictionary>(&v_); }
  const RecordPtr* asRecord() const { return std::get_if<RecordPtr>(&v_); }
  // The record as T, or nullptr when the value holds no T.
  template <typename T>
  std::shared_ptr<T> record() const {
    auto* r = asRecord();
    return r ? std::dynamic_pointer_cast<T>(*r) : nullptr;
  }

  // Convenience readers with a fallback for other kinds.
  std::string stringOr(std::string_view fallback) const;
  double doubleOr(double fallback) const;
  int64_t int64Or(int64_t fallback) const;
  bool boolOr(bool fallback) const;

  // Deep equality: numbers numerically, dictionaries order-insensitively, records by isEqual.
  bool operator==(const Value& other) const;

  // The classic text property-list form, as "%@" prints it; "(null)" for none.
  std::string description() const;
  // Name of the kind's class, as messages print it ("NSString", "NSNumber", "NSDictionary", ...;
  // a record's own class name).
  std::string className() const;

 private:
  std::variant<std::monostate, Number, std::string, Date, Data, Uuid, Array, Dictionary, RecordPtr>
      v_;
};

// Defined here, where Value is complete: clang instantiates the vector members they use eagerly.
inline size_t Array::size() const { return items_.size(); }
inline bool Array::empty() const { return items_.empty(); }
inline void Array::clear() { items_.clear(); }
inline Dictionary Record::dictionaryRepresentation() const { return {}; }

// Description of one value at a given indentation depth, for nested printing.
std::string describe(const Value& v, int indent);

}  // namespace vl
