// IPM values: what an inter-process message to the stress service carries (see the D-Bus transport
// of the ipm module). A value is one of the typed kinds below. Descriptors are owned: a value holds
// a shared file handle, so copies of a message share the descriptor and the last one closes it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "vorlund/conversion/file_handle.h"
#include "vorlund/foundation/value.h"

namespace vl {

class IpmValue;
using IpmArray = std::vector<IpmValue>;

// String-keyed entries in the order they were set; setting a key again replaces its value in place.
class IpmDictionary {
 public:
  size_t size() const;
  bool empty() const;
  // The value for key, or nullptr.
  const IpmValue* find(std::string_view key) const;
  void set(std::string key, IpmValue value);
  const std::vector<std::pair<std::string, IpmValue>>& entries() const { return entries_; }

 private:
  std::vector<std::pair<std::string, IpmValue>> entries_;
};

// An IPM error object: the transport's report that a message failed (connection interrupted,
// invalid, ...).
struct IpmError {
  std::string description;
};

// Nanoseconds since 1970-01-01 00:00:00 UTC.
struct IpmDate {
  int64_t nanosecondsSince1970 = 0;
};

class IpmValue {
 public:
  // Persisted nowhere, but mapped onto transport types by number: never renumber.
  enum class Type {
    Null = 0,
    Double = 1,
    Int64 = 2,
    Uint64 = 3,
    Bool = 4,
    Date = 5,
    Data = 6,
    String = 7,
    FileDescriptor = 8,
    Array = 9,
    Dictionary = 10,
    Error = 11,
    Uuid = 12,
  };

  IpmValue() = default;  // null
  static IpmValue ofDouble(double v) { return make<1>(v); }
  static IpmValue ofInt64(int64_t v) { return make<2>(v); }
  static IpmValue ofUint64(uint64_t v) { return make<3>(v); }
  static IpmValue ofBool(bool v) { return make<4>(v); }
  static IpmValue ofDate(int64_t nanosecondsSince1970) { return make<5>(IpmDate{nanosecondsSince1970}); }
  static IpmValue ofData(std::vector<uint8_t> bytes) { return make<6>(Data(std::move(bytes))); }
  static IpmValue ofString(std::string s) { return make<7>(std::move(s)); }
  // Shares handle's descriptor; an empty handle gives a null value.
  static IpmValue ofFileHandle(std::shared_ptr<const FileHandle> handle) {
    return handle ? make<8>(std::move(handle)) : IpmValue();
  }
  static IpmValue ofArray(IpmArray items) { return make<9>(std::move(items)); }
  static IpmValue ofDictionary(IpmDictionary d) { return make<10>(std::move(d)); }
  static IpmValue ofError(std::string description) { return make<11>(IpmError{std::move(description)}); }
  static IpmValue ofUuid(Uuid u) { return make<12>(u); }

  Type type() const { return static_cast<Type>(v_.index()); }
  // "null", "double", "int64", "uint64", "bool", "date", "data", "string", "fd", "array",
  // "dictionary", "error", "uuid".
  const char* typeName() const;

  // Typed views: nullptr when the value is of another type.
  const double* asDouble() const { return std::get_if<1>(&v_); }
  const int64_t* asInt64() const { return std::get_if<2>(&v_); }
  const uint64_t* asUint64() const { return std::get_if<3>(&v_); }
  const bool* asBool() const { return std::get_if<4>(&v_); }
  const IpmDate* asDate() const { return std::get_if<5>(&v_); }
  const Data* asData() const { return std::get_if<6>(&v_); }
  const std::string* asString() const { return std::get_if<7>(&v_); }
  const std::shared_ptr<const FileHandle>* asFileHandle() const { return std::get_if<8>(&v_); }
  const IpmArray* asArray() const { return std::get_if<9>(&v_); }
  const IpmDictionary* asDictionary() const { return std::get_if<10>(&v_); }
  const IpmError* asError() const { return std::get_if<11>(&v_); }
  const Uuid* asUuid() const { return std::get_if<12>(&v_); }

  // "<int64: 5>", "<string: \"abc\">", "<dictionary: { count = 2 }>", "<error: reason>": what "%@"
  // prints in the conversion logs.
  std::string description() const;

 private:
  using Storage = std::variant<std::monostate, double, int64_t, uint64_t, bool, IpmDate, Data,
                               std::string, std::shared_ptr<const FileHandle>, IpmArray,
                               IpmDictionary, IpmError, Uuid>;
  template <size_t I, typename T>
  static IpmValue make(T&& v) {
    IpmValue out;
    out.v_.emplace<I>(std::forward<T>(v));
    return out;
  }
  Storage v_;
};

// Defined where IpmValue is complete: clang instantiates the vector members they use eagerly.
inline size_t IpmDictionary::size() const { return entries_.size(); }
inline bool IpmDictionary::empty() const { return entries_.empty(); }

}  // namespace vl
