// The keyed archiver and unarchiver over libplist nodes.
//
// Choices worth knowing:
// - Collections are written with the immutable class names (NSArray, NSDictionary), as an immutable
//   copy is what a value is; decoding also takes the mutable forms (NSMutableArray and the like).
// - A class is judged by its "$classname" and what this process knows of that name, never by the
//   "$classes" chain the archive claims for it: an unknown class is refused whatever it claims.
// - libplist 2.2 keeps every integer as an unsigned 64-bit value. An integer read back with its top
//   bit set is a negative int64 ('q'), unless the archive stored it as a 16-byte integer, which is
//   how an unsigned value above the int64 range is written; that one reads back as 'Q'. Every other
//   integer reads back as 'q', booleans as 'B' and reals as 'd'.
// - Records are de-duplicated by identity and decoded once per reference; plain values are written
//   as they come. An object that contains itself is refused when decoding, since a record is built
//   only after its contents.
#include "vorlund/conversion/keyed_archive.h"

#include <plist/plist.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <unordered_map>

#include "conversion/binary_plist_writer.h"
#include "vorlund/foundation/utf8.h"
#include "foundation/plist_guard.h"
#include "foundation/plist_nodes.h"
#include "vorlund/foundation/format.h"

namespace vl {

namespace {

constexpr const char* kArchiverName = "NSKeyedArchiver";
constexpr uint64_t kArchiveVersion = 100000;
constexpr const char* kNullObject = "$null";
// The nesting limit of archiving and unarchiving alike, well within the stack of any thread.
constexpr int kMaxDepth = 512;
// Decoding expands shared plain values into copies; these bound what one archive may expand into.
constexpr uint64_t kBaseDecodeNodeBudget = 1'000'000;
constexpr uint64_t kBaseDecodeByteBudget = uint64_t{64} << 20;

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

Error archiveError(int64_t code, const std::string& description) {
  return Error::withDescription(kKeyedArchiveErrorDomain, code, description);
}

Error corruptError(const std::string& reason) {
  return archiveError(kKeyedArchiveReadCorruptError,
                      "The data couldn't be read because it isn't in the correct format: " + reason);
}

// A reference: a UID node, or the {"CF$UID": n} dictionary that XML property lists use for one.
bool readUid(plist_t node, uint64_t* out) {
  if (!node) return false;
  plist_type type = plist_get_node_type(node);
  if (type == PLIST_UID) {
    plist_get_uid_val(node, out);
    return true;
  }
  if (type == PLIST_DICT && plist_dict_get_size(node) == 1) {
    plist_t value = plist_dict_get_item(node, "CF$UID");
    if (value && plist_get_node_type(value) == PLIST_UINT) {
      plist_get_uint_val(value, out);
      return true;
    }
  }
  return false;
}


std::optional<std::string_view> readString(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  if (!text) return std::string_view();
  return std::string_view(text, length);
}

std::optional<std::string_view> readData(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_DATA) return std::nullopt;
  uint64_t length = 0;
  const char* bytes = plist_get_data_ptr(node, &length);
  if (!bytes) return std::string_view();
  return std::string_view(bytes, length);
}

// An integer node that the binary writer stores in 16 bytes; libplist makes one only when it
// reads an integer above the int64 range.
plist_t newWideUnsigned(uint64_t value) {
  std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><integer>" +
      std::to_string(value) + "</integer></plist>";
  plist_t node = nullptr;
  plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &node);
  if (node && plist_get_node_type(node) != PLIST_UINT) {
    plist_free(node);
    node = nullptr;
  }
  return node;
}

std::optional<Number> readNumber(plist_t node) {
  if (!node) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Number(b != 0);
    }
    case PLIST_UINT: {
      uint64_t v = 0;
      plist_get_uint_val(node, &v);
      if ((v >> 63) != 0 && plist_nodes::isMarkedUnsigned(node)) return Number(v);
      return Number(static_cast<int64_t>(v));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Number(d);
    }
    default:
      return std::nullopt;
  }
}

struct Registry {
  std::mutex mutex;
  std::map<std::string, CodableClass, std::less<>> classes;
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: classes register from static initialisers
  return *r;
}

std::string joined(const ClassSet& set) {
  std::string out;
  for (const auto& name : set) {
    if (!out.empty()) out += ", ";
    out += name;
  }
  return out;
}

ClassSet intersection(const ClassSet& a, const ClassSet& b) {
  ClassSet out;
  for (const auto& name : a) {
    if (b.count(name)) out.insert(name);
  }
  return out;
}

}  // namespace

// ---- registry ----

bool registerCodableClass(CodableClass cls) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  // The first registration of a name wins: pointers handed out by findCodableClass stay valid.
  r.classes.try_emplace(cls.name, std::move(cls));
  return true;
}

const CodableClass* findCodableClass(std::string_view name) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  auto it = r.classes.find(name);
  return it == r.classes.end() ? nullptr : &it->second;
}

const ClassSet& plainValueClasses() {
  static const ClassSet* classes = new ClassSet{kClassString, kClassNumber, kClassDate, kClassData,
                                                kClassUuid,   kClassArray,  kClassDictionary};
  return *classes;
}

// ---- archiving ----

struct KeyedArchiver::Impl {
  std::vector<plist_t> objects;  // owned until handed to the "$objects" array
  std::unordered_map<std::string, uint64_t> classUids;
  std::unordered_map<const Record*, uint64_t> recordUids;
  std::optional<Error> error;
  int depth = 0;

  Impl() { objects.push_back(plist_new_string(kNullObject)); }
  ~Impl() {
    for (plist_t node : objects) plist_free(node);
  }

  void fail(const std::string& description) {
    if (!error) error = archiveError(kKeyedArchiveWriteError, description);
  }

  uint64_t add(plist_t node) {
    objects.push_back(node);
    return objects.size() - 1;
  }

  uint64_t classUid(const std::string& name, const std::vector<std::string>& chain) {
    if (auto it = classUids.find(name); it != classUids.end()) return it->second;
    plist_t cls = plist_new_dict();
    plist_dict_set_item(cls, "$classname", plist_new_string(name.c_str()));
    plist_t classes = plist_new_array();
    plist_array_append_item(classes, plist_new_string(name.c_str()));
    for (const auto& super : chain) plist_array_append_item(classes, plist_new_string(super.c_str()));
    plist_dict_set_item(cls, "$classes", classes);
    uint64_t uid = add(cls);
    classUids.emplace(name, uid);
    return uid;
  }

  uint64_t plainClassUid(const char* name) { return classUid(name, {kClassRoot}); }

  // A new dictionary object of a plain class, with its "$class" set.
  plist_t newClassedObject(const char* className, uint64_t* uid) {
    uint64_t cls = plainClassUid(className);
    plist_t node = plist_new_dict();
    plist_dict_set_item(node, "$class", plist_new_uid(cls));
    *uid = add(node);
    return node;
  }

  bool checkString(const std::string& s) {
    if (s.find('\0') != std::string::npos) {
      fail("A string holds a NUL character, which a keyed archive cannot store");
      return false;
    }
    if (!vl::isValidUtf8(s)) {
      fail("A string is not valid UTF-8");
      return false;
    }
    return true;
  }

  plist_t newNumber(const Number& n) {
    switch (n.typeCode()) {
      case 'B':
        return plist_new_bool(n.boolValue() ? 1 : 0);
      case 'd':
      case 'f':
        return plist_new_real(n.doubleValue());
      case 'Q':
        if (n.uint64Value() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
          plist_t wide = newWideUnsigned(n.uint64Value());
          if (!wide) fail("An unsigned number could not be stored");
          return wide;
        }
        return plist_new_uint(n.uint64Value());
      default:
        return plist_new_uint(static_cast<uint64_t>(n.int64Value()));
    }
  }

  uint64_t encode(const Value& value) {
    if (error || value.isNone()) return 0;
    if (depth >= kMaxDepth) {
      fail("The object graph is nested too deeply to archive");
      return 0;
    }
    ++depth;
    uint64_t uid = encodeUnchecked(value);
    --depth;
    return error ? 0 : uid;
  }

  uint64_t encodeUnchecked(const Value& value) {
    switch (value.kind()) {
      case ValueKind::None:
        return 0;
      case ValueKind::Number: {
        plist_t node = newNumber(*value.asNumber());
        return node ? add(node) : 0;
      }
      case ValueKind::String:
        if (!checkString(*value.asString())) return 0;
        return add(plist_new_string(value.asString()->c_str()));
      case ValueKind::Data: {
        const Data& d = *value.asData();
        return add(plist_new_data(reinterpret_cast<const char*>(d.bytes.data()), d.size()));
      }
      case ValueKind::Date: {
        uint64_t uid;
        plist_t node = newClassedObject(kClassDate, &uid);
        plist_dict_set_item(node, "NS.time",
                            plist_new_real(value.asDate()->secondsSinceReferenceDate()));
        return uid;
      }
      case ValueKind::Uuid: {
        uint64_t uid;
        plist_t node = newClassedObject(kClassUuid, &uid);
        const auto& bytes = value.asUuid()->bytes();
        plist_dict_set_item(node, "NS.uuidbytes",
                            plist_new_data(reinterpret_cast<const char*>(bytes.data()), 16));
        return uid;
      }
      case ValueKind::Array: {
        uint64_t uid;
        plist_t node = newClassedObject(kClassArray, &uid);
        plist_t refs = plist_new_array();
        plist_dict_set_item(node, "NS.objects", refs);
        for (const Value& element : *value.asArray()) {
          uint64_t ref = encode(element);
          if (error) return 0;
          plist_array_append_item(refs, plist_new_uid(ref));
        }
        return uid;
      }
      case ValueKind::Dictionary: {
        uint64_t uid;
        plist_t node = newClassedObject(kClassDictionary, &uid);
        plist_t keys = plist_new_array();
        plist_t refs = plist_new_array();
        plist_dict_set_item(node, "NS.keys", keys);
        plist_dict_set_item(node, "NS.objects", refs);
        const Dictionary& d = *value.asDictionary();
        for (size_t i = 0; i < d.size(); ++i) {
          auto [key, element] = d.entry(i);
          uint64_t keyRef = encode(Value(key));
          uint64_t ref = encode(element);
          if (error) return 0;
          plist_array_append_item(keys, plist_new_uid(keyRef));
          plist_array_append_item(refs, plist_new_uid(ref));
        }
        return uid;
      }
      case ValueKind::Record:
        return encodeRecord(*value.asRecord());
    }
    return 0;
  }

  uint64_t encodeRecord(const RecordPtr& record) {
    if (auto it = recordUids.find(record.get()); it != recordUids.end()) return it->second;
    auto codable = std::dynamic_pointer_cast<const CodableRecord>(record);
    if (!codable) {
      fail(vl::format("An object of class '%@' does not support keyed coding",
                      record->className()));
      return 0;
    }
    std::string name = codable->className();
    std::vector<std::string> chain{kClassRoot};
    if (const CodableClass* cls = findCodableClass(name)) chain = cls->superclasses;
    plist_t node = plist_new_dict();
    uint64_t uid = add(node);
    recordUids.emplace(record.get(), uid);
    KeyedArchiver coder(*this, node);
    try {
      codable->encodeWithCoder(coder);
    } catch (const std::exception& e) {
      fail(vl::format("Encoding an object of class '%@' failed: %s", name, e.what()));
    }
    if (error) return 0;
    if (!checkString(name)) return 0;
    plist_dict_set_item(node, "$class", plist_new_uid(classUid(name, chain)));
    return uid;
  }

  std::optional<std::string> finish(uint64_t rootUid) {
    PlistPtr top(plist_new_dict());
    plist_dict_set_item(top.get(), "$version", plist_new_uint(kArchiveVersion));
    plist_dict_set_item(top.get(), "$archiver", plist_new_string(kArchiverName));
    plist_t rootRef = plist_new_dict();
    plist_dict_set_item(rootRef, "root", plist_new_uid(rootUid));
    plist_dict_set_item(top.get(), "$top", rootRef);
    plist_t list = plist_new_array();
    for (plist_t node : objects) plist_array_append_item(list, node);
    objects.clear();
    plist_dict_set_item(top.get(), "$objects", list);
    std::optional<std::string> out = conversion::writeBinaryPlist(top.get());
    if (!out) fail("The property-list writer failed");
    return out;
  }
};

void KeyedArchiver::encodeObject(const Value& value, std::string_view key) {
  std::string k(key);
  if (!impl_.checkString(k)) return;
  uint64_t uid = impl_.encode(value);
  if (impl_.error) return;
  plist_dict_set_item(static_cast<plist_t>(node_), k.c_str(), plist_new_uid(uid));
}

void KeyedArchiver::encodeBool(bool value, std::string_view key) {
  std::string k(key);
  if (!impl_.checkString(k)) return;
  plist_dict_set_item(static_cast<plist_t>(node_), k.c_str(), plist_new_bool(value ? 1 : 0));
}

void KeyedArchiver::encodeInt64(int64_t value, std::string_view key) {
  std::string k(key);
  if (!impl_.checkString(k)) return;
  plist_dict_set_item(static_cast<plist_t>(node_), k.c_str(),
                      plist_new_uint(static_cast<uint64_t>(value)));
}

void KeyedArchiver::encodeDouble(double value, std::string_view key) {
  std::string k(key);
  if (!impl_.checkString(k)) return;
  plist_dict_set_item(static_cast<plist_t>(node_), k.c_str(), plist_new_real(value));
}

std::optional<std::string> archive(const Value& root, Error* error) {
  try {
    KeyedArchiver::Impl impl;
    uint64_t rootUid = impl.encode(root);
    std::optional<std::string> bytes;
    if (!impl.error) bytes = impl.finish(rootUid);
    if (impl.error) {
      setError(error, *impl.error);
      return std::nullopt;
    }
    return bytes;
  } catch (const std::exception& e) {
    setError(error, archiveError(kKeyedArchiveWriteError, e.what()));
    return std::nullopt;
  }
}

// ---- unarchiving ----

struct KeyedUnarchiver::Impl {
  enum class Kind { String, Number, Date, Data, Uuid, Array, Dictionary };

  std::vector<plist_t> objects;
  uint32_t count;
  const ClassSet& allowed;
  std::vector<bool> inProgress;
  std::unordered_map<uint64_t, RecordPtr> records;
  std::optional<Error> error;
  int depth = 0;
  uint64_t nodes = 0;
  uint64_t bytes = 0;
  uint64_t nodeBudget;
  uint64_t byteBudget;

  Impl(plist_t objectList, const ClassSet& allowedClasses, size_t archiveSize)
      : objects(plist_nodes::arrayItems(objectList)),
        count(static_cast<uint32_t>(objects.size())),
        allowed(allowedClasses),
        inProgress(count, false),
        nodeBudget(kBaseDecodeNodeBudget + 4 * uint64_t{count}),
        byteBudget(kBaseDecodeByteBudget + 4 * uint64_t{archiveSize}) {}

  void fail(Error e) {
    if (!error) error = std::move(e);
  }
  Value corrupt(const std::string& reason) {
    fail(corruptError(reason));
    return {};
  }
  Value refuse(const std::string& className, const ClassSet& classes) {
    fail(archiveError(kKeyedArchiveReadCorruptError,
                      vl::format("The archive holds an object of class '%@', which is not among the "
                                 "allowed classes (%@)",
                                 className, joined(classes))));
    return {};
  }

  bool spend(uint64_t byteCount) {
    ++nodes;
    bytes += byteCount;
    if (nodes > nodeBudget || bytes > byteBudget) {
      corrupt("the archive expands beyond the size limit");
      return false;
    }
    return true;
  }

  static const char* className(Kind kind) {
    switch (kind) {
      case Kind::String: return kClassString;
      case Kind::Number: return kClassNumber;
      case Kind::Date: return kClassDate;
      case Kind::Data: return kClassData;
      case Kind::Uuid: return kClassUuid;
      case Kind::Array: return kClassArray;
      case Kind::Dictionary: return kClassDictionary;
    }
    return kClassRoot;
  }

  static std::optional<Kind> plainKind(std::string_view name) {
    static const std::map<std::string_view, Kind> kinds{
        {kClassString, Kind::String}, {kClassNumber, Kind::Number},
        {kClassDate, Kind::Date},     {kClassData, Kind::Data},
        {kClassUuid, Kind::Uuid},     {kClassArray, Kind::Array},
        {kClassDictionary, Kind::Dictionary}};
    auto it = kinds.find(name);
    if (it == kinds.end()) return std::nullopt;
    return it->second;
  }

  Value decode(uint64_t uid, const ClassSet& classes) {
    if (error || uid == 0) return {};
    if (uid >= count) {
      return corrupt(vl::format("reference %llu is outside the %u archived objects",
                                static_cast<unsigned long long>(uid), count));
    }
    if (depth >= kMaxDepth) return corrupt("the archive is nested too deeply");
    if (inProgress[uid]) {
      return corrupt(vl::format("object %llu contains itself", static_cast<unsigned long long>(uid)));
    }
    ++depth;
    inProgress[uid] = true;
    Value v = decodeObject(uid, objects[uid], classes);
    inProgress[uid] = false;
    --depth;
    if (error) return {};
    return v;
  }

  Value plainLeaf(plist_t node, Kind kind, const ClassSet& classes) {
    if (!classes.count(className(kind))) return refuse(className(kind), classes);
    if (kind == Kind::String) {
      auto s = readString(node);
      if (!spend(s->size())) return {};
      return Value(*s);
    }
    if (kind == Kind::Data) {
      auto d = readData(node);
      if (!spend(d->size())) return {};
      const auto* p = reinterpret_cast<const uint8_t*>(d->data());
      return Value(Data(std::vector<uint8_t>(p, p + d->size())));
    }
    if (!spend(0)) return {};
    return Value(*readNumber(node));
  }

  Value decodeObject(uint64_t uid, plist_t node, const ClassSet& classes) {
    switch (node ? plist_get_node_type(node) : PLIST_NONE) {
      case PLIST_STRING:
        return plainLeaf(node, Kind::String, classes);
      case PLIST_DATA:
        return plainLeaf(node, Kind::Data, classes);
      case PLIST_UINT:
      case PLIST_REAL:
      case PLIST_BOOLEAN:
        return plainLeaf(node, Kind::Number, classes);
      case PLIST_DICT:
        break;
      default:
        return corrupt(vl::format("object %llu has an unexpected type",
                                  static_cast<unsigned long long>(uid)));
    }
    uint64_t classRef = 0;
    if (!readUid(plist_dict_get_item(node, "$class"), &classRef)) {
      return corrupt(vl::format("object %llu has no class", static_cast<unsigned long long>(uid)));
    }
    if (classRef == 0 || classRef >= count) return corrupt("a class reference is out of bounds");
    plist_t cls = objects[classRef];
    if (!cls || plist_get_node_type(cls) != PLIST_DICT) return corrupt("a class is not a dictionary");
    auto name = readString(plist_dict_get_item(cls, "$classname"));
    if (!name) return corrupt("a class has no name");
    // The archive's own "$classes" is not trusted: the class is judged by its name alone.
    if (!isAllowed(*name, classes)) return refuse(std::string(*name), classes);
    if (const CodableClass* codable = findCodableClass(*name)) {
      return decodeRecord(uid, node, *codable, std::string(*name));
    }
    if (auto kind = plainKind(canonicalName(*name))) return decodePlainObject(node, *kind, classes);
    return refuse(std::string(*name), classes);
  }

  // The immutable class that a mutable collection class of another archiver stands for.
  static std::string_view canonicalName(std::string_view name) {
    static const std::map<std::string_view, std::string_view> mutableClasses{
        {"NSMutableString", kClassString},
        {"NSMutableData", kClassData},
        {"NSMutableArray", kClassArray},
        {"NSMutableDictionary", kClassDictionary}};
    auto it = mutableClasses.find(name);
    return it == mutableClasses.end() ? name : it->second;
  }

  // A class is allowed when it is in the set, is a mutable form of a class in the set, or is a
  // registered class whose registered superclasses reach one in the set.
  static bool isAllowed(std::string_view name, const ClassSet& classes) {
    if (classes.count(canonicalName(name))) return true;
    const CodableClass* codable = findCodableClass(name);
    if (!codable) return false;
    return std::any_of(codable->superclasses.begin(), codable->superclasses.end(),
                       [&](const std::string& super) { return classes.count(super) > 0; });
  }

  Value decodePlainObject(plist_t node, Kind kind, const ClassSet& classes) {
    switch (kind) {
      case Kind::String: {
        if (auto s = readString(plist_dict_get_item(node, "NS.string"))) {
          if (!spend(s->size())) return {};
          return Value(*s);
        }
        if (auto d = readData(plist_dict_get_item(node, "NS.bytes"))) {
          if (!spend(d->size())) return {};
          return Value(*d);
        }
        return corrupt("a string object holds no text");
      }
      case Kind::Data: {
        auto d = readData(plist_dict_get_item(node, "NS.data"));
        if (!d) d = readData(plist_dict_get_item(node, "NS.bytes"));
        if (!d) return corrupt("a data object holds no bytes");
        if (!spend(d->size())) return {};
        const auto* p = reinterpret_cast<const uint8_t*>(d->data());
        return Value(Data(std::vector<uint8_t>(p, p + d->size())));
      }
      case Kind::Number:
        return corrupt("a number is stored as an object");
      case Kind::Date: {
        auto time = readNumber(plist_dict_get_item(node, "NS.time"));
        if (!time || time->isBool()) return corrupt("a date holds no time");
        if (!spend(0)) return {};
        return Value(Date::fromReferenceDate(time->doubleValue()));
      }
      case Kind::Uuid: {
        auto d = readData(plist_dict_get_item(node, "NS.uuidbytes"));
        if (!d || d->size() != 16) return corrupt("a UUID does not hold 16 bytes");
        if (!spend(16)) return {};
        std::array<uint8_t, 16> bytes;
        std::memcpy(bytes.data(), d->data(), 16);
        return Value(Uuid(bytes));
      }
      case Kind::Array: {
        plist_t refs = plist_dict_get_item(node, "NS.objects");
        if (!refs || plist_get_node_type(refs) != PLIST_ARRAY) {
          return corrupt("an array holds no object list");
        }
        if (!spend(0)) return {};
        std::vector<plist_t> refItems = plist_nodes::arrayItems(refs);
        std::vector<Value> items;
        items.reserve(refItems.size());
        for (plist_t item : refItems) {
          uint64_t ref = 0;
          if (!readUid(item, &ref)) {
            return corrupt("an array element is not a reference");
          }
          items.push_back(decode(ref, classes));
          if (error) return {};
        }
        return Value(Array(std::move(items)));
      }
      case Kind::Dictionary: {
        plist_t keys = plist_dict_get_item(node, "NS.keys");
        plist_t refs = plist_dict_get_item(node, "NS.objects");
        if (!keys || !refs || plist_get_node_type(keys) != PLIST_ARRAY ||
            plist_get_node_type(refs) != PLIST_ARRAY) {
          return corrupt("a dictionary holds no key and object lists");
        }
        std::vector<plist_t> keyItems = plist_nodes::arrayItems(keys);
        std::vector<plist_t> refItems = plist_nodes::arrayItems(refs);
        if (keyItems.size() != refItems.size()) {
          return corrupt("a dictionary has unequal numbers of keys and objects");
        }
        if (!spend(0)) return {};
        Dictionary d;
        for (size_t i = 0; i < keyItems.size(); ++i) {
          uint64_t keyRef = 0;
          uint64_t ref = 0;
          if (!readUid(keyItems[i], &keyRef) || !readUid(refItems[i], &ref)) {
            return corrupt("a dictionary entry is not a reference");
          }
          Value key = decode(keyRef, classes);
          if (error) return {};
          if (!key.isString()) return corrupt("a dictionary key is not a string");
          Value element = decode(ref, classes);
          if (error) return {};
          d.set(*key.asString(), std::move(element));
        }
        return Value(std::move(d));
      }
    }
    return {};
  }

  Value decodeRecord(uint64_t uid, plist_t node, const CodableClass& cls, const std::string& name) {
    if (auto it = records.find(uid); it != records.end()) return Value(it->second);
    if (!spend(0)) return {};
    if (!cls.decode) {
      fail(archiveError(kKeyedArchiveReadCorruptError,
                        vl::format("The class '%@' cannot be decoded", name)));
      return {};
    }
    KeyedUnarchiver coder(*this, node);
    std::shared_ptr<CodableRecord> record;
    try {
      record = cls.decode(coder);
    } catch (const std::exception& e) {
      return corrupt(vl::format("decoding an object of class '%@' failed: %s", name, e.what()));
    }
    if (error) return {};
    if (!record) return corrupt(vl::format("decoding an object of class '%@' failed", name));
    records.emplace(uid, record);
    return Value(record);
  }
};

namespace {

plist_t itemOf(const void* node, std::string_view key) {
  return plist_dict_get_item(static_cast<plist_t>(const_cast<void*>(node)), std::string(key).c_str());
}

}  // namespace

bool KeyedUnarchiver::containsValue(std::string_view key) const {
  return itemOf(node_, key) != nullptr;
}

Value KeyedUnarchiver::decodeObject(std::string_view key, const ClassSet& classes) {
  if (impl_.error) return {};
  plist_t item = itemOf(node_, key);
  if (!item) return {};
  uint64_t uid = 0;
  if (!readUid(item, &uid)) {
    return impl_.corrupt(vl::format("the value for key '%@' is not an object reference", key));
  }
  return impl_.decode(uid, intersection(impl_.allowed, classes));
}

namespace {

template <typename T, typename Get>
std::optional<T> typedObject(KeyedUnarchiver& coder, std::string_view key, const char* cls,
                             Get get) {
  Value v = coder.decodeObject(key, ClassSet{cls});
  if (v.isNone()) return std::nullopt;
  if (auto* typed = get(v)) return *typed;
  coder.failWithError(
      corruptError(vl::format("the value for key '%@' is not of class '%s'", key, cls)));
  return std::nullopt;
}

}  // namespace

std::optional<std::string> KeyedUnarchiver::decodeString(std::string_view key) {
  return typedObject<std::string>(*this, key, kClassString, [](const Value& v) { return v.asString(); });
}

std::optional<Number> KeyedUnarchiver::decodeNumber(std::string_view key) {
  return typedObject<Number>(*this, key, kClassNumber, [](const Value& v) { return v.asNumber(); });
}

std::optional<Date> KeyedUnarchiver::decodeDate(std::string_view key) {
  return typedObject<Date>(*this, key, kClassDate, [](const Value& v) { return v.asDate(); });
}

std::optional<Uuid> KeyedUnarchiver::decodeUuid(std::string_view key) {
  return typedObject<Uuid>(*this, key, kClassUuid, [](const Value& v) { return v.asUuid(); });
}

std::optional<Array> KeyedUnarchiver::decodeArray(std::string_view key,
                                                  const ClassSet& extraClasses) {
  ClassSet classes = plainValueClasses();
  classes.insert(extraClasses.begin(), extraClasses.end());
  Value v = decodeObject(key, classes);
  if (v.isNone()) return std::nullopt;
  if (auto* a = v.asArray()) return std::move(*a);
  failWithError(corruptError(vl::format("the value for key '%@' is not an array", key)));
  return std::nullopt;
}

std::optional<Dictionary> KeyedUnarchiver::decodeDictionary(std::string_view key,
                                                            const ClassSet& extraClasses) {
  ClassSet classes = plainValueClasses();
  classes.insert(extraClasses.begin(), extraClasses.end());
  Value v = decodeObject(key, classes);
  if (v.isNone()) return std::nullopt;
  if (auto* d = v.asDictionary()) return std::move(*d);
  failWithError(corruptError(vl::format("the value for key '%@' is not a dictionary", key)));
  return std::nullopt;
}

namespace {

// An inline scalar, or a number stored by reference as some archivers do.
std::optional<Number> scalarFor(KeyedUnarchiver& coder, plist_t item, std::string_view key) {
  if (auto n = readNumber(item)) return n;
  uint64_t uid = 0;
  if (readUid(item, &uid)) return coder.decodeNumber(key);
  coder.failWithError(corruptError(vl::format("the value for key '%@' is not a number", key)));
  return std::nullopt;
}

}  // namespace

bool KeyedUnarchiver::decodeBool(std::string_view key, bool fallback) {
  plist_t item = itemOf(node_, key);
  if (!item || impl_.error) return fallback;
  auto n = scalarFor(*this, item, key);
  return n ? n->boolValue() : fallback;
}

int64_t KeyedUnarchiver::decodeInt64(std::string_view key, int64_t fallback) {
  plist_t item = itemOf(node_, key);
  if (!item || impl_.error) return fallback;
  auto n = scalarFor(*this, item, key);
  return n ? n->int64Value() : fallback;
}

double KeyedUnarchiver::decodeDouble(std::string_view key, double fallback) {
  plist_t item = itemOf(node_, key);
  if (!item || impl_.error) return fallback;
  auto n = scalarFor(*this, item, key);
  return n ? n->doubleValue() : fallback;
}

void KeyedUnarchiver::failWithError(Error error) { impl_.fail(std::move(error)); }

bool KeyedUnarchiver::failed() const { return impl_.error.has_value(); }

namespace {

// Parses bytes (binary or XML) into a property-list tree after the structural check.
PlistPtr parsePlist(std::string_view bytes, std::string* why) {
  if (bytes.empty()) {
    *why = "the archive is empty";
    return nullptr;
  }
  if (bytes.size() > std::numeric_limits<uint32_t>::max()) {
    *why = "the archive is too large";
    return nullptr;
  }
  if (!plist_guard::check(bytes, why)) return nullptr;
  plist_t root = nullptr;
  auto length = static_cast<uint32_t>(bytes.size());
  if (plist_is_binary(bytes.data(), length)) {
    plist_from_bin(bytes.data(), length, &root);
  } else {
    plist_from_xml(bytes.data(), length, &root);
  }
  if (!root) {
    *why = "the bytes are not a property list";
    return nullptr;
  }
  PlistPtr owned(root);
  // Strings the writers refuse are refused here too, so that what was read can be written again.
  // An archive's own keys are structural ($objects, NS.keys, ...); its keys of dictionaries are
  // strings of $objects and are checked as strings.
  if (!plist_nodes::holdsOnlyText(root, plist_guard::kMaxDepth, false, why)) return nullptr;
  return owned;
}

}  // namespace

std::optional<Value> unarchive(std::string_view bytes, const ClassSet& allowed, Error* error) {
  try {
    std::string why;
    PlistPtr root = parsePlist(bytes, &why);
    if (!root) {
      setError(error, corruptError(why));
      return std::nullopt;
    }
    plist_t top = root.get();
    auto fail = [&](const std::string& reason) {
      setError(error, corruptError(reason));
      return std::nullopt;
    };
    if (plist_get_node_type(top) != PLIST_DICT) return fail("the archive is not a dictionary");
    if (!readString(plist_dict_get_item(top, "$archiver"))) return fail("\"$archiver\" is missing");
    plist_t objects = plist_dict_get_item(top, "$objects");
    if (!objects || plist_get_node_type(objects) != PLIST_ARRAY) {
      return fail("\"$objects\" is missing");
    }
    plist_t topRefs = plist_dict_get_item(top, "$top");
    if (!topRefs || plist_get_node_type(topRefs) != PLIST_DICT) return fail("\"$top\" is missing");
    uint64_t rootUid = 0;
    if (!readUid(plist_dict_get_item(topRefs, "root"), &rootUid)) {
      return fail("\"$top\" has no \"root\" reference");
    }
    KeyedUnarchiver::Impl impl(objects, allowed, bytes.size());
    Value value = impl.decode(rootUid, allowed);
    if (impl.error) {
      setError(error, *impl.error);
      return std::nullopt;
    }
    return value;
  } catch (const std::exception& e) {
    setError(error, corruptError(e.what()));
    return std::nullopt;
  }
}

bool isKeyedArchive(std::string_view bytes) {
  try {
    std::string why;
    PlistPtr root = parsePlist(bytes, &why);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return false;
    plist_t objects = plist_dict_get_item(root.get(), "$objects");
    return readString(plist_dict_get_item(root.get(), "$archiver")) && objects &&
           plist_get_node_type(objects) == PLIST_ARRAY;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace vl
