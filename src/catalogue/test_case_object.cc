#include "vorlund/catalogue/test_case_object.h"

#include <cctype>
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

#include "vorlund/catalogue/json_safe.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/format.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kOverridesKey = "Options Overrides";
constexpr const char* kLogCategory = "VLTestCaseObject";
constexpr const char* kNoTags = "no_tags";

vl::Dictionary noTagsDictionary() { return vl::Dictionary{{kNoTags, kNoTags}}; }

template <typename T>
vl::Value valueOf(const std::optional<T>& field) {
  return field ? vl::Value(*field) : vl::Value();
}

// The "Options Overrides" dictionary of the preferences, read at the first call in the process and
// kept for its life; none when the preferences have no such dictionary.
const std::optional<vl::Dictionary>& optionsOverrides() {
  static std::once_flag once;
  static std::optional<vl::Dictionary> overrides;
  std::call_once(once, [] {
    vl::Dictionary preferences = VLGetPreferences();
    if (const vl::Dictionary* found = preferences.get(kOverridesKey).asDictionary()) {
      overrides = *found;
    }
  });
  return overrides;
}

// The truth of a string as property lists and user defaults read it: after leading blanks and an
// optional sign and zeros, "Y", "y", "T", "t" or a digit 1-9.
bool stringBoolValue(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  while (i < text.size() && text[i] == '0') ++i;
  if (i == text.size()) return false;
  char c = text[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

// Reads typed fields out of a dictionary, remembering every key that holds a value of another
// type. Absent keys read as none.
class FieldReader {
 public:
  struct WrongType {
    std::string key;
    std::string expected;
    std::string actual;
  };

  explicit FieldReader(const vl::Dictionary& dictionary) : dictionary_(dictionary) {}

  std::optional<std::string> string(const char* key) {
    const vl::Value* value = present(key);
    if (!value) return std::nullopt;
    if (const auto* s = value->asString()) return *s;
    wrong(key, "a string", *value);
    return std::nullopt;
  }
  std::optional<vl::Array> array(const char* key) {
    const vl::Value* value = present(key);
    if (!value) return std::nullopt;
    if (const auto* a = value->asArray()) return *a;
    wrong(key, "an array", *value);
    return std::nullopt;
  }
  std::optional<vl::Dictionary> dictionary(const char* key) {
    const vl::Value* value = present(key);
    if (!value) return std::nullopt;
    if (const auto* d = value->asDictionary()) return *d;
    wrong(key, "a dictionary", *value);
    return std::nullopt;
  }
  std::optional<vl::Number> number(const char* key) {
    const vl::Value* value = present(key);
    if (!value) return std::nullopt;
    if (const auto* n = value->asNumber()) return *n;
    wrong(key, "a number", *value);
    return std::nullopt;
  }
  // A number's or a string's truth value.
  std::optional<bool> boolean(const char* key) {
    const vl::Value* value = present(key);
    if (!value) return std::nullopt;
    if (const auto* n = value->asNumber()) return n->boolValue();
    if (const auto* s = value->asString()) return stringBoolValue(*s);
    wrong(key, "a boolean", *value);
    return std::nullopt;
  }

  const std::vector<WrongType>& wrongTypes() const { return wrongTypes_; }

 private:
  const vl::Value* present(const char* key) const {
    const vl::Value* value = dictionary_.find(key);
    return value && !value->isNone() ? value : nullptr;
  }
  void wrong(const char* key, const char* expected, const vl::Value& actual) {
    wrongTypes_.push_back({key, expected, actual.className()});
  }

  const vl::Dictionary& dictionary_;
  std::vector<WrongType> wrongTypes_;
};

[[maybe_unused]] const bool kRegistered = vl::registerCodableClass({
    .name = VLTestCaseObject::kClassName,
    .superclasses = {vl::kClassRoot},
    .decode = [](vl::KeyedUnarchiver& coder) -> std::shared_ptr<vl::CodableRecord> {
      return VLTestCaseObject::withCoder(coder);
    },
    .fromDictionary = [](const vl::Dictionary& dictionary,
                         vl::Error* error) -> std::shared_ptr<vl::CodableRecord> {
      return VLTestCaseObject::withDictionary(dictionary, error);
    },
});

}  // namespace

std::optional<std::string> VLTestCaseObject::stringOption(std::string_view key) const {
  std::optional<vl::Dictionary> resolved = options();
  if (!resolved) return std::nullopt;
  const vl::Value& value = resolved->get(key);
  if (const std::string* text = value.asString(); text && !text->empty()) return *text;
  if (value.asNumber()) return value.description();
  return std::nullopt;
}

std::optional<double> VLTestCaseObject::numberOption(std::string_view key) const {
  std::optional<vl::Dictionary> resolved = options();
  if (!resolved) return std::nullopt;
  const vl::Value& value = resolved->get(key);
  if (const vl::Number* number = value.asNumber()) return number->doubleValue();
  if (const std::string* text = value.asString()) {
    char* end = nullptr;
    double parsed = std::strtod(text->c_str(), &end);
    if (end != text->c_str() && *end == '\0') return parsed;
  }
  return std::nullopt;
}

std::shared_ptr<VLTestCaseObject> VLTestCaseObject::make() {
  auto object = std::make_shared<VLTestCaseObject>();
  object->webTags_ = noTagsDictionary();
  return object;
}

std::shared_ptr<VLTestCaseObject> VLTestCaseObject::withBundleSettings(
    const vl::Dictionary& settings) {
  VLLog(VLLogLevelDebug, "Results", "Initing test case object with the following settings...%@",
        settings);
  auto object = make();
  FieldReader reader(settings);
  object->name_ = reader.string(kVLTestCaseObjectKeyName);
  object->selector_ = reader.string(kVLTestCaseObjectKeySelector);
  object->technology_ = reader.string(kVLTestCaseObjectKeyTechnology);
  object->options_ = reader.dictionary(kVLTestCaseObjectKeyOptions);
  object->environments_ = reader.array(kVLTestCaseObjectKeyEnvironments);
  object->type_ = reader.string(kVLTestCaseObjectKeyType);
  object->tags_ = reader.array(kVLTestCaseObjectKeyTags);
  object->availableInProcedor_ =
      reader.boolean(kVLTestCaseObjectKeyAvailableInProcedor).value_or(true);
  if (auto reportingTags = reader.dictionary(kVLTestCaseObjectKeyReportingTags)) {
    object->webTags_ = std::move(*reportingTags);
  }
  for (const auto& wrong : reader.wrongTypes()) {
    VLLog(VLLogLevelError, "Results", "Ignoring test case setting '%@': expected %@, found %@",
          wrong.key, wrong.expected, wrong.actual);
  }
  return object;
}

std::shared_ptr<VLTestCaseObject> VLTestCaseObject::withDictionary(const vl::Dictionary& dictionary,
                                                                   vl::Error* error) {
  auto object = make();
  FieldReader reader(dictionary);
  object->availableInProcedor_ =
      reader.boolean(kVLTestCaseObjectKeyAvailableInProcedor).value_or(true);
  object->options_ = reader.dictionary(kVLTestCaseObjectKeyOptions);
  object->instanceId_ = reader.string(kVLTestCaseObjectKeyInstanceId);
  object->name_ = reader.string(kVLTestCaseObjectKeyName);
  object->selector_ = reader.string(kVLTestCaseObjectKeySelector);
  object->technology_ = reader.string(kVLTestCaseObjectKeyTechnology);
  object->type_ = reader.string(kVLTestCaseObjectKeyType);
  object->environments_ = reader.array(kVLTestCaseObjectKeyEnvironments);
  object->tags_ = reader.array(kVLTestCaseObjectKeyTags);
  if (auto reportingTags = reader.dictionary(kVLTestCaseObjectKeyReportingTags)) {
    object->webTags_ = std::move(*reportingTags);
  }
  if (auto timeout = reader.number(kVLTestCaseObjectKeyTimeout)) {
    object->timeout_ = timeout->doubleValue();
  }
  object->destinationClass_ = reader.string(kVLTestCaseObjectKeyDestinationClass);
  object->destinationIdentifier_ = reader.string(kVLTestCaseObjectKeyDestinationIdentifier);
  if (!reader.wrongTypes().empty()) {
    const auto& wrong = reader.wrongTypes().front();
    vl::setError(
        error, vl::Error::withDescription(kVLTestCaseObjectErrorDomain, 1,
                                          vl::format("VLTestCaseObject: \"%@\" must be %@, not %@",
                                                     wrong.key, wrong.expected, wrong.actual)));
    return nullptr;
  }
  return object;
}

std::shared_ptr<VLTestCaseObject> VLTestCaseObject::withCoder(vl::KeyedUnarchiver& coder) {
  auto object = make();
  object->instanceId_ = coder.decodeString(kVLTestCaseObjectKeyInstanceId);
  object->name_ = coder.decodeString(kVLTestCaseObjectKeyName);
  object->selector_ = coder.decodeString(kVLTestCaseObjectKeySelector);
  object->technology_ = coder.decodeString(kVLTestCaseObjectKeyTechnology);
  object->type_ = coder.decodeString(kVLTestCaseObjectKeyType);
  object->destinationClass_ = coder.decodeString(kVLTestCaseObjectKeyDestinationClass);
  object->destinationIdentifier_ = coder.decodeString(kVLTestCaseObjectKeyDestinationIdentifier);
  vl::Value options =
      coder.decodeObject(kVLTestCaseObjectKeyOptions, VLValidExternalClassesForCoding());
  if (const vl::Dictionary* dictionary = options.asDictionary()) {
    object->options_ = *dictionary;
  } else if (!options.isNone()) {
    coder.failWithError(vl::Error::withDescription(
        vl::kKeyedArchiveErrorDomain, vl::kKeyedArchiveReadCorruptError,
        vl::format("VLTestCaseObject: \"Options\" must be a dictionary, not %@",
                   options.className())));
  }
  object->environments_ = coder.decodeArray(kVLTestCaseObjectKeyEnvironments);
  object->tags_ = coder.decodeArray(kVLTestCaseObjectKeyTags);
  object->availableInProcedor_ = coder.decodeBool(kVLTestCaseObjectKeyAvailableInProcedor, true);
  if (auto reportingTags = coder.decodeDictionary(kVLTestCaseObjectKeyReportingTags)) {
    object->webTags_ = std::move(*reportingTags);
  }
  object->timeout_ = coder.decodeDouble(kVLTestCaseObjectKeyTimeout, 0);
  if (coder.failed()) return nullptr;
  return object;
}

std::optional<vl::Dictionary> VLTestCaseObject::options() const {
  if (!options_) return std::nullopt;
  vl::Dictionary resolved = *options_;
  for (size_t i = 0; i < options_->size(); ++i) {
    auto [key, value] = options_->entry(i);
    const std::string* reference = value.asString();
    if (!reference || !reference->starts_with('$')) continue;
    const std::optional<vl::Dictionary>& overrides = optionsOverrides();
    if (!overrides) {
      VLLog(VLLogLevelError, kLogCategory,
            "Got test case option override request '%@', but no overrides exist", *reference);
      continue;
    }
    VLLog(VLLogLevelNotice, kLogCategory,
          "Looking up override for '%@' in Options Overrides dictionary", *reference);
    if (const vl::Value* replacement = overrides->find(*reference)) {
      resolved.set(key, *replacement);
    } else {
      resolved.erase(key);
    }
  }
  return resolved;
}

vl::Dictionary VLTestCaseObject::getDictionaryRepresentation() const {
  vl::Dictionary dictionary;
  auto setIfPresent = [&dictionary](const char* key, vl::Value value) {
    if (!value.isNone()) dictionary.set(key, std::move(value));
  };
  dictionary.set(kVLTestCaseObjectKeyAvailableInProcedor, vl::Value(availableInProcedor_));
  setIfPresent(kVLTestCaseObjectKeyOptions, valueOf(options_));
  setIfPresent(kVLTestCaseObjectKeyInstanceId, valueOf(instanceId_));
  setIfPresent(kVLTestCaseObjectKeyName, valueOf(name_));
  setIfPresent(kVLTestCaseObjectKeySelector, valueOf(selector_));
  setIfPresent(kVLTestCaseObjectKeyTechnology, valueOf(technology_));
  setIfPresent(kVLTestCaseObjectKeyType, valueOf(type_));
  setIfPresent(kVLTestCaseObjectKeyEnvironments, valueOf(environments_));
  setIfPresent(kVLTestCaseObjectKeyTags, valueOf(tags_));
  setIfPresent(kVLTestCaseObjectKeyReportingTags, valueOf(webTags_));
  dictionary.set(kVLTestCaseObjectKeyTimeout, vl::Value(timeout_));
  setIfPresent(kVLTestCaseObjectKeyDestinationClass, valueOf(destinationClass_));
  setIfPresent(kVLTestCaseObjectKeyDestinationIdentifier, valueOf(destinationIdentifier_));
  return dictionary;
}

vl::Dictionary VLTestCaseObject::getJSONSafeDictionaryRepresentation() const {
  vl::Dictionary dictionary = getDictionaryRepresentation();
  if (auto resolved = options()) {
    dictionary.set(kVLTestCaseObjectKeyOptions, JSONSafeDictionary(*resolved));
  }
  if (tags_) dictionary.set(kVLTestCaseObjectKeyTags, JSONSafeArray(*tags_));
  if (webTags_) dictionary.set(kVLTestCaseObjectKeyReportingTags, JSONSafeDictionary(*webTags_));
  return dictionary;
}

bool VLTestCaseObject::verifyOptionExists(std::string_view key) const {
  std::optional<vl::Dictionary> resolved = options();
  if (!resolved) return false;
  const vl::Value* value = resolved->find(key);
  return value && !(*value == vl::Value(""));
}

bool VLTestCaseObject::isEqual(const vl::Record& other) const {
  const auto* that = dynamic_cast<const VLTestCaseObject*>(&other);
  if (!that) return false;
  if (!instanceId_ || !that->instanceId_ || *instanceId_ != *that->instanceId_) return false;
  if (!name_ || !that->name_ || *name_ != *that->name_) return false;
  // Optional fields count only when both sides have them.
  auto differ = [](const auto& a, const auto& b) { return a && b && !(*a == *b); };
  if (differ(selector_, that->selector_)) return false;
  if (differ(technology_, that->technology_)) return false;
  if (options_ && that->options_ && !(*options() == *that->options())) return false;
  if (differ(environments_, that->environments_)) return false;
  if (differ(tags_, that->tags_)) return false;
  if (differ(webTags_, that->webTags_)) return false;
  return true;
}

std::string VLTestCaseObject::description() const {
  return vl::format("<%@ : %p> %@ (selector: %@) has options %@ and tags %@ and environments %@",
                    className(), static_cast<const void*>(this), valueOf(name_), valueOf(selector_),
                    valueOf(options()), valueOf(tags_), valueOf(environments_));
}

void VLTestCaseObject::encodeWithCoder(vl::KeyedArchiver& coder) const {
  coder.encodeObject(vl::Value(availableInProcedor_), kVLTestCaseObjectKeyAvailableInProcedor);
  coder.encodeObject(valueOf(options_), kVLTestCaseObjectKeyOptions);
  coder.encodeObject(valueOf(instanceId_), kVLTestCaseObjectKeyInstanceId);
  coder.encodeObject(valueOf(name_), kVLTestCaseObjectKeyName);
  coder.encodeObject(valueOf(selector_), kVLTestCaseObjectKeySelector);
  coder.encodeObject(valueOf(technology_), kVLTestCaseObjectKeyTechnology);
  coder.encodeObject(valueOf(type_), kVLTestCaseObjectKeyType);
  coder.encodeObject(valueOf(environments_), kVLTestCaseObjectKeyEnvironments);
  coder.encodeObject(valueOf(tags_), kVLTestCaseObjectKeyTags);
  coder.encodeObject(valueOf(webTags_), kVLTestCaseObjectKeyReportingTags);
  coder.encodeObject(vl::Value(timeout_), kVLTestCaseObjectKeyTimeout);
  coder.encodeObject(valueOf(destinationClass_), kVLTestCaseObjectKeyDestinationClass);
  coder.encodeObject(valueOf(destinationIdentifier_), kVLTestCaseObjectKeyDestinationIdentifier);
}
