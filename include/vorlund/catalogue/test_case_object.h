// VLTestCaseObject: the definition of one test case (a named operation of a test bundle). It is
// read from a bundle's property list, handed to the code that runs it, archived into results and
// sent between processes as a dictionary, as JSON or as a keyed archive.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

// Keys of the dictionary and archive forms, one per field, in declaration order.
inline constexpr const char* kVLTestCaseObjectKeyAvailableInProcedor = "AvailableInProcedor";
inline constexpr const char* kVLTestCaseObjectKeyOptions = "Options";
inline constexpr const char* kVLTestCaseObjectKeyInstanceId = "instanceId";
inline constexpr const char* kVLTestCaseObjectKeyName = "Name";
inline constexpr const char* kVLTestCaseObjectKeySelector = "Selector";
inline constexpr const char* kVLTestCaseObjectKeyTechnology = "Technology";
inline constexpr const char* kVLTestCaseObjectKeyType = "Type";
inline constexpr const char* kVLTestCaseObjectKeyEnvironments = "Environments";
inline constexpr const char* kVLTestCaseObjectKeyTags = "Tags";
inline constexpr const char* kVLTestCaseObjectKeyReportingTags = "ReportingTags";
inline constexpr const char* kVLTestCaseObjectKeyTimeout = "Timeout";
inline constexpr const char* kVLTestCaseObjectKeyDestinationClass = "DestinationClass";
inline constexpr const char* kVLTestCaseObjectKeyDestinationIdentifier = "DestinationIdentifier";

// The error domain of withDictionary() failures.
inline constexpr const char* kVLTestCaseObjectErrorDomain = "VLTestCaseObjectErrorDomain";

// A field that may be none is a std::optional (strings, arrays, dictionaries); none fields are left
// out of the dictionary form. The object has no lock: one thread builds it, others then read it.
class VLTestCaseObject : public vl::CodableRecord {
 public:
  static constexpr const char* kClassName = "VLTestCaseObject";

  // An empty definition: available in Procedor, reporting tags {"no_tags": "no_tags"}, time-out 0,
  // every other field none.
  static std::shared_ptr<VLTestCaseObject> make();
  // From one entry of a bundle's "Supported Test Cases". Logs the settings at level 2 (category
  // "Results"), copies "Name", "Selector", "Technology", "Type", "Options", "Environments" and
  // "Tags" (absent keys give none; a value of the wrong type is logged at level 16 and left out),
  // takes "AvailableInProcedor" when present (else true) and "ReportingTags" when present (else the
  // no_tags dictionary). Instance, time-out and destination are left for the caller to fill in.
  static std::shared_ptr<VLTestCaseObject> withBundleSettings(const vl::Dictionary& settings);
  // From the dictionary form (getDictionaryRepresentation), reading all thirteen keys back,
  // including "instanceId", "Timeout" and the destination keys. Missing keys take the defaults of
  // make(). Returns nullptr, with an error naming the key, when a key holds the wrong type.
  static std::shared_ptr<VLTestCaseObject> withDictionary(const vl::Dictionary& dictionary,
                                                          vl::Error* error = nullptr);
  // From a keyed archive. "Options" may hold only the classes of VLValidExternalClassesForCoding();
  // a missing "AvailableInProcedor" means true, a missing "ReportingTags" the no_tags dictionary, a
  // missing "Timeout" 0. Returns nullptr (the decode failed with an error) on refused classes and
  // wrong types.
  static std::shared_ptr<VLTestCaseObject> withCoder(vl::KeyedUnarchiver& coder);

  bool availableInProcedor() const { return availableInProcedor_; }
  void setAvailableInProcedor(bool value) { availableInProcedor_ = value; }

  // The options with overrides resolved, on every read: each option whose value is a string
  // beginning with "$" is replaced by the entry of that name (the "$" included) in the "Options
  // Overrides" dictionary of the preferences, or removed when the overrides lack it. The overrides
  // are read once per process, at the first such option; when the preferences have none, the value
  // stays and an error is logged on each read. The stored options never change.
  std::optional<vl::Dictionary> options() const;
  void setOptions(std::optional<vl::Dictionary> options) { options_ = std::move(options); }
  // One resolved option as test code reads it, whether the definition gave it as text or as a
  // number: stringOption gives a non-empty string (a number as its description), numberOption a
  // number (a string that is wholly a number is read as one). None when absent or of another kind.
  std::optional<std::string> stringOption(std::string_view key) const;
  std::optional<double> numberOption(std::string_view key) const;

  const std::optional<std::string>& instanceId() const { return instanceId_; }
  void setInstanceId(std::optional<std::string> v) { instanceId_ = std::move(v); }
  const std::optional<std::string>& name() const { return name_; }
  void setName(std::optional<std::string> v) { name_ = std::move(v); }
  const std::optional<std::string>& selector() const { return selector_; }
  void setSelector(std::optional<std::string> v) { selector_ = std::move(v); }
  // The technology's string form ("WiFi", "Cellular", ...).
  const std::optional<std::string>& technology() const { return technology_; }
  void setTechnology(std::optional<std::string> v) { technology_ = std::move(v); }
  const std::optional<std::string>& type() const { return type_; }
  void setType(std::optional<std::string> v) { type_ = std::move(v); }
  const std::optional<vl::Array>& environments() const { return environments_; }
  void setEnvironments(std::optional<vl::Array> v) { environments_ = std::move(v); }
  const std::optional<vl::Array>& tags() const { return tags_; }
  void setTags(std::optional<vl::Array> v) { tags_ = std::move(v); }
  // The reporting tags ("ReportingTags").
  const std::optional<vl::Dictionary>& webTags() const { return webTags_; }
  void setWebTags(std::optional<vl::Dictionary> v) { webTags_ = std::move(v); }
  // Seconds allowed for one execution.
  double timeout() const { return timeout_; }
  void setTimeout(double v) { timeout_ = v; }
  const std::optional<std::string>& destinationClass() const { return destinationClass_; }
  void setDestinationClass(std::optional<std::string> v) { destinationClass_ = std::move(v); }
  const std::optional<std::string>& destinationIdentifier() const { return destinationIdentifier_; }
  void setDestinationIdentifier(std::optional<std::string> v) {
    destinationIdentifier_ = std::move(v);
  }

  // The thirteen keys (none fields absent): "AvailableInProcedor" a boolean number, "Timeout" a
  // double number, "Options" the stored options (override references unresolved, so that the
  // record rebuilt from this form resolves them where it is read).
  vl::Dictionary getDictionaryRepresentation() const;
  // The same keys, but "Options" is JSONSafeDictionary of the resolved options, "Tags"
  // JSONSafeArray of the tags and "ReportingTags" JSONSafeDictionary of the reporting tags.
  vl::Dictionary getJSONSafeDictionaryRepresentation() const;

  // True when the resolved options hold key with a value other than the empty string (a value
  // that is not a string counts as present); false when the key is absent.
  bool verifyOptionExists(std::string_view key) const;

  // Another VLTestCaseObject (or subclass) whose instanceId and name equal this one's (either none:
  // unequal); then selector, technology, resolved options, environments, tags and webTags must be
  // equal where both sides have a value (none on either side skips the field). Type,
  // availableInProcedor, timeout and the destination take no part.
  bool isEqual(const vl::Record& other) const override;
  // "<VLTestCaseObject : 0x...> name (selector: sel) has options {...} and tags (...) and
  // environments (...)", with the resolved options.
  std::string description() const override;
  std::string className() const override { return kClassName; }
  // The dictionary form for display: getDictionaryRepresentation().
  vl::Dictionary dictionaryRepresentation() const override { return getDictionaryRepresentation(); }

  // Writes all thirteen keys; the boolean and the time-out as numbers, none fields as null.
  void encodeWithCoder(vl::KeyedArchiver& coder) const override;

 private:
  bool availableInProcedor_ = true;
  std::optional<vl::Dictionary> options_;
  std::optional<std::string> instanceId_;
  std::optional<std::string> name_;
  std::optional<std::string> selector_;
  std::optional<std::string> technology_;
  std::optional<std::string> type_;
  std::optional<vl::Array> environments_;
  std::optional<vl::Array> tags_;
  std::optional<vl::Dictionary> webTags_;
  double timeout_ = 0;
  std::optional<std::string> destinationClass_;
  std::optional<std::string> destinationIdentifier_;
};
