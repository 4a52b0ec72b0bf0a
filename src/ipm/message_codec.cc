#include "vorlund/ipm/message_codec.h"

#include <cstring>
#include <string>

#include "vorlund/foundation/format.h"
#include "vorlund/ipm/bus.h"

namespace vl::ipm {
namespace {

// The D-Bus type of a value inside a variant; nullptr for values without a D-Bus form.
const char* signatureOf(const IpmValue& value) {
  switch (value.type()) {
    case IpmValue::Type::Double:
      return "d";
    case IpmValue::Type::Int64:
      return "x";
    case IpmValue::Type::Uint64:
      return "t";
    case IpmValue::Type::Bool:
      return "b";
    case IpmValue::Type::Date:
      return "(x)";
    case IpmValue::Type::Data:
      return "ay";
    case IpmValue::Type::String:
      return "s";
    case IpmValue::Type::FileDescriptor:
      return "h";
    case IpmValue::Type::Array:
      return "av";
    case IpmValue::Type::Dictionary:
      return "a{sv}";
    case IpmValue::Type::Null:
    case IpmValue::Type::Error:
    case IpmValue::Type::Uuid:
      return nullptr;
  }
  return nullptr;
}

bool invalid(Error* error, std::string description) {
  setError(error, ipmError(IpmErrorCode::kInvalidMessage, std::move(description)));
  return false;
}

bool check(int r, const char* what, Error* error) {
  if (r >= 0) return true;
  setError(error, ipmError(IpmErrorCode::kTransport,
                           vl::format("Unable to %s: %s", what, errnoText(r).c_str())));
  return false;
}

bool appendVariant(sd_bus_message* m, const IpmValue& value, Error* error) {
  const char* signature = signatureOf(value);
  if (!signature) {
    return invalid(error, vl::format("A value of type %s has no D-Bus form", value.typeName()));
  }
  return check(sd_bus_message_open_container(m, 'v', signature), "open a variant", error) &&
         appendValue(m, value, error) &&
         check(sd_bus_message_close_container(m), "close a variant", error);
}

}  // namespace

bool appendValue(sd_bus_message* m, const IpmValue& value, Error* error) {
  switch (value.type()) {
    case IpmValue::Type::Double:
      return check(sd_bus_message_append_basic(m, 'd', value.asDouble()), "append a double", error);
    case IpmValue::Type::Int64:
      return check(sd_bus_message_append_basic(m, 'x', value.asInt64()), "append an int64", error);
    case IpmValue::Type::Uint64:
      return check(sd_bus_message_append_basic(m, 't', value.asUint64()), "append a uint64", error);
    case IpmValue::Type::Bool: {
      int b = *value.asBool() ? 1 : 0;
      return check(sd_bus_message_append_basic(m, 'b', &b), "append a bool", error);
    }
    case IpmValue::Type::Date: {
      int64_t ns = value.asDate()->nanosecondsSince1970;
      return check(sd_bus_message_open_container(m, 'r', "x"), "open a date", error) &&
             check(sd_bus_message_append_basic(m, 'x', &ns), "append a date", error) &&
             check(sd_bus_message_close_container(m), "close a date", error);
    }
    case IpmValue::Type::Data: {
      const Data& data = *value.asData();
      return check(sd_bus_message_append_array(m, 'y', data.bytes.data(), data.size()),
                   "append data", error);
    }
    case IpmValue::Type::String: {
      const std::string& s = *value.asString();
      // D-Bus strings end at the first NUL; refusing one keeps the text from being cut short.
      if (s.find('\0') != std::string::npos)
        return invalid(error, "A string holds a NUL character");
      int r = sd_bus_message_append_basic(m, 's', s.c_str());
      if (r == -EINVAL) return invalid(error, "A string is not valid UTF-8");
      return check(r, "append a string", error);
    }
    case IpmValue::Type::FileDescriptor: {
      const auto& handle = *value.asFileHandle();
      int fd = handle->fileDescriptor();
      return check(sd_bus_message_append_basic(m, 'h', &fd), "append a file descriptor", error);
    }
    case IpmValue::Type::Array: {
      if (!check(sd_bus_message_open_container(m, 'a', "v"), "open an array", error)) return false;
      for (const IpmValue& item : *value.asArray()) {
        if (!appendVariant(m, item, error)) return false;
      }
      return check(sd_bus_message_close_container(m), "close an array", error);
    }
    case IpmValue::Type::Dictionary: {
      if (!check(sd_bus_message_open_container(m, 'a', "{sv}"), "open a dictionary", error)) {
        return false;
      }
      for (const auto& [key, item] : value.asDictionary()->entries()) {
        if (!check(sd_bus_message_open_container(m, 'e', "sv"), "open an entry", error)) {
          return false;
        }
        if (key.find('\0') != std::string::npos)
          return invalid(error, "A key holds a NUL character");
        int r = sd_bus_message_append_basic(m, 's', key.c_str());
        if (r == -EINVAL) return invalid(error, "A key is not valid UTF-8");
        if (!check(r, "append a key", error)) return false;
        if (!appendVariant(m, item, error)) {
          if (error) error->userInfo.set("Key", key);
          return false;
        }
        if (!check(sd_bus_message_close_container(m), "close an entry", error)) return false;
      }
      return check(sd_bus_message_close_container(m), "close a dictionary", error);
    }
    case IpmValue::Type::Null:
    case IpmValue::Type::Error:
    case IpmValue::Type::Uuid:
      break;
  }
  return invalid(error, vl::format("A value of type %s has no D-Bus form", value.typeName()));
}

bool appendDictionary(sd_bus_message* m, const IpmValue& dictionary, Error* error) {
  if (!dictionary.asDictionary()) {
    return invalid(error,
                   vl::format("A message must be a dictionary, not %s", dictionary.typeName()));
  }
  return appendValue(m, dictionary, error);
}

namespace {

std::optional<IpmValue> readMapped(sd_bus_message* m, Error* error);

// Reads one variant, whose contents must be of a mapped type.
std::optional<IpmValue> readVariant(sd_bus_message* m, Error* error) {
  char type = 0;
  const char* contents = nullptr;
  int r = sd_bus_message_peek_type(m, &type, &contents);
  if (r <= 0 || type != 'v') {
    invalid(error, "Expected a variant");
    return std::nullopt;
  }
  if (sd_bus_message_enter_container(m, 'v', contents) < 0) {
    invalid(error, "Unable to enter a variant");
    return std::nullopt;
  }
  auto value = readMapped(m, error);
  if (value && sd_bus_message_exit_container(m) < 0) {
    invalid(error, "A variant holds more than one value");
    return std::nullopt;
  }
  return value;
}

std::optional<IpmValue> readArrayOfVariants(sd_bus_message* m, Error* error) {
  if (sd_bus_message_enter_container(m, 'a', "v") < 0) {
    invalid(error, "Unable to enter an array");
    return std::nullopt;
  }
  IpmArray items;
  int r;
  while ((r = sd_bus_message_at_end(m, false)) == 0) {
    auto item = readVariant(m, error);
    if (!item) return std::nullopt;
    items.push_back(std::move(*item));
  }
  if (r < 0 || sd_bus_message_exit_container(m) < 0) {
    invalid(error, "Unable to read an array");
    return std::nullopt;
  }
  return IpmValue::ofArray(std::move(items));
}

std::optional<IpmValue> readDictionaryOfVariants(sd_bus_message* m, Error* error) {
  if (sd_bus_message_enter_container(m, 'a', "{sv}") < 0) {
    invalid(error, "Unable to enter a dictionary");
    return std::nullopt;
  }
  IpmDictionary dictionary;
  int r;
  while ((r = sd_bus_message_at_end(m, false)) == 0) {
    const char* key = nullptr;
    if (sd_bus_message_enter_container(m, 'e', "sv") < 0 ||
        sd_bus_message_read_basic(m, 's', &key) < 0) {
      invalid(error, "Unable to read a dictionary entry");
      return std::nullopt;
    }
    std::string name(key);
    auto value = readVariant(m, error);
    if (!value) {
      if (error) error->userInfo.set("Key", name);
      return std::nullopt;
    }
    if (sd_bus_message_exit_container(m) < 0) {
      invalid(error, "Unable to read a dictionary entry");
      return std::nullopt;
    }
    dictionary.set(std::move(name), std::move(*value));
  }
  if (r < 0 || sd_bus_message_exit_container(m) < 0) {
    invalid(error, "Unable to read a dictionary");
    return std::nullopt;
  }
  return IpmValue::ofDictionary(std::move(dictionary));
}

template <typename T>
std::optional<T> readBasic(sd_bus_message* m, char type, Error* error) {
  T out{};
  if (sd_bus_message_read_basic(m, type, &out) < 0) {
    invalid(error, vl::format("Unable to read a value of type %s", std::string(1, type).c_str()));
    return std::nullopt;
  }
  return out;
}

std::optional<IpmValue> readMapped(sd_bus_message* m, Error* error) {
  char type = 0;
  const char* contents = nullptr;
  int r = sd_bus_message_peek_type(m, &type, &contents);
  if (r < 0) {
    invalid(error, vl::format("Unable to read the message: %s", errnoText(r).c_str()));
    return std::nullopt;
  }
  if (r == 0) {
    invalid(error, "The message ends where a value was expected");
    return std::nullopt;
  }
  std::string inner = contents ? contents : "";
  switch (type) {
    case 'd':
      if (auto v = readBasic<double>(m, 'd', error)) return IpmValue::ofDouble(*v);
      return std::nullopt;
    case 'x':
      if (auto v = readBasic<int64_t>(m, 'x', error)) return IpmValue::ofInt64(*v);
      return std::nullopt;
    case 't':
      if (auto v = readBasic<uint64_t>(m, 't', error)) return IpmValue::ofUint64(*v);
      return std::nullopt;
    case 'b':
      if (auto v = readBasic<int>(m, 'b', error)) return IpmValue::ofBool(*v != 0);
      return std::nullopt;
    case 's': {
      auto v = readBasic<const char*>(m, 's', error);
      if (!v) return std::nullopt;
      return IpmValue::ofString(*v);
    }
    case 'h': {
      auto v = readBasic<int>(m, 'h', error);
      if (!v) return std::nullopt;
      // The message keeps its own descriptor; the value gets a duplicate that it owns.
      auto handle = FileHandle::duplicating(*v);
      if (!handle) {
        invalid(error, vl::format("Unable to duplicate a file descriptor: %s", strerror(errno)));
        return std::nullopt;
      }
      return IpmValue::ofFileHandle(std::move(handle));
    }
    case 'r':
      if (inner == "x") {
        int64_t ns = 0;
        if (sd_bus_message_enter_container(m, 'r', "x") < 0 ||
            sd_bus_message_read_basic(m, 'x', &ns) < 0 || sd_bus_message_exit_container(m) < 0) {
          invalid(error, "Unable to read a date");
          return std::nullopt;
        }
        return IpmValue::ofDate(ns);
      }
      break;
    case 'a':
      if (inner == "y") {
        const void* bytes = nullptr;
        size_t size = 0;
        if (sd_bus_message_read_array(m, 'y', &bytes, &size) < 0) {
          invalid(error, "Unable to read data");
          return std::nullopt;
        }
        const auto* begin = static_cast<const uint8_t*>(bytes);
        return IpmValue::ofData(size ? std::vector<uint8_t>(begin, begin + size)
                                     : std::vector<uint8_t>());
      }
      if (inner == "v") return readArrayOfVariants(m, error);
      if (inner == "{sv}") return readDictionaryOfVariants(m, error);
      break;
    default:
      break;
  }
  std::string signature(1, type);
  if (type == 'a') signature += inner;
  if (type == 'r') signature = "(" + inner + ")";
  if (type == 'e') signature = "{" + inner + "}";
  invalid(error, vl::format("The D-Bus type %s has no IPM form", signature.c_str()));
  return std::nullopt;
}

}  // namespace

std::optional<IpmValue> readValue(sd_bus_message* m, Error* error) { return readMapped(m, error); }

std::optional<IpmValue> readDictionary(sd_bus_message* m, Error* error) {
  char type = 0;
  const char* contents = nullptr;
  int r = sd_bus_message_peek_type(m, &type, &contents);
  if (r <= 0 || type != 'a' || !contents || std::string(contents) != "{sv}") {
    invalid(error, "A message must be one a{sv} dictionary");
    return std::nullopt;
  }
  return readDictionaryOfVariants(m, error);
}

}  // namespace vl::ipm
