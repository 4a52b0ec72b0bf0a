// Property lists over libplist 2.2.
//
// libplist trusts its input more than a reader of untrusted files should: it recurses once per
// nesting level and expands shared objects of a binary list into copies. Every input therefore
// passes the structural check of plist_guard first, so that parse() fails with an error instead of
// exhausting the stack or memory.
//
// Integers: libplist 2.2 keeps every integer as an unsigned 64-bit node. A node with the top bit
// set is read as the negative int64 ('q') that a writer almost always meant; only a node that
// libplist itself marks as unsigned (XML text above INT64_MAX, or a 16-byte binary integer) reads
// as 'Q'. Writing a 'Q' above INT64_MAX produces such an unsigned node, so both round trips keep
// the value.
//
// Dates: libplist 2.2 holds seconds and microseconds since 2001-01-01. Binary lists keep the
// microseconds; XML dates keep whole seconds, as the XML format does. Dates must lie within the
// 32-bit second range around 2001 (1933 to 2069).
#include "vorlund/foundation/property_list.h"

#include "vorlund/foundation/utf8.h"
#include "foundation/plist_nodes.h"

#include <plist/plist.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "foundation/plist_guard.h"
#include "vorlund/foundation/paths.h"

namespace vl::plist {
namespace {

constexpr const char* kErrorDomain = "VLPropertyListErrorDomain";
constexpr int64_t kErrorCodeRead = 1;
constexpr int64_t kErrorCodeWrite = 2;
constexpr int64_t kErrorCodeFile = 3;

constexpr size_t kMaxDepth = plist_guard::kMaxDepth;
// libplist takes 32-bit lengths; larger inputs are refused long before that.
constexpr size_t kMaxInputBytes = 256u * 1024 * 1024;

constexpr const char* kUidKey = "CF$UID";

Error makeError(int64_t code, std::string description) {
  return Error::withDescription(kErrorDomain, code, std::move(description));
}

struct PlistDeleter {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

bool isBinary(std::string_view bytes) { return bytes.starts_with("bplist00"); }

uint64_t readBigEndian(const uint8_t* p, size_t size) {
  uint64_t v = 0;
  for (size_t i = 0; i < size; ++i) v = (v << 8) | p[i];
  return v;
}

// libplist 2.2 aborts (an assertion) when asked for a dictionary key that holds a NUL character,
// which a binary list can contain. Such lists are refused before libplist reads them. The
// structure itself has passed plist_guard; every bound is still checked here.
bool binaryKeysHoldNoNul(std::string_view bytes) {
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  const size_t size = bytes.size();
  if (size < 40) return true;
  const uint8_t* trailer = data + size - 32;
  const size_t offsetSize = trailer[6];
  const size_t refSize = trailer[7];
  const uint64_t count = readBigEndian(trailer + 8, 8);
  const uint64_t table = readBigEndian(trailer + 24, 8);
  const uint64_t end = size - 32;
  if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8 || table >= end ||
      count > (end - table) / offsetSize) {
    return true;  // left to the guard and libplist
  }
  auto offsetOf = [&](uint64_t index) {
    return readBigEndian(data + table + index * offsetSize, offsetSize);
  };
  // The payload of a length-prefixed object: [*start, *start + *length) in bytes.
  auto payload = [&](uint64_t offset, uint64_t unit, uint64_t* start, uint64_t* length) {
    uint64_t n = data[offset] & 0x0F;
    uint64_t pos = offset + 1;
    if (n == 0x0F) {
      if (pos >= table || (data[pos] >> 4) != 0x1 || (data[pos] & 0x0F) > 3) return false;
      const uint64_t intSize = uint64_t{1} << (data[pos] & 0x0F);
      if (pos + 1 + intSize > table) return false;
      n = readBigEndian(data + pos + 1, intSize);
      pos += 1 + intSize;
    }
    if (n > (table - pos) / unit) return false;
    *start = pos;
    *length = n * unit;
    return true;
  };
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t offset = offsetOf(i);
    if (offset < 8 || offset >= table || (data[offset] >> 4) != 0xD) continue;
    uint64_t refs = 0;
    uint64_t pairs = 0;
    if (!payload(offset, refSize, &refs, &pairs)) continue;
    pairs /= refSize;
    // Keys come first: pairs references to keys, then as many to values.
    if (pairs > (table - refs) / (2 * refSize)) continue;
    for (uint64_t k = 0; k < pairs; ++k) {
      const uint64_t key = readBigEndian(data + refs + k * refSize, refSize);
      if (key >= count) continue;
      const uint64_t keyOffset = offsetOf(key);
      if (keyOffset < 8 || keyOffset >= table) continue;
      const uint8_t kind = data[keyOffset] >> 4;
      if (kind != 0x5 && kind != 0x6 && kind != 0x7) continue;
      const uint64_t unit = kind == 0x6 ? 2 : 1;
      uint64_t start = 0;
      uint64_t length = 0;
      if (!payload(keyOffset, unit, &start, &length)) continue;
      for (uint64_t b = 0; b < length; b += unit) {
        if (data[start + b] == 0 && (unit == 1 || data[start + b + 1] == 0)) return false;
      }
    }
  }
  return true;
}

// ---- libplist to values ----------------------------------------------------------------------


double dateSeconds(int32_t sec, int32_t usec) {
  // libplist splits a negative time into a truncated second and the magnitude of the fraction.
  const double fraction = std::abs(static_cast<double>(usec)) / 1e6;
  return sec < 0 ? sec - fraction : sec + fraction;
}

Value toValue(plist_t node, size_t depth) {
  // The input checks bound the depth; this guard keeps the recursion safe on its own.
  if (!node || depth > kMaxDepth) return Value();
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value(b != 0);
    }
    case PLIST_UINT: {
      uint64_t v = 0;
      plist_get_uint_val(node, &v);
      if (v > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) &&
          plist_nodes::isMarkedUnsigned(node)) {
        return Value(Number(v));
      }
      return Value(Number(static_cast<int64_t>(v)));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value(d);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      uint64_t length = 0;
      const char* p = plist_get_string_ptr(node, &length);
      return Value(std::string(p ? p : "", p ? length : 0));
    }
    case PLIST_DATE: {
      int32_t sec = 0;
      int32_t usec = 0;
      plist_get_date_val(node, &sec, &usec);
      return Value(Date::fromReferenceDate(dateSeconds(sec, usec)));
    }
    case PLIST_DATA: {
      uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      const auto* bytes = reinterpret_cast<const uint8_t*>(p);
      return Value(Data(p ? std::vector<uint8_t>(bytes, bytes + length) : std::vector<uint8_t>()));
    }
    case PLIST_UID: {
      uint64_t v = 0;
      plist_get_uid_val(node, &v);
      return Value(Dictionary{{kUidKey, Value(Number(static_cast<int64_t>(v)))}});
    }
    case PLIST_ARRAY: {
      Array array;
      const uint32_t count = plist_array_get_size(node);
      for (uint32_t i = 0; i < count; ++i) {
        array.push_back(toValue(plist_array_get_item(node, i), depth + 1));
      }
      return Value(std::move(array));
    }
    case PLIST_DICT: {
      Dictionary dictionary;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      if (!it) return Value(std::move(dictionary));
      while (true) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &key, &item);
        if (!item) {
          std::free(key);
          break;
        }
        std::string name = key ? key : "";
        std::free(key);
        dictionary.set(std::move(name), toValue(item, depth + 1));
      }
      std::free(it);
      return Value(std::move(dictionary));
    }
    default:
      return Value();
  }
}

// ---- values to libplist ----------------------------------------------------------------------


// An unsigned integer node above INT64_MAX, which the 2.2 API cannot make directly: libplist's own
// XML reader makes it with the unsigned width.
plist_t newLargeUnsigned(uint64_t v) {
  const std::string xml =
      "<plist version=\"1.0\"><integer>" + std::to_string(v) + "</integer></plist>";
  plist_t node = nullptr;
  plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &node);
  return node;
}

plist_t fromValue(const Value& value, size_t depth, std::string* why) {
  if (depth > kMaxDepth) {
    *why = "value is nested too deeply for a property list";
    return nullptr;
  }
  switch (value.kind()) {
    case ValueKind::None:
      *why = "a property list cannot hold a none value";
      return nullptr;
    case ValueKind::Number: {
      const Number& n = *value.asNumber();
      if (n.isBool()) return plist_new_bool(n.boolValue() ? 1 : 0);
      if (n.isFloatingPoint()) return plist_new_real(n.doubleValue());
      if (n.isUnsigned() &&
          n.uint64Value() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        plist_t node = newLargeUnsigned(n.uint64Value());
        if (!node) *why = "cannot make an unsigned integer node";
        return node;
      }
      return plist_new_uint(static_cast<uint64_t>(n.int64Value()));
    }
    case ValueKind::String: {
      const std::string& s = *value.asString();
      if (s.find('\0') != std::string::npos) {
        *why = "a property-list string cannot hold a NUL character";
        return nullptr;
      }
      if (!isValidUtf8(s)) {
        *why = "a property-list string must be valid UTF-8";
        return nullptr;
      }
      return plist_new_string(s.c_str());
    }
    case ValueKind::Date: {
      const double t = value.asDate()->secondsSinceReferenceDate();
      if (!std::isfinite(t) || t <= std::numeric_limits<int32_t>::min() ||
          t >= std::numeric_limits<int32_t>::max()) {
        *why = "date " + value.asDate()->description() + " is outside the property-list range";
        return nullptr;
      }
      auto sec = static_cast<int64_t>(std::trunc(t));
      auto usec = static_cast<int64_t>(std::llround((t - static_cast<double>(sec)) * 1e6));
      if (usec >= 1'000'000) {
        ++sec;
        usec -= 1'000'000;
      } else if (usec <= -1'000'000) {
        --sec;
        usec += 1'000'000;
      }
      return plist_new_date(static_cast<int32_t>(sec), static_cast<int32_t>(usec));
    }
    case ValueKind::Data: {
      const Data& d = *value.asData();
      return plist_new_data(reinterpret_cast<const char*>(d.bytes.data()), d.bytes.size());
    }
    case ValueKind::Uuid:
      return plist_new_string(value.asUuid()->string().c_str());
    case ValueKind::Array: {
      PlistPtr array(plist_new_array());
      for (const Value& item : *value.asArray()) {
        plist_t node = fromValue(item, depth + 1, why);
        if (!node) return nullptr;
        plist_array_append_item(array.get(), node);
      }
      return array.release();
    }
    case ValueKind::Dictionary: {
      const Dictionary& d = *value.asDictionary();
      // The standard spelling of a UID in a plain property list.
      if (d.size() == 1 && d.keys()[0] == kUidKey) {
        const Number* n = d.values()[0].asNumber();
        if (n && !n->isBool() && !n->isFloatingPoint() &&
            (n->isUnsigned() || n->int64Value() >= 0)) {
          return plist_new_uid(n->uint64Value());
        }
      }
      PlistPtr dict(plist_new_dict());
      for (size_t i = 0; i < d.size(); ++i) {
        const auto [key, item] = d.entry(i);
        if (key.find('\0') != std::string::npos || !isValidUtf8(key)) {
          *why = "a property-list key must be valid UTF-8 without NUL characters";
          return nullptr;
        }
        plist_t node = fromValue(item, depth + 1, why);
        if (!node) return nullptr;
        plist_dict_set_item(dict.get(), key.c_str(), node);
      }
      return dict.release();
    }
    case ValueKind::Record:
      *why = "a property list cannot hold a record of class " + value.className() +
             " (archive it instead)";
      return nullptr;
  }
  *why = "unknown value kind";
  return nullptr;
}

}  // namespace

std::optional<Value> parse(std::string_view bytes, Error* error) {
  if (bytes.empty()) {
    setError(error, makeError(kErrorCodeRead, "The property list is empty."));
    return std::nullopt;
  }
  if (bytes.size() > kMaxInputBytes) {
    setError(error, makeError(kErrorCodeRead, "The property list is too large to read."));
    return std::nullopt;
  }
  std::string why;
  const bool binary = isBinary(bytes);
  if (!plist_guard::check(bytes, &why)) {
    setError(error, makeError(kErrorCodeRead, "The property list could not be read: " + why + "."));
    return std::nullopt;
  }
  if (binary && !binaryKeysHoldNoNul(bytes)) {
    setError(error, makeError(kErrorCodeRead,
                              "The property list could not be read: a dictionary "
                              "key holds a NUL character."));
    return std::nullopt;
  }
  plist_t root = nullptr;
  const auto length = static_cast<uint32_t>(bytes.size());
  if (binary) {
    plist_from_bin(bytes.data(), length, &root);
  } else {
    plist_from_xml(bytes.data(), length, &root);
  }
  PlistPtr owned(root);
  if (!root) {
    setError(error,
             makeError(kErrorCodeRead, binary ? "The data is not a valid binary property list."
                                              : "The data is not a valid XML property list."));
    return std::nullopt;
  }
  // Keys are safe to read: binary keys were checked for NUL above, and XML holds none.
  if (!plist_nodes::holdsOnlyText(root, kMaxDepth, true, &why)) {
    setError(error, makeError(kErrorCodeRead, "The property list could not be read: " + why + "."));
    return std::nullopt;
  }
  return toValue(root, 0);
}

std::optional<std::string> serialize(const Value& value, Format format, Error* error) {
  std::string why;
  PlistPtr root(fromValue(value, 0, &why));
  if (!root) {
    setError(error, makeError(kErrorCodeWrite,
                              "The value could not be written as a property list: " + why + "."));
    return std::nullopt;
  }
  char* out = nullptr;
  uint32_t length = 0;
  if (format == Format::Binary) {
    plist_to_bin(root.get(), &out, &length);
  } else {
    plist_to_xml(root.get(), &out, &length);
  }
  if (!out) {
    setError(error, makeError(kErrorCodeWrite, "The property list could not be serialised."));
    return std::nullopt;
  }
  std::string result(out, length);
  if (format == Format::Binary) {
    plist_to_bin_free(out);
  } else {
    plist_to_xml_free(out);
  }
  return result;
}

std::optional<Value> readFile(const std::string& path, Error* error) {
  std::optional<std::string> bytes = paths::readFile(path);
  if (!bytes) {
    setError(error, makeError(kErrorCodeFile, "The file \"" + path + "\" could not be read."));
    return std::nullopt;
  }
  Error parseError;
  std::optional<Value> value = parse(*bytes, &parseError);
  if (!value) {
    setError(error, makeError(kErrorCodeRead, "The file \"" + path + "\" is not a property list: " +
                                                  parseError.localizedDescription()));
  }
  return value;
}

std::optional<Dictionary> readDictionary(const std::string& path, Error* error) {
  std::optional<Value> value = readFile(path, error);
  if (!value) return std::nullopt;
  if (Dictionary* d = value->asDictionary()) return std::move(*d);
  setError(error, makeError(kErrorCodeRead,
                            "The property list \"" + path + "\" does not hold a dictionary."));
  return std::nullopt;
}

bool writeFile(const Value& value, const std::string& path, Format format, Error* error) {
  std::optional<std::string> bytes = serialize(value, format, error);
  if (!bytes) return false;
  if (!paths::writeFileAtomically(path, *bytes)) {
    const int err = errno;
    setError(error, makeError(kErrorCodeFile, "The file \"" + path + "\" could not be written: " +
                                                  std::strerror(err) + "."));
    return false;
  }
  return true;
}

}  // namespace vl::plist
