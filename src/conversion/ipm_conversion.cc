#include "vorlund/conversion/ipm_conversion.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>

#include "vorlund/logging/log.h"

namespace {

constexpr const char* kCategory = "Framework";
constexpr double kNanosecondsPerSecond = 1e9;

int64_t nanosecondsFromDate(const vl::Date& date) {
  double ns = std::round(date.secondsSince1970 * kNanosecondsPerSecond);
  if (std::isnan(ns)) return 0;
  // Dates beyond the int64 nanosecond range (years before 1678 or after 2262) saturate.
  if (ns <= static_cast<double>(std::numeric_limits<int64_t>::min())) {
    return std::numeric_limits<int64_t>::min();
  }
  if (ns >= static_cast<double>(std::numeric_limits<int64_t>::max())) {
    return std::numeric_limits<int64_t>::max();
  }
  return static_cast<int64_t>(ns);
}

// The IPM form of one value, or none (having logged why) when it has no IPM form.
std::optional<vl::IpmValue> toIpm(const vl::Value& value) {
  using vl::IpmValue;
  switch (value.kind()) {
    case vl::ValueKind::Number: {
      const vl::Number& n = *value.asNumber();
      switch (n.typeCode()) {
        case 'd':
          return IpmValue::ofDouble(n.doubleValue());
        case 'q':
          return IpmValue::ofInt64(n.int64Value());
        // A 32-bit signed number travels as unsigned (a negative one wraps around); receivers
        // depend on that, so it stays.
        case 'Q':
        case 'i':
          return IpmValue::ofUint64(n.uint64Value());
        case 'B':
        case 'c':
          return IpmValue::ofBool(n.boolValue());
        default: {
          const char type[] = {n.typeCode(), '\0'};
          VLLog(VLLogLevelError, kCategory, "Unsupported NSNumber objCType %s", type);
          return std::nullopt;
        }
      }
    }
    case vl::ValueKind::String:
      return IpmValue::ofString(*value.asString());
    case vl::ValueKind::Data:
      return IpmValue::ofData(value.asData()->bytes);
    case vl::ValueKind::Date:
      return IpmValue::ofDate(nanosecondsFromDate(*value.asDate()));
    case vl::ValueKind::Array:
      return VLNSArrayToIPMArray(*value.asArray());
    case vl::ValueKind::Dictionary:
      return VLNSDictionaryToIPMDictionary(*value.asDictionary());
    case vl::ValueKind::Record:
      if (auto handle = value.record<vl::FileHandle>()) {
        auto copy = vl::FileHandle::duplicating(handle->fileDescriptor());
        if (!copy) {
          VLLog(VLLogLevelError, kCategory, "Unable to duplicate file descriptor %d: %s",
                handle->fileDescriptor(), std::strerror(errno));
          return std::nullopt;
        }
        return IpmValue::ofFileHandle(std::move(copy));
      }
      break;
    default:
      break;
  }
  VLLog(VLLogLevelError, kCategory, "Unsupported NS class %@", value.className());
  return std::nullopt;
}

// The value of one IPM value, or none when its type has no mapping (the caller logs that).
std::optional<vl::Value> fromIpm(const vl::IpmValue& ipm) {
  using Type = vl::IpmValue::Type;
  switch (ipm.type()) {
    case Type::Double:
      return vl::Value(*ipm.asDouble());
    case Type::Int64:
      return vl::Value(*ipm.asInt64());
    case Type::Uint64:
      return vl::Value(*ipm.asUint64());
    case Type::Bool:
      return vl::Value(*ipm.asBool());
    case Type::Date:
      return vl::Value(vl::Date{static_cast<double>(ipm.asDate()->nanosecondsSince1970) /
                                kNanosecondsPerSecond});
    case Type::Data:
      return vl::Value(*ipm.asData());
    case Type::String:
      return vl::Value(*ipm.asString());
    case Type::FileDescriptor: {
      int fd = (*ipm.asFileHandle())->fileDescriptor();
      auto copy = vl::FileHandle::duplicating(fd);
      if (!copy) {
        VLLog(VLLogLevelError, kCategory, "Unable to duplicate file descriptor %d: %s", fd,
              std::strerror(errno));
        return std::nullopt;
      }
      return vl::Value(std::move(copy));
    }
    case Type::Array: {
      auto array = VLIPMArrayToNSArray(ipm);
      if (!array) return std::nullopt;
      return vl::Value(std::move(*array));
    }
    case Type::Dictionary: {
      auto dictionary = VLIPMDictionaryToNSDictionary(ipm);
      if (!dictionary) return std::nullopt;
      return vl::Value(std::move(*dictionary));
    }
    case Type::Null:
    case Type::Error:
    case Type::Uuid:
      break;
  }
  return std::nullopt;
}

// Converts one element of an IPM collection, logging what has no mapping.
std::optional<vl::Value> elementFromIpm(const vl::IpmValue& ipm) {
  using Type = vl::IpmValue::Type;
  if (ipm.type() == Type::Null || ipm.type() == Type::Error || ipm.type() == Type::Uuid) {
    VLLog(VLLogLevelError, kCategory, "Unsupported ipm type %@", ipm.description());
    return std::nullopt;
  }
  return fromIpm(ipm);
}

}  // namespace

std::optional<vl::Dictionary> VLIPMDictionaryToNSDictionary(const vl::IpmValue& ipmDictionary) {
  const vl::IpmDictionary* entries = ipmDictionary.asDictionary();
  if (!entries) {
    VLLog(VLLogLevelError, kCategory, "Unsupported ipm type %@", ipmDictionary.description());
    return std::nullopt;
  }
  vl::Dictionary out;
  for (const auto& [key, ipm] : entries->entries()) {
    if (auto value = elementFromIpm(ipm)) out.set(key, std::move(*value));
  }
  return out;
}

std::optional<vl::Array> VLIPMArrayToNSArray(const vl::IpmValue& ipmArray) {
  const vl::IpmArray* items = ipmArray.asArray();
  if (!items) {
    VLLog(VLLogLevelError, kCategory, "Unsupported ipm type %@", ipmArray.description());
    return std::nullopt;
  }
  vl::Array out;
  for (const vl::IpmValue& ipm : *items) {
    if (auto value = elementFromIpm(ipm)) out.push_back(std::move(*value));
  }
  return out;
}

vl::Value VLIPMObjectToNSObject(const vl::IpmValue* ipmObject) {
  if (!ipmObject) {
    VLLog(VLLogLevelError, kCategory, "nil ipm object received %@", nullptr);
    return {};
  }
  return VLIPMObjectToNSObject(*ipmObject);
}

vl::Value VLIPMObjectToNSObject(const vl::IpmValue& ipmObject) {
  if (auto value = fromIpm(ipmObject)) return std::move(*value);
  using Type = vl::IpmValue::Type;
  if (ipmObject.type() == Type::Null || ipmObject.type() == Type::Error ||
      ipmObject.type() == Type::Uuid) {
    VLLog(VLLogLevelError, kCategory, "VLIPMObjectToNSObject:Unsupported ipm type %@",
          ipmObject.description());
  }
  return {};
}

vl::IpmValue VLNSDictionaryToIPMDictionary(const vl::Dictionary& dictionary) {
  vl::IpmDictionary out;
  for (size_t i = 0; i < dictionary.size(); ++i) {
    auto [key, value] = dictionary.entry(i);
    VLLog(VLLogLevelDebug, kCategory, "Key is '%@', and object is of class '%@'", key,
          value.className());
    VLLog(VLLogLevelDebug, kCategory, "Object description is '%@'", value);
    if (auto ipm = toIpm(value)) out.set(key, std::move(*ipm));
  }
  return vl::IpmValue::ofDictionary(std::move(out));
}

vl::IpmValue VLNSArrayToIPMArray(const vl::Array& array) {
  vl::IpmArray out;
  out.reserve(array.size());
  for (const vl::Value& value : array) {
    VLLog(VLLogLevelDebug, kCategory, "Object description is '%@'", value);
    if (auto ipm = toIpm(value)) out.push_back(std::move(*ipm));
  }
  return vl::IpmValue::ofArray(std::move(out));
}
