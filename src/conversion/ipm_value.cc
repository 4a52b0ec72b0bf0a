#include "vorlund/conversion/ipm_value.h"

#include "vorlund/foundation/format.h"

namespace vl {

const IpmValue* IpmDictionary::find(std::string_view key) const {
  for (const auto& [k, v] : entries_) {
    if (k == key) return &v;
  }
  return nullptr;
}

void IpmDictionary::set(std::string key, IpmValue value) {
  for (auto& [k, v] : entries_) {
    if (k == key) {
      v = std::move(value);
      return;
    }
  }
  entries_.emplace_back(std::move(key), std::move(value));
}

const char* IpmValue::typeName() const {
  switch (type()) {
    case Type::Null: return "null";
    case Type::Double: return "double";
    case Type::Int64: return "int64";
    case Type::Uint64: return "uint64";
    case Type::Bool: return "bool";
    case Type::Date: return "date";
    case Type::Data: return "data";
    case Type::String: return "string";
    case Type::FileDescriptor: return "fd";
    case Type::Array: return "array";
    case Type::Dictionary: return "dictionary";
    case Type::Error: return "error";
    case Type::Uuid: return "uuid";
  }
  return "unknown";
}

std::string IpmValue::description() const {
  std::string body;
  switch (type()) {
    case Type::Null: return "<null>";
    case Type::Double: body = Number(*asDouble()).description(); break;
    case Type::Int64: body = std::to_string(*asInt64()); break;
    case Type::Uint64: body = std::to_string(*asUint64()); break;
    case Type::Bool: body = *asBool() ? "true" : "false"; break;
    case Type::Date: body = std::to_string(asDate()->nanosecondsSince1970) + " ns"; break;
    case Type::Data: body = vl::format("{ length = %zu }", asData()->size()); break;
    case Type::String: body = "\"" + *asString() + "\""; break;
    case Type::FileDescriptor: body = std::to_string((*asFileHandle())->fileDescriptor()); break;
    case Type::Array: body = vl::format("{ count = %zu }", asArray()->size()); break;
    case Type::Dictionary: body = vl::format("{ count = %zu }", asDictionary()->size()); break;
    case Type::Error: body = asError()->description; break;
    case Type::Uuid: body = asUuid()->string(); break;
  }
  return vl::format("<%s: %@>", typeName(), body);
}

}  // namespace vl
