#include "vorlund/conversion/object_data.h"

#include "vorlund/logging/log.h"

namespace {

constexpr const char* kCategory = "Framework";

}  // namespace

const vl::ClassSet& VLValidExternalClassesForCoding() {
  static const vl::ClassSet* classes = [] {
    auto* set = new vl::ClassSet(vl::plainValueClasses());
    set->insert({"VLTestCaseClass", "VLTestCaseResult", "VLTestCaseObject", "VLIssue"});
    return set;
  }();
  return *classes;
}

std::optional<vl::Data> VLConvertObjectToData(const vl::Value& object, vl::Error* error) {
  if (object.isNone()) {
    VLLog(VLLogLevelError, kCategory, "Unable to convert nil object");
    return std::nullopt;
  }
  VLLog(VLLogLevelDebug, kCategory, "Converting object '%@'", object);
  vl::Error archiveError;
  std::optional<std::string> bytes = vl::archive(object, &archiveError);
  if (!bytes) {
    VLLog(VLLogLevelError, kCategory, "NSKeyedArchiver returned with error: %@", archiveError);
    vl::setError(error, std::move(archiveError));
    return std::nullopt;
  }
  return vl::Data::fromString(*bytes);
}

vl::Value VLConvertDataToObject(const vl::Data* data, vl::Error* error) {
  if (!data) {
    VLLog(VLLogLevelError, kCategory, "Unable to convert nil data to object");
    return {};
  }
  return VLConvertDataToObject(*data, error);
}

vl::Value VLConvertDataToObject(const vl::Data& data, vl::Error* error) {
  vl::Error unarchiveError;
  std::optional<vl::Value> object =
      vl::unarchive(data.view(), VLValidExternalClassesForCoding(), &unarchiveError);
  if (!object) {
    VLLog(VLLogLevelError, kCategory, "NSKeyedUnarchiver returned with error: %@", unarchiveError);
    vl::setError(error, std::move(unarchiveError));
    return {};
  }
  return std::move(*object);
}
