#include "vorlund/ipm/results_service.h"

#include <exception>
#include <filesystem>

#include "request_record.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/client.h"
#include "vorlund/results/execution.h"
#include "vorlund/results/results.h"
#include "vorlund/results/run_summary.h"

namespace vl::ipm {
namespace {

// Sends one "ResultsRequest" with action and, when given, an archived object under objectKey.
std::optional<IpmDictionary> sendResultsRequest(const char* action, const char* objectKey,
                                                const Value& object, Error* error) {
  IpmDictionary request;
  request.set(kVLMessageKeyType, IpmValue::ofString(kResultsRequestMessageType));
  request.set(kResultsKeyAction, IpmValue::ofString(action));
  if (objectKey) {
    std::optional<Data> archived = VLConvertObjectToData(object, error);
    if (!archived) return std::nullopt;
    request.set(objectKey, IpmValue::ofData(std::move(archived->bytes)));
  }
  std::optional<IpmValue> reply =
      sendMessage(IpmValue::ofDictionary(std::move(request)), kResultsRequestTimeout, error);
  if (!reply) return std::nullopt;
  return *reply->asDictionary();
}

Error missingReplyEntry(const char* key) {
  return ipmError(IpmErrorCode::kInvalidMessage,
                  std::string("The reply holds no \"") + key + "\" of the right type");
}

IpmValue addResult(const IpmDictionary& request) {
  std::string reason;
  auto result = requestRecord<VLTestCaseResult>(request, kVLMessageKeyResult, &reason);
  if (!result) return IpmValue::ofError(reason);
  if (std::optional<std::string> failure = result->validationFailure()) {
    return IpmValue::ofError(*failure);
  }
  VLResults::currentResults()->addTestCaseResult(result, true);
  return IpmValue::ofDictionary({});
}

IpmValue addIssue(const IpmDictionary& request) {
  std::string reason;
  auto issue = requestRecord<VLIssue>(request, kResultsKeyIssue, &reason);
  if (!issue) return IpmValue::ofError(reason);
  try {
    issue->isValid();
  } catch (const VLException& e) {
    return IpmValue::ofError(e.reason());
  }
  VLResults::currentResults()->addIssue(issue);
  return IpmValue::ofDictionary({});
}

IpmValue show() {
  std::shared_ptr<VLResults> run = VLResults::currentResults();
  run->updateRuntime();
  Error error;
  std::optional<Data> summary = VLConvertObjectToData(Value(runSummary(*run)), &error);
  if (!summary)
    return IpmValue::ofError("Unable to archive the run's summary: " +
                             error.localizedDescription());
  IpmDictionary reply;
  reply.set(kResultsKeySummary, IpmValue::ofData(std::move(summary->bytes)));
  return IpmValue::ofDictionary(std::move(reply));
}

IpmValue save() {
  std::shared_ptr<VLResults> run = VLResults::currentResults();
  run->updateRuntime();
  if (!run->saveToDisk())
    return IpmValue::ofError("Unable to save the run to " + run->getResultsFilePath());
  IpmDictionary reply;
  reply.set(kResultsKeyResultsFile, IpmValue::ofString(run->plistPath()));
  reply.set(kResultsKeyTimeline, IpmValue::ofString(run->timelinePath()));
  return IpmValue::ofDictionary(std::move(reply));
}

IpmValue reset() {
  std::shared_ptr<VLResults> run = VLResults::currentResults();
  if (!run->finish())
    return IpmValue::ofError("Unable to save the run to " + run->getResultsFilePath());
  // A new run starts now; this one stays in its results file and timeline. Its resume data, which
  // the service's periodic save wrote, must not come back as the next run, so the new run takes
  // over at once and the old data goes.
  VLResults::setCurrentResults(VLResults::make());
  std::error_code ignored;
  std::filesystem::remove(VLResults::resumeDataPath(), ignored);
  IpmDictionary reply;
  reply.set(kResultsKeyResultsFile, IpmValue::ofString(run->getResultsFilePath()));
  return IpmValue::ofDictionary(std::move(reply));
}

}  // namespace

bool addResultToServiceRun(const std::shared_ptr<VLTestCaseResult>& result, Error* error) {
  return sendResultsRequest(kResultsActionAddResult, kVLMessageKeyResult, Value(result), error)
      .has_value();
}

bool addIssueToServiceRun(const std::shared_ptr<VLIssue>& issue, Error* error) {
  return sendResultsRequest(kResultsActionAddIssue, kResultsKeyIssue, Value(issue), error)
      .has_value();
}

std::optional<Dictionary> serviceRunSummary(Error* error) {
  auto reply = sendResultsRequest(kResultsActionShow, nullptr, Value(), error);
  if (!reply) return std::nullopt;
  const IpmValue* archived = reply->find(kResultsKeySummary);
  if (!archived || !archived->asData()) {
    setError(error, missingReplyEntry(kResultsKeySummary));
    return std::nullopt;
  }
  Value summary = VLConvertDataToObject(*archived->asData(), error);
  if (!summary.asDictionary()) {
    setError(error, ipmError(IpmErrorCode::kInvalidMessage,
                             "The reply's \"Summary\" is not an archived dictionary"));
    return std::nullopt;
  }
  return *summary.asDictionary();
}

std::optional<std::string> resetServiceRun(Error* error) {
  auto reply = sendResultsRequest(kResultsActionReset, nullptr, Value(), error);
  if (!reply) return std::nullopt;
  const IpmValue* path = reply->find(kResultsKeyResultsFile);
  if (!path || !path->asString()) {
    setError(error, missingReplyEntry(kResultsKeyResultsFile));
    return std::nullopt;
  }
  return *path->asString();
}

std::optional<RunFiles> saveServiceRun(Error* error) {
  auto reply = sendResultsRequest(kResultsActionSave, nullptr, Value(), error);
  if (!reply) return std::nullopt;
  const IpmValue* resultsFile = reply->find(kResultsKeyResultsFile);
  const IpmValue* timeline = reply->find(kResultsKeyTimeline);
  if (!resultsFile || !resultsFile->asString()) {
    setError(error, missingReplyEntry(kResultsKeyResultsFile));
    return std::nullopt;
  }
  if (!timeline || !timeline->asString()) {
    setError(error, missingReplyEntry(kResultsKeyTimeline));
    return std::nullopt;
  }
  return RunFiles{*resultsFile->asString(), *timeline->asString()};
}

Service::Handler resultsRequestHandler() {
  return [](const IpmValue& message) -> IpmValue {
    const IpmDictionary& request = *message.asDictionary();
    const IpmValue* action = request.find(kResultsKeyAction);
    const std::string* name = action ? action->asString() : nullptr;
    if (!name) return IpmValue::ofError("The request holds no \"Action\" string");
    if (*name == kResultsActionAddResult) return addResult(request);
    if (*name == kResultsActionAddIssue) return addIssue(request);
    if (*name == kResultsActionShow) return show();
    if (*name == kResultsActionReset) return reset();
    if (*name == kResultsActionSave) return save();
    return IpmValue::ofError("Unknown results action \"" + *name + "\"");
  };
}

}  // namespace vl::ipm
