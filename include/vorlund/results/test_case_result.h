// VLTestCaseResult: the record of one execution of one test case (pass or fail, failure bucket,
// start and end, metrics, tags, type and technologies). Test code fills it and hands it to the
// results aggregate (results/results.h); it crosses processes as a keyed archive or a dictionary.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/foundation/value.h"

// Keys of the coding form, the dictionary form and the description.
inline constexpr const char* kVLTestCaseResultKeyName = "Name";
inline constexpr const char* kVLTestCaseResultKeyResult = "Result";
inline constexpr const char* kVLTestCaseResultKeyCode = "ResultCode";
inline constexpr const char* kVLTestCaseResultKeyType = "Type";
inline constexpr const char* kVLTestCaseResultKeyBucket = "Bucket";
inline constexpr const char* kVLTestCaseResultKeyMetrics = "Metrics";
inline constexpr const char* kVLTestCaseResultKeyTags = "Tags";
inline constexpr const char* kVLTestCaseResultKeyTimeStamp = "TimeStamp";
inline constexpr const char* kVLTestCaseResultKeyEndTime = "EndTime";
// One letter short on purpose: this is the key on the wire and on disk. Do not correct it.
inline constexpr const char* kVLTestCaseResultKeyTechInvolved = "TechnolgiesInvolved";
inline constexpr const char* kVLTestCaseResultKeyIsMissedTestCase = "isMissedTestCase";
inline constexpr const char* kVLTestCaseResultKeyIsNoOp = "isNoOp";
inline constexpr const char* kVLTestCaseResultKeyIsEnvironmentFailure = "isEnvironmentFailure";
inline constexpr const char* kVLTestCaseResultKeyIsStopStress = "isStopStress";

// The four result types.
inline constexpr const char* kVLTestCaseResultTypePassFail = "PassFail";
inline constexpr const char* kVLTestCaseResultTypeAverage = "Average";
inline constexpr const char* kVLTestCaseResultTypeTimeHistogram = "HistogramByTime";
inline constexpr const char* kVLTestCaseResultTypeInstanceHistogram = "HistogramByInstance";

inline constexpr const char* kVLInvalidTestCaseResult = "Invalid Test Case Result";

// Extra keys of the dictionary form and the reporting adapter.
inline constexpr const char* kVLTestCaseResultKeyClass = "Class";
inline constexpr const char* kVLTestCaseResultDataModelId = "com.brindle.zep.model.stress.result";

// The values of result(): not set, passed, failed.
inline constexpr int32_t kVLTestCaseResultDefault = -1;
inline constexpr int32_t kVLTestCaseResultPass = 0;
inline constexpr int32_t kVLTestCaseResultFail = 1;

// name, type and bucket are atomic; the rest is filled by one thread before the result is handed
// to the results aggregate.
class VLTestCaseResult : public vl::CodableRecord {
 public:
  static constexpr const char* kClassName = "VLTestCaseResult";

  // A default result: result -1, result code -1, no dates, no name, type or bucket, empty metrics
  // and tags, technologies 0, every flag false.
  static std::shared_ptr<VLTestCaseResult> make();
  static std::shared_ptr<VLTestCaseResult> withName(std::string name);
  static std::shared_ptr<VLTestCaseResult> asNoOp();
  static std::shared_ptr<VLTestCaseResult> asEnvironmentFailure();
  static std::shared_ptr<VLTestCaseResult> asMissedTestCase();
  // Sets isStopStress and both name and bucket to "Stop Stress".
  static std::shared_ptr<VLTestCaseResult> asStopStress();
  // Name and type of the object, technologies of its test case class (VLGetClassForTestCase; 0
  // when no class implements it), start = now, every reporting tag added as a tag, the object kept.
  static std::shared_ptr<VLTestCaseResult> withTestCaseObject(
      std::shared_ptr<VLTestCaseObject> testCaseObject);
  // As withTestCaseObject, then pass() (or failWithReason(reason)), then end = now.
  static std::shared_ptr<VLTestCaseResult> quickPassWithTestCaseObject(
      std::shared_ptr<VLTestCaseObject> testCaseObject);
  static std::shared_ptr<VLTestCaseResult> quickFailWithTestCaseObject(
      std::shared_ptr<VLTestCaseObject> testCaseObject, std::string reason);
  // Reads every key of the coding form; absent keys or keys of another type give 0, false or none.
  // Never fails.
  static std::shared_ptr<VLTestCaseResult> withDictionary(const vl::Dictionary& dictionary);
  // From a keyed archive; "Metrics" and "Tags" may hold only VLValidExternalClassesForCoding().
  // Returns nullptr (the decode failed with an error) when a key holds the wrong class.
  static std::shared_ptr<VLTestCaseResult> withCoder(vl::KeyedUnarchiver& coder);

  // Outcome. pass() leaves the bucket as it is. failWithReason() sets the bucket to the reason, or
  // to "reason | <serial number>" when the preference "BreakdownFailuresByDevice" is true.
  void pass();
  void failWithReason(const std::string& reason);
  bool didPass() const { return result_ == kVLTestCaseResultPass; }
  bool didFail() const { return result_ == kVLTestCaseResultFail; }
  bool isDefaultResult() const { return result_ == kVLTestCaseResultDefault; }
  std::optional<std::string> getFailureReason() const { return bucket(); }
  // -1 not set, 0 pass, 1 fail.
  int32_t result() const { return result_; }

  // A date stores a copy of it; none stores the current time.
  void setStartTime(std::optional<vl::Date> date);
  void setEndTime(std::optional<vl::Date> date);
  std::optional<vl::Date> getStartTime() const { return start_; }
  std::optional<vl::Date> getEndTime() const { return end_; }
  std::shared_ptr<VLTestCaseObject> getUnderlyingTestCaseObject() const { return testcaseObject_; }

  // Return 0 when stored, 1 when refused (a none key or a none value), with an error line. A
  // metric is a number or a string; a tag any value. A later value replaces an earlier one.
  int addMetric(const vl::Value& value, const std::optional<std::string>& key);
  int addTag(const vl::Value& value, const std::optional<std::string>& key);
  void removeMetric(std::string_view key);
  void removeAllMetrics();
  void removeTag(std::string_view key);
  void removeAllTags();
  // Copies.
  vl::Dictionary getMetrics() const { return metrics_; }
  vl::Dictionary getTags() const { return tags_; }

  bool isNoOp() const { return isNoOp_; }
  bool isEnvironmentFailure() const { return isEnvironmentFailure_; }
  bool isStopStress() const { return isStopStress_; }
  bool shouldAddToMissedTestCases() const { return addToMissedTestCases_; }
  void setNoOp(bool value) { isNoOp_ = value; }
  void setEnvironmentFailure(bool value) { isEnvironmentFailure_ = value; }
  void setStopStress(bool value) { isStopStress_ = value; }
  void setAddToMissedTestCases(bool value) { addToMissedTestCases_ = value; }
  // Type "HistogramByTime" or "HistogramByInstance".
  bool isHistogram() const;

  // Atomic properties.
  std::optional<std::string> name() const;
  void setName(std::optional<std::string> name);
  std::optional<std::string> type() const;
  void setType(std::optional<std::string> type);
  std::optional<std::string> bucket() const;
  void setBucket(std::optional<std::string> bucket);
  int32_t resultCode() const { return resultCode_; }
  void setResultCode(int32_t code) { resultCode_ = code; }
  int64_t technologiesInvolved() const { return technologiesInvolved_; }
  void setTechnologiesInvolved(int64_t mask) { technologiesInvolved_ = mask; }

  // Logs "Saving the following attributes for ..." at level 2 (category "Results"); "Name",
  // "Result", "TimeStamp", "EndTime", "Metrics" (when not empty), "Type", "Bucket", "Class" and
  // "Tags" (always). No result code, technologies or flags. Name, type and bucket are left out
  // when not set (a dictionary holds no null), so the form is always a valid property list.
  vl::Dictionary getDictionaryRepresentation() const;
  // The reporting adapter: "com.brindle.zep.model.stress.result", and {dataModelId: dictionary}.
  std::string dataModelId() const { return kVLTestCaseResultDataModelId; }
  vl::Dictionary dictionaryValue() const;

  // A new result with name, type, bucket, technologies, metrics, tags, outcome (a source that did
  // not pass is failed with its bucket) and times. Not the result code, flags or test case object.
  std::shared_ptr<VLTestCaseResult> copy() const;

  // The ten validation steps. On rejection: one error line (category "Results") and a "Failure"
  // issue with the reason in the current results; returns false.
  bool isValidResult() const;
  // The reason isValidResult would reject this result for, or none when it is valid; no log line
  // and no issue. For callers that refuse input before it reaches a run.
  std::optional<std::string> validationFailure() const;

  // The coding form, keys in order; metrics and tags only when not empty; dates as date strings.
  void encodeWithCoder(vl::KeyedArchiver& coder) const override;
  // The dictionary of the coding form, printed as a dictionary.
  std::string description() const override;
  std::string className() const override { return kClassName; }
  vl::Dictionary dictionaryRepresentation() const override { return getDictionaryRepresentation(); }

  // The keys and values of the coding form as a dictionary (metrics, tags only when not empty;
  // name, type and bucket only when set).
  vl::Dictionary codingDictionary() const;

 private:
  void initializeValues();
  // The validation steps; with log set, each rejection logs its line.
  std::optional<std::string> validate(bool log) const;

  vl::Dictionary metrics_;
  vl::Dictionary tags_;
  std::optional<vl::Date> start_;
  std::optional<vl::Date> end_;
  bool addToMissedTestCases_ = false;
  bool isNoOp_ = false;
  bool isEnvironmentFailure_ = false;
  bool isStopStress_ = false;
  int32_t result_ = kVLTestCaseResultDefault;
  std::shared_ptr<VLTestCaseObject> testcaseObject_;
  int32_t resultCode_ = -1;
  mutable std::mutex propertyMutex_;
  std::optional<std::string> name_;
  std::optional<std::string> type_;
  std::optional<std::string> bucket_;
  int64_t technologiesInvolved_ = 0;
};

namespace vl {
// Ends a test method's result now: passes it, or fails it with failureReason when one is given.
// Returns the result, so that a test method can end with `return finishResult(result, reason);`.
std::shared_ptr<VLTestCaseResult> finishResult(std::shared_ptr<VLTestCaseResult> result,
                                               const std::optional<std::string>& failureReason);
}  // namespace vl
