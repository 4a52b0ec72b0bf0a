// Reading the archived record a service request carries; shared by the service's handlers.
#pragma once

#include <memory>
#include <string>

#include "vorlund/conversion/ipm_value.h"
#include "vorlund/conversion/object_data.h"

namespace vl::ipm {

// The record of class T archived as data under key in request; nullptr, with the reason in
// *reason, when the entry is missing, not data, or not an archived T.
template <typename T>
std::shared_ptr<T> requestRecord(const IpmDictionary& request, const char* key,
                                 std::string* reason) {
  const IpmValue* archived = request.find(key);
  if (!archived || !archived->asData()) {
    *reason = std::string("The request holds no \"") + key + "\" data";
    return nullptr;
  }
  Error error;
  auto record = VLConvertDataToObject(*archived->asData(), &error).record<T>();
  if (!record) {
    *reason = std::string("The request's \"") + key + "\" is not an archived " + T::kClassName;
    if (!error.localizedDescription().empty()) *reason += ": " + error.localizedDescription();
  }
  return record;
}

}  // namespace vl::ipm
