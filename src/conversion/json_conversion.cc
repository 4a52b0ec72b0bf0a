#include "vorlund/conversion/json_conversion.h"

#include "vorlund/foundation/utf8.h"
#include "vorlund/foundation/json.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kCategory = "Framework";
// The parser's code for a top level that is neither an array nor an object.
constexpr int64_t kJSONFragmentError = 3840;

}  // namespace

std::optional<vl::Data> VLJSONDataFromObject(const vl::Value& object, vl::Error* error) {
  vl::Error serializerError;
  auto text = vl::json::serialize(object, /*pretty=*/true, /*requireContainer=*/true,
                                  &serializerError);
  if (!text) {
    VLLog(VLLogLevelError, kCategory, "NSJSONSerialization returned nil jsonData for dictionary:%@",
          object);
    vl::setError(error, std::move(serializerError));
    return std::nullopt;
  }
  return vl::Data::fromString(*text);
}

std::optional<std::string> VLJSONStringFromJSONData(const vl::Data* jsonData) {
  if (!jsonData) {
    VLLog(VLLogLevelError, kCategory, "VLStringFromJSONData:Argument jsonData cannot be nil");
    return std::nullopt;
  }
  return VLJSONStringFromJSONData(*jsonData);
}

std::optional<std::string> VLJSONStringFromJSONData(const vl::Data& jsonData) {
  if (!vl::isValidUtf8(jsonData.view())) {
    VLLog(VLLogLevelError, kCategory, "NSString returned nil when init-ing with JSON data:%@",
          jsonData);
    return std::nullopt;
  }
  return std::string(jsonData.view());
}

vl::Value VLObjectFromJSONString(std::string_view string, vl::Error* error) {
  vl::Error parserError;
  std::optional<vl::Value> object = vl::json::parse(string, &parserError);
  if (object && !object->isArray() && !object->isDictionary()) {
    object.reset();
    parserError = vl::Error::withDescription(
        vl::json::kErrorDomain, kJSONFragmentError,
        "JSON text did not start with array or object and option to allow fragments not set.");
  }
  if (!object) {
    VLLog(VLLogLevelError, kCategory, "Failed to convert JSON string to Object:%@:Error:%@", string,
          parserError);
    vl::setError(error, std::move(parserError));
    return {};
  }
  return std::move(*object);
}

std::optional<vl::Array> VLArrayFromJSONString(std::string_view string, vl::Error* error) {
  vl::Value object = VLObjectFromJSONString(string, error);
  if (object.isNone()) return std::nullopt;
  if (auto* array = object.asArray()) return std::move(*array);
  std::string exception =
      vl::format("An object of class %@ cannot be copied as an array", object.className());
  std::string message =
      vl::format("Caught exception creating NSArray from JSON string %@:%@", string, exception);
  VLLog(VLLogLevelError, kCategory, "%@", message);
  vl::setError(error, vl::Error::withDescription(kVLJSONConversionErrorDomain,
                                                 kVLJSONConversionNotAnArrayError, message));
  return std::nullopt;
}
