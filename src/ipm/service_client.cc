#include "vorlund/ipm/service_client.h"

#include "request_record.h"
#include "vorlund/catalogue/lookup.h"
#include "vorlund/conversion/ipm_conversion.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/client.h"
#include "vorlund/logging/log.h"

namespace vl::ipm {
namespace {

std::shared_ptr<VLTestCaseResult> failed(const std::shared_ptr<VLTestCaseObject>& object,
                                         vl::Error failure, vl::Error* error) {
  VLLog(VLLogLevelError, "Framework", "Unable to run %s in the stress service: %s",
        object && object->name() ? object->name()->c_str() : "a test case",
        failure.localizedDescription().c_str());
  setError(error, std::move(failure));
  return nullptr;
}

// A test case that came with only its name and options (a manager asking this device to run one of
// its test cases) takes the rest of its definition from this device's catalogue, the request's
// options laid over the bundle's. nullptr, with the reason, when the catalogue lacks the name.
std::shared_ptr<VLTestCaseObject> completedFromCatalogue(
    const std::shared_ptr<VLTestCaseObject>& object, std::string* reason) {
  if (object->selector()) return object;
  if (!object->name() || object->name()->empty()) {
    *reason = "The test case has neither a selector nor a name";
    return nullptr;
  }
  vl::Dictionary request;
  request.set(kVLTestCaseObjectKeyName, *object->name());
  if (std::optional<vl::Dictionary> options = object->options()) {
    request.set(kVLTestCaseObjectKeyOptions, std::move(*options));
  }
  std::shared_ptr<VLTestCaseObject> completed = VLGetObjectForDictionary(request);
  if (!completed) *reason = "No bundle here offers a test case named " + *object->name();
  return completed;
}

// VLExecuteTestCase outside host processes comes here.
[[maybe_unused]] const bool kServiceExecutorInstalled = [] {
  vl::setServiceExecutor(executeTestCaseInService);
  return true;
}();

}  // namespace

std::shared_ptr<VLTestCaseResult> executeTestCaseInService(
    const std::shared_ptr<VLTestCaseObject>& object, vl::Error* error) {
  vl::Error failure;
  auto archived = VLConvertObjectToData(vl::Value(object), &failure);
  if (!archived) return failed(object, std::move(failure), error);

  IpmDictionary request;
  request.set(kVLMessageKeyType, IpmValue::ofString(kVLMessageTypeTestCaseRequest));
  request.set(kVLMessageKeyTestCase, IpmValue::ofData(std::move(archived->bytes)));
  auto reply = sendMessage(IpmValue::ofDictionary(std::move(request)), kNoTimeout, &failure);
  if (!reply) return failed(object, std::move(failure), error);

  const IpmValue* result = reply->asDictionary()->find(kVLMessageKeyResult);
  if (!result || !result->asData()) {
    return failed(object,
                  ipmError(IpmErrorCode::kInvalidMessage, "The reply holds no \"Result\" data"),
                  error);
  }
  auto decoded = VLConvertDataToObject(*result->asData(), &failure).record<VLTestCaseResult>();
  if (!decoded) {
    return failed(object,
                  ipmError(IpmErrorCode::kInvalidMessage,
                           "The reply's \"Result\" is not an archived test case result"),
                  error);
  }
  return decoded;
}

Service::Handler testCaseRequestHandler(TestCaseExecutor execute) {
  return [execute = std::move(execute)](const IpmValue& request) -> IpmValue {
    std::string reason;
    auto object =
        requestRecord<VLTestCaseObject>(*request.asDictionary(), kVLMessageKeyTestCase, &reason);
    if (object) object = completedFromCatalogue(object, &reason);
    if (!object) return IpmValue::ofError(reason);
    auto result = execute(object);
    if (!result) {
      return IpmValue::ofError("Running " + object->name().value_or("the test case") +
                               " gave no result");
    }
    vl::Error error;
    auto data = VLConvertObjectToData(vl::Value(result), &error);
    if (!data) {
      return IpmValue::ofError("Unable to archive the result: " + error.localizedDescription());
    }
    IpmDictionary reply;
    reply.set(kVLMessageKeyResult, IpmValue::ofData(std::move(data->bytes)));
    // A request relayed from the manager is matched to its reply by this key.
    if (const IpmValue* uuid = request.asDictionary()->find(kVLMessageKeyUUID)) {
      reply.set(kVLMessageKeyUUID, *uuid);
    }
    return IpmValue::ofDictionary(std::move(reply));
  };
}

Service::Handler messageRouterHandler() {
  return [](const IpmValue& request) -> IpmValue {
    std::optional<vl::Dictionary> message = VLIPMDictionaryToNSDictionary(request);
    if (!message) return IpmValue::ofError("The message does not convert to a dictionary");
    VLFindObjectForMessage(*message);
    return IpmValue::ofDictionary(IpmDictionary());
  };
}

}  // namespace vl::ipm
