#include "vorlund/results/test_case_result.h"

#include <execinfo.h>

#include <array>

#include "vorlund/catalogue/preferences.h"
#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/issue_reporting.h"

namespace {

constexpr const char* kCategory = "Results";
constexpr const char* kStopStressName = "Stop Stress";

vl::Value valueOf(const std::optional<std::string>& text) {
  return text ? vl::Value(*text) : vl::Value();
}

// Dictionaries and property lists have no null: a text that is not set leaves its key out, as
// the dictionary forms are read back (an absent key gives none).
void setIfPresent(vl::Dictionary& dictionary, const char* key,
                  const std::optional<std::string>& text) {
  if (text) dictionary.set(key, *text);
}

// A missing date converts as the current time.
std::string dateText(const std::optional<vl::Date>& date) {
  return vl::dateString(date ? *date : vl::Date::now());
}

std::optional<vl::Date> dateOf(const vl::Value& value) {
  if (const std::string* text = value.asString()) return vl::dateFromString(*text);
  if (const vl::Date* date = value.asDate()) return *date;
  return std::nullopt;
}

std::optional<std::string> stringOf(const vl::Value& value) {
  if (const std::string* text = value.asString()) return *text;
  return std::nullopt;
}

// The current call stack, one symbol per element, as the "missing name" line prints it.
vl::Array callStackSymbols() {
  std::array<void*, 64> frames{};
  int count = backtrace(frames.data(), static_cast<int>(frames.size()));
  vl::Array symbols;
  char** names = backtrace_symbols(frames.data(), count);
  if (!names) return symbols;
  for (int i = 0; i < count; ++i) symbols.push_back(std::string(names[i]));
  free(names);
  return symbols;
}

[[maybe_unused]] const bool kRegistered = vl::registerCodableClass({
    .name = VLTestCaseResult::kClassName,
    .superclasses = {vl::kClassRoot},
    .decode = [](vl::KeyedUnarchiver& coder) -> std::shared_ptr<vl::CodableRecord> {
      return VLTestCaseResult::withCoder(coder);
    },
    .fromDictionary = [](const vl::Dictionary& dictionary,
                         vl::Error*) -> std::shared_ptr<vl::CodableRecord> {
      return VLTestCaseResult::withDictionary(dictionary);
    },
});

}  // namespace

void VLTestCaseResult::initializeValues() {
  result_ = kVLTestCaseResultDefault;
  start_.reset();
  end_.reset();
  metrics_.clear();
  tags_.clear();
  setType(std::nullopt);
  resultCode_ = -1;
  technologiesInvolved_ = 0;
  setName(std::nullopt);
  setBucket(std::nullopt);
  addToMissedTestCases_ = false;
  isNoOp_ = false;
  isEnvironmentFailure_ = false;
  isStopStress_ = false;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::make() {
  auto result = std::make_shared<VLTestCaseResult>();
  result->initializeValues();
  return result;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::withName(std::string name) {
  auto result = make();
  result->setName(std::move(name));
  return result;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::asNoOp() {
  auto result = make();
  result->isNoOp_ = true;
  return result;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::asEnvironmentFailure() {
  auto result = make();
  result->isEnvironmentFailure_ = true;
  return result;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::asMissedTestCase() {
  auto result = make();
  result->addToMissedTestCases_ = true;
  return result;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::asStopStress() {
  auto result = make();
  result->isStopStress_ = true;
  result->setName(std::string(kStopStressName));
  result->setBucket(std::string(kStopStressName));
  return result;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::withTestCaseObject(
    std::shared_ptr<VLTestCaseObject> testCaseObject) {
  auto result = make();
  if (testCaseObject) {
    result->setName(testCaseObject->name());
    result->setType(testCaseObject->type());
    if (auto implementer = VLGetClassForTestCase(testCaseObject)) {
      result->technologiesInvolved_ = implementer->technology().value_or(0);
    }
    result->setStartTime(std::nullopt);
    if (const auto& webTags = testCaseObject->webTags()) {
      for (size_t i = 0; i < webTags->size(); ++i) {
        auto [key, value] = webTags->entry(i);
        result->addTag(value, key);
      }
    }
  } else {
    result->setStartTime(std::nullopt);
  }
  result->testcaseObject_ = std::move(testCaseObject);
  return result;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::quickPassWithTestCaseObject(
    std::shared_ptr<VLTestCaseObject> testCaseObject) {
  auto result = withTestCaseObject(std::move(testCaseObject));
  result->pass();
  result->setEndTime(std::nullopt);
  return result;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::quickFailWithTestCaseObject(
    std::shared_ptr<VLTestCaseObject> testCaseObject, std::string reason) {
  auto result = withTestCaseObject(std::move(testCaseObject));
  result->failWithReason(reason);
  result->setEndTime(std::nullopt);
  return result;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::withDictionary(
    const vl::Dictionary& dictionary) {
  auto result = make();
  result->setName(stringOf(dictionary.get(kVLTestCaseResultKeyName)));
  result->result_ = static_cast<int32_t>(dictionary.get(kVLTestCaseResultKeyResult).int64Or(0));
  result->technologiesInvolved_ = dictionary.get(kVLTestCaseResultKeyTechInvolved).int64Or(0);
  result->start_ = dateOf(dictionary.get(kVLTestCaseResultKeyTimeStamp));
  result->end_ = dateOf(dictionary.get(kVLTestCaseResultKeyEndTime));
  if (const vl::Dictionary* metrics = dictionary.get(kVLTestCaseResultKeyMetrics).asDictionary()) {
    result->metrics_ = *metrics;
  }
  if (const vl::Dictionary* tags = dictionary.get(kVLTestCaseResultKeyTags).asDictionary()) {
    result->tags_ = *tags;
  }
  result->setType(stringOf(dictionary.get(kVLTestCaseResultKeyType)));
  result->resultCode_ = static_cast<int32_t>(dictionary.get(kVLTestCaseResultKeyCode).int64Or(0));
  result->setBucket(stringOf(dictionary.get(kVLTestCaseResultKeyBucket)));
  result->addToMissedTestCases_ =
      dictionary.get(kVLTestCaseResultKeyIsMissedTestCase).boolOr(false);
  result->isNoOp_ = dictionary.get(kVLTestCaseResultKeyIsNoOp).boolOr(false);
  result->isEnvironmentFailure_ =
      dictionary.get(kVLTestCaseResultKeyIsEnvironmentFailure).boolOr(false);
  result->isStopStress_ = dictionary.get(kVLTestCaseResultKeyIsStopStress).boolOr(false);
  return result;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::withCoder(vl::KeyedUnarchiver& coder) {
  auto result = make();
  result->setName(coder.decodeString(kVLTestCaseResultKeyName));
  if (auto number = coder.decodeNumber(kVLTestCaseResultKeyResult)) {
    result->result_ = static_cast<int32_t>(number->int64Value());
  }
  if (auto number = coder.decodeNumber(kVLTestCaseResultKeyTechInvolved)) {
    result->technologiesInvolved_ = number->int64Value();
  }
  if (auto text = coder.decodeString(kVLTestCaseResultKeyTimeStamp)) {
    result->start_ = vl::dateFromString(*text);
  }
  if (auto text = coder.decodeString(kVLTestCaseResultKeyEndTime)) {
    result->end_ = vl::dateFromString(*text);
  }
  vl::Value metrics =
      coder.decodeObject(kVLTestCaseResultKeyMetrics, VLValidExternalClassesForCoding());
  if (const vl::Dictionary* dictionary = metrics.asDictionary()) result->metrics_ = *dictionary;
  vl::Value tags = coder.decodeObject(kVLTestCaseResultKeyTags, VLValidExternalClassesForCoding());
  if (const vl::Dictionary* dictionary = tags.asDictionary()) result->tags_ = *dictionary;
  result->setType(coder.decodeString(kVLTestCaseResultKeyType));
  if (auto number = coder.decodeNumber(kVLTestCaseResultKeyCode)) {
    result->resultCode_ = static_cast<int32_t>(number->int64Value());
  }
  result->setBucket(coder.decodeString(kVLTestCaseResultKeyBucket));
  if (auto number = coder.decodeNumber(kVLTestCaseResultKeyIsMissedTestCase)) {
    result->addToMissedTestCases_ = number->boolValue();
  }
  if (auto number = coder.decodeNumber(kVLTestCaseResultKeyIsNoOp)) {
    result->isNoOp_ = number->boolValue();
  }
  if (auto number = coder.decodeNumber(kVLTestCaseResultKeyIsEnvironmentFailure)) {
    result->isEnvironmentFailure_ = number->boolValue();
  }
  if (auto number = coder.decodeNumber(kVLTestCaseResultKeyIsStopStress)) {
    result->isStopStress_ = number->boolValue();
  }
  if (coder.failed()) return nullptr;
  return result;
}

void VLTestCaseResult::pass() { result_ = kVLTestCaseResultPass; }

void VLTestCaseResult::failWithReason(const std::string& reason) {
  result_ = kVLTestCaseResultFail;
  vl::Dictionary preferences = VLGetPreferences();
  const vl::Value* breakdown = preferences.find("BreakdownFailuresByDevice");
  if (breakdown && breakdown->boolOr(false)) {
    setBucket(reason + vl::format(" | %@", vl::deviceSerialNumber()));
  } else {
    setBucket(reason);
  }
}

void VLTestCaseResult::setStartTime(std::optional<vl::Date> date) {
  start_ = date ? *date : vl::Date::now();
}

void VLTestCaseResult::setEndTime(std::optional<vl::Date> date) {
  end_ = date ? *date : vl::Date::now();
}

int VLTestCaseResult::addMetric(const vl::Value& value, const std::optional<std::string>& key) {
  if (!key) {
    VLLog(VLLogLevelError, kCategory, "Key cannot be nil in addMetric:");
    return 1;
  }
  if (value.isNone()) {
    VLLog(VLLogLevelError, kCategory, "Object is nil, unable to add %@", *key);
    return 1;
  }
  metrics_.set(*key, value);
  return 0;
}

int VLTestCaseResult::addTag(const vl::Value& value, const std::optional<std::string>& key) {
  if (!key) {
    VLLog(VLLogLevelError, nullptr, "Key cannot be nil in addTag:");
    return 1;
  }
  if (value.isNone()) {
    VLLog(VLLogLevelError, nullptr, "Object is nil, unable to add %@", *key);
    return 1;
  }
  tags_.set(*key, value);
  return 0;
}

void VLTestCaseResult::removeMetric(std::string_view key) { metrics_.erase(key); }
void VLTestCaseResult::removeAllMetrics() { metrics_.clear(); }
void VLTestCaseResult::removeTag(std::string_view key) { tags_.erase(key); }
void VLTestCaseResult::removeAllTags() { tags_.clear(); }

bool VLTestCaseResult::isHistogram() const {
  std::optional<std::string> resultType = type();
  return resultType && (*resultType == kVLTestCaseResultTypeTimeHistogram ||
                        *resultType == kVLTestCaseResultTypeInstanceHistogram);
}

std::optional<std::string> VLTestCaseResult::name() const {
  std::lock_guard lock(propertyMutex_);
  return name_;
}
void VLTestCaseResult::setName(std::optional<std::string> name) {
  std::lock_guard lock(propertyMutex_);
  name_ = std::move(name);
}
std::optional<std::string> VLTestCaseResult::type() const {
  std::lock_guard lock(propertyMutex_);
  return type_;
}
void VLTestCaseResult::setType(std::optional<std::string> type) {
  std::lock_guard lock(propertyMutex_);
  type_ = std::move(type);
}
std::optional<std::string> VLTestCaseResult::bucket() const {
  std::lock_guard lock(propertyMutex_);
  return bucket_;
}
void VLTestCaseResult::setBucket(std::optional<std::string> bucket) {
  std::lock_guard lock(propertyMutex_);
  bucket_ = std::move(bucket);
}

vl::Dictionary VLTestCaseResult::codingDictionary() const {
  vl::Dictionary dictionary;
  setIfPresent(dictionary, kVLTestCaseResultKeyName, name());
  dictionary.set(kVLTestCaseResultKeyResult, vl::Value(result_));
  dictionary.set(kVLTestCaseResultKeyTechInvolved,
                 vl::Value(vl::Number::withLong(technologiesInvolved_)));
  dictionary.set(kVLTestCaseResultKeyTimeStamp, dateText(start_));
  dictionary.set(kVLTestCaseResultKeyEndTime, dateText(end_));
  if (!metrics_.empty()) dictionary.set(kVLTestCaseResultKeyMetrics, metrics_);
  if (!tags_.empty()) dictionary.set(kVLTestCaseResultKeyTags, tags_);
  setIfPresent(dictionary, kVLTestCaseResultKeyType, type());
  dictionary.set(kVLTestCaseResultKeyCode, vl::Value(resultCode_));
  setIfPresent(dictionary, kVLTestCaseResultKeyBucket, bucket());
  dictionary.set(kVLTestCaseResultKeyIsMissedTestCase, vl::Value(addToMissedTestCases_));
  dictionary.set(kVLTestCaseResultKeyIsNoOp, vl::Value(isNoOp_));
  dictionary.set(kVLTestCaseResultKeyIsEnvironmentFailure, vl::Value(isEnvironmentFailure_));
  dictionary.set(kVLTestCaseResultKeyIsStopStress, vl::Value(isStopStress_));
  return dictionary;
}

void VLTestCaseResult::encodeWithCoder(vl::KeyedArchiver& coder) const {
  coder.encodeObject(valueOf(name()), kVLTestCaseResultKeyName);
  coder.encodeObject(vl::Value(result_), kVLTestCaseResultKeyResult);
  coder.encodeObject(vl::Value(vl::Number::withLong(technologiesInvolved_)),
                     kVLTestCaseResultKeyTechInvolved);
  coder.encodeObject(dateText(start_), kVLTestCaseResultKeyTimeStamp);
  coder.encodeObject(dateText(end_), kVLTestCaseResultKeyEndTime);
  if (!metrics_.empty()) coder.encodeObject(metrics_, kVLTestCaseResultKeyMetrics);
  if (!tags_.empty()) coder.encodeObject(tags_, kVLTestCaseResultKeyTags);
  coder.encodeObject(valueOf(type()), kVLTestCaseResultKeyType);
  coder.encodeObject(vl::Value(resultCode_), kVLTestCaseResultKeyCode);
  coder.encodeObject(valueOf(bucket()), kVLTestCaseResultKeyBucket);
  coder.encodeObject(vl::Value(addToMissedTestCases_), kVLTestCaseResultKeyIsMissedTestCase);
  coder.encodeObject(vl::Value(isNoOp_), kVLTestCaseResultKeyIsNoOp);
  coder.encodeObject(vl::Value(isEnvironmentFailure_), kVLTestCaseResultKeyIsEnvironmentFailure);
  coder.encodeObject(vl::Value(isStopStress_), kVLTestCaseResultKeyIsStopStress);
}

std::string VLTestCaseResult::description() const {
  return vl::Value(codingDictionary()).description();
}

vl::Dictionary VLTestCaseResult::getDictionaryRepresentation() const {
  std::optional<std::string> resultName = name();
  std::optional<std::string> resultType = type();
  std::optional<std::string> resultBucket = bucket();
  VLLog(VLLogLevelDebug, kCategory,
        "Saving the following attributes for %@... Result = %d, Start = %@, End = %@, "
        "Metrics = %@, type = %@, bucket = %@",
        valueOf(resultName), result_, dateText(start_), dateText(end_), metrics_,
        valueOf(resultType), valueOf(resultBucket));
  vl::Dictionary dictionary;
  setIfPresent(dictionary, kVLTestCaseResultKeyName, resultName);
  dictionary.set(kVLTestCaseResultKeyResult, vl::Value(result_));
  dictionary.set(kVLTestCaseResultKeyTimeStamp, dateText(start_));
  dictionary.set(kVLTestCaseResultKeyEndTime, dateText(end_));
  if (!metrics_.empty()) dictionary.set(kVLTestCaseResultKeyMetrics, metrics_);
  setIfPresent(dictionary, kVLTestCaseResultKeyType, resultType);
  setIfPresent(dictionary, kVLTestCaseResultKeyBucket, resultBucket);
  dictionary.set(kVLTestCaseResultKeyClass, className());
  dictionary.set(kVLTestCaseResultKeyTags, tags_);
  return dictionary;
}

vl::Dictionary VLTestCaseResult::dictionaryValue() const {
  vl::Dictionary value;
  value.set(dataModelId(), getDictionaryRepresentation());
  return value;
}

std::shared_ptr<VLTestCaseResult> VLTestCaseResult::copy() const {
  auto duplicate = make();
  std::optional<std::string> sourceBucket = bucket();
  duplicate->setName(name());
  duplicate->setType(type());
  duplicate->setBucket(sourceBucket);
  duplicate->technologiesInvolved_ = technologiesInvolved_;
  for (size_t i = 0; i < metrics_.size(); ++i) {
    auto [key, value] = metrics_.entry(i);
    duplicate->addMetric(value, key);
  }
  for (size_t i = 0; i < tags_.size(); ++i) {
    auto [key, value] = tags_.entry(i);
    duplicate->addTag(value, key);
  }
  if (didPass()) {
    duplicate->pass();
    duplicate->setBucket(sourceBucket);
  } else if (sourceBucket) {
    duplicate->failWithReason(*sourceBucket);
  } else {
    duplicate->result_ = kVLTestCaseResultFail;
  }
  // As the setters do, a missing time becomes the current time.
  duplicate->setStartTime(start_);
  duplicate->setEndTime(end_);
  return duplicate;
}

std::optional<std::string> VLTestCaseResult::validate(bool log) const {
  if (isNoOp_ || isStopStress_ || addToMissedTestCases_) return std::nullopt;

  std::optional<std::string> resultName = name();
  vl::Value nameValue = valueOf(resultName);
  auto reject = [&](const char* line, const vl::Value& argument, const char* reason) {
    if (log) VLLog(VLLogLevelError, kCategory, line, argument);
    return std::optional<std::string>(reason);
  };
  if (!resultName) {
    return reject("Result did not have name set...%@", log ? callStackSymbols() : vl::Value(),
                  "Invalid Result: Result did not have name.");
  }
  if (!start_) {
    return reject("%@ did not have start date set", nameValue,
                  "Invalid Result: Result did not have start date set.");
  }
  if (!end_) {
    return reject("%@ did not have end date set", nameValue,
                  "Invalid Result: Result did not have end date set.");
  }
  if (!type()) {
    return reject("%@ did not have type set", nameValue,
                  "Invalid Result: Result did not have type set.");
  }
  if (result_ == kVLTestCaseResultDefault && !isHistogram()) {
    // The one reason without a final full stop, as the system has always written it.
    return reject("%@ did not have pass/fail set", nameValue,
                  "Invalid Result: Result did not have pass/fail set");
  }
  if (type() == std::optional<std::string>(kVLTestCaseResultTypeAverage) && didPass() &&
      metrics_.empty()) {
    return reject("%@ was an average test case without metrics", nameValue,
                  "Invalid Result: Result was an average test case without metrics.");
  }
  if (didPass() || bucket()) return std::nullopt;
  return reject("%@ was a failed test case without a bucket", nameValue,
                "Invalid Result: Result was a failed test case without a bucket.");
}

std::optional<std::string> VLTestCaseResult::validationFailure() const { return validate(false); }

bool VLTestCaseResult::isValidResult() const {
  VLLog(VLLogLevelDebug, kCategory, "Test case result: %@", description());
  std::optional<std::string> reason = validate(true);
  if (!reason) return true;
  VLAddFailureToResults(*reason);
  return false;
}

namespace vl {
std::shared_ptr<VLTestCaseResult> finishResult(std::shared_ptr<VLTestCaseResult> result,
                                               const std::optional<std::string>& failureReason) {
  if (failureReason) {
    result->failWithReason(*failureReason);
  } else {
    result->pass();
  }
  result->setEndTime(std::nullopt);
  return result;
}
}  // namespace vl
