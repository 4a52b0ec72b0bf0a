// Keyed archives: object graphs as binary property lists in the standard keyed-archive layout
// ("$archiver", "$version" 100000, "$top", "$objects" with UID references, "$classname"/"$classes";
// dictionaries as NS.keys/NS.objects, arrays as NS.objects, dates as NS.time since 2001-01-01, UUIDs
// as NS.uuidbytes), so that host tools that read keyed archives read ours and we read theirs.
//
// Records encode and decode themselves through their coding methods and register their class here.
// Decoding is always secure: it takes a set of allowed class names and refuses any other class with
// an error. A malformed archive (bad references, cycles, wrong types, truncation) gives an error,
// never a crash.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

namespace vl {

// Class names as they appear in archives.
using ClassSet = std::set<std::string, std::less<>>;
inline constexpr const char* kClassString = "NSString";
inline constexpr const char* kClassNumber = "NSNumber";
inline constexpr const char* kClassDate = "NSDate";
inline constexpr const char* kClassData = "NSData";
inline constexpr const char* kClassUuid = "NSUUID";
inline constexpr const char* kClassArray = "NSArray";
inline constexpr const char* kClassDictionary = "NSDictionary";
inline constexpr const char* kClassRoot = "NSObject";

// The error domain and code of archive failures.
inline constexpr const char* kKeyedArchiveErrorDomain = "NSCocoaErrorDomain";
inline constexpr int64_t kKeyedArchiveReadCorruptError = 4864;
inline constexpr int64_t kKeyedArchiveWriteError = 4866;

class KeyedArchiver;
class KeyedUnarchiver;

// A record that can be archived.
class CodableRecord : public Record {
 public:
  virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
};

// What the archiver knows of a codable class.
struct CodableClass {
  std::string name;
  // Superclass names, nearest first, ending with "NSObject".
  std::vector<std::string> superclasses;
  // Builds the record from an archive; returns nullptr (having called failWithError) on failure.
  std::function<std::shared_ptr<CodableRecord>(KeyedUnarchiver&)> decode;
  // Builds the record from its dictionary form; optional. Returns nullptr with error on failure.
  std::function<std::shared_ptr<CodableRecord>(const Dictionary&, Error*)> fromDictionary;
};

// Registers a codable class (usually from a static initialiser in the record's source file).
// Returns true, so that it can initialise a constant.
bool registerCodableClass(CodableClass cls);
// The registered class of that name, or nullptr.
const CodableClass* findCodableClass(std::string_view name);

// Writes the keys of one record. Used only inside encodeWithCoder.
class KeyedArchiver {
 public:
  // Encodes any value by reference (none values are encoded as the null reference).
  void encodeObject(const Value& value, std::string_view key);
  // Scalars are stored inline in the record's dictionary.
  void encodeBool(bool value, std::string_view key);
  void encodeInt64(int64_t value, std::string_view key);
  void encodeDouble(double value, std::string_view key);

  struct Impl;
  explicit KeyedArchiver(Impl& impl, void* objectNode) : impl_(impl), node_(objectNode) {}

 private:
  Impl& impl_;
  void* node_;
};

// Reads the keys of one record. Used only inside a class's decode function. Every typed reader
// returns none when the key is absent; when the key holds something of another type it fails the
// whole decode with an error and returns none.
class KeyedUnarchiver {
 public:
  bool containsValue(std::string_view key) const;

  // The object for key if its class (and, for collections, every element's) is in classes and in
  // the archive's allowed set; none when absent.
  Value decodeObject(std::string_view key, const ClassSet& classes);
  std::optional<std::string> decodeString(std::string_view key);
  std::optional<Number> decodeNumber(std::string_view key);
  std::optional<Date> decodeDate(std::string_view key);
  std::optional<Uuid> decodeUuid(std::string_view key);
  // Collections whose elements may be any plain value (strings, numbers, dates, data, UUIDs,
  // arrays, dictionaries) or, in addition, one of extraClasses.
  std::optional<Array> decodeArray(std::string_view key, const ClassSet& extraClasses = {});
  std::optional<Dictionary> decodeDictionary(std::string_view key, const ClassSet& extraClasses = {});
  // Inline scalars (numbers are accepted as well); the fallback when absent.
  bool decodeBool(std::string_view key, bool fallback = false);
  int64_t decodeInt64(std::string_view key, int64_t fallback = 0);
  double decodeDouble(std::string_view key, double fallback = 0);

  // Fails the whole decode; the first error wins.
  void failWithError(Error error);
  bool failed() const;

  struct Impl;
  explicit KeyedUnarchiver(Impl& impl, const void* objectNode) : impl_(impl), node_(objectNode) {}

 private:
  Impl& impl_;
  const void* node_;
};

// The classes of every plain value: strings, numbers, dates, data, UUIDs, arrays, dictionaries.
const ClassSet& plainValueClasses();

// Archives a value graph (the root may be a plain value or a record) into a binary property list.
// None, with error, when it holds a record that is not codable.
std::optional<std::string> archive(const Value& root, Error* error = nullptr);

// Unarchives bytes written by archive() or by any keyed archiver, allowing only the classes in
// allowed, their mutable forms (NSMutableArray, NSMutableDictionary, NSMutableString,
// NSMutableData) and registered classes whose registered superclasses include an allowed one. A
// class is judged by its "$classname": the "$classes" chain an archive claims is ignored, so an
// unknown class is refused whatever it claims to descend from. None, with an error naming the
// problem, for refused classes and malformed archives.
std::optional<Value> unarchive(std::string_view bytes, const ClassSet& allowed,
                               Error* error = nullptr);

// Whether bytes look like a keyed archive (a property list with "$archiver" and "$objects").
bool isKeyedArchive(std::string_view bytes);

}  // namespace vl
