#include "vorlund/results/issue.h"

#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/error.h"
#include "vorlund/foundation/format.h"

namespace {

[[maybe_unused]] const bool kRegistered = vl::registerCodableClass({
    .name = VLIssue::kClassName,
    .superclasses = {vl::kClassRoot},
    .decode = [](vl::KeyedUnarchiver& coder) -> std::shared_ptr<vl::CodableRecord> {
      return VLIssue::withCoder(coder);
    },
    .fromDictionary = [](const vl::Dictionary& dictionary, vl::Error*)
        -> std::shared_ptr<vl::CodableRecord> { return VLIssue::withDictionary(dictionary); },
});

std::optional<std::string> stringOf(const vl::Value& value) {
  if (const std::string* text = value.asString()) return *text;
  return std::nullopt;
}

}  // namespace

std::shared_ptr<VLIssue> VLIssue::make() { return std::make_shared<VLIssue>(); }

std::shared_ptr<VLIssue> VLIssue::withDictionary(const vl::Dictionary& dictionary) {
  auto issue = make();
  issue->reason_ = stringOf(dictionary.get(kVLIssueKeyReason));
  issue->process_ = stringOf(dictionary.get(kVLIssueKeyProcess));
  issue->type_ = stringOf(dictionary.get(kVLIssueKeyType));
  const vl::Value& time = dictionary.get(kVLIssueKeyTime);
  if (const std::string* text = time.asString()) {
    issue->time_ = vl::dateFromString(*text);
  } else if (const vl::Date* date = time.asDate()) {
    issue->time_ = *date;
  }
  issue->primaryProcess_ = dictionary.get(kVLIssueKeyMTBFImpacting).boolOr(false);
  issue->wirelessProcess_ = dictionary.get(kVLIssueKeyWirelessProcess).boolOr(false);
  if (const vl::Number* instances = dictionary.get(kVLIssueKeyInstances).asNumber()) {
    issue->instances_ = instances->uint64Value();
  }
  return issue;
}

std::shared_ptr<VLIssue> VLIssue::withCoder(vl::KeyedUnarchiver& coder) {
  auto issue = make();
  issue->reason_ = coder.decodeString(kVLIssueKeyReason);
  issue->process_ = coder.decodeString(kVLIssueKeyProcess);
  issue->type_ = coder.decodeString(kVLIssueKeyType);
  if (auto text = coder.decodeString(kVLIssueKeyTime)) issue->time_ = vl::dateFromString(*text);
  if (auto number = coder.decodeNumber(kVLIssueKeyMTBFImpacting)) {
    issue->primaryProcess_ = number->boolValue();
  }
  if (auto number = coder.decodeNumber(kVLIssueKeyWirelessProcess)) {
    issue->wirelessProcess_ = number->boolValue();
  }
  if (auto number = coder.decodeNumber(kVLIssueKeyInstances)) {
    issue->instances_ = number->uint64Value();
  }
  if (coder.failed()) return nullptr;
  return issue;
}

bool VLIssue::isValid() const {
  const char* missing = nullptr;
  if (!reason_) {
    missing = "%@ did not have a reason set";
  } else if (!process_) {
    missing = "%@ did not have a process set";
  } else if (!type_) {
    missing = "%@ did not have a type set";
  } else if (!time_) {
    missing = "%@ did not have a time set";
  } else if (instances_ == 0) {
    missing = "%@ cannot have instances set to 0";
  }
  if (missing) throw VLException(kVLIssueInvalidException, vl::format(missing, *this));
  return true;
}

bool VLIssue::isEqualToIssue(const VLIssue& other) const {
  return time_ && other.time_ && *time_ == *other.time_ && reason_ && other.reason_ &&
         *reason_ == *other.reason_ && process_ && other.process_ && *process_ == *other.process_;
}

bool VLIssue::isEqual(const vl::Record& other) const {
  const auto* issue = dynamic_cast<const VLIssue*>(&other);
  return issue && isEqualToIssue(*issue);
}

vl::Dictionary VLIssue::getDictionaryRepresentation() const {
  vl::Dictionary dictionary;
  if (reason_) dictionary.set(kVLIssueKeyReason, *reason_);
  if (process_) dictionary.set(kVLIssueKeyProcess, *process_);
  if (type_) dictionary.set(kVLIssueKeyType, *type_);
  if (time_) dictionary.set(kVLIssueKeyTime, vl::dateString(*time_));
  dictionary.set(kVLIssueKeyMTBFImpacting, vl::Value(primaryProcess_));
  dictionary.set(kVLIssueKeyWirelessProcess, vl::Value(wirelessProcess_));
  dictionary.set(kVLIssueKeyInstances, vl::Value(instances_));
  dictionary.set(kVLIssueKeyClass, className());
  return dictionary;
}

std::string VLIssue::description() const {
  return vl::format("VLIssue with dictionarion: %@", getDictionaryRepresentation());
}

void VLIssue::encodeWithCoder(vl::KeyedArchiver& coder) const {
  if (reason_) coder.encodeObject(*reason_, kVLIssueKeyReason);
  if (process_) coder.encodeObject(*process_, kVLIssueKeyProcess);
  if (type_) coder.encodeObject(*type_, kVLIssueKeyType);
  if (time_) coder.encodeObject(vl::dateString(*time_), kVLIssueKeyTime);
  coder.encodeObject(vl::Value(primaryProcess_), kVLIssueKeyMTBFImpacting);
  coder.encodeObject(vl::Value(wirelessProcess_), kVLIssueKeyWirelessProcess);
  coder.encodeObject(vl::Value(instances_), kVLIssueKeyInstances);
}
