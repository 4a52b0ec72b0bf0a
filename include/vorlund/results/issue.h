// VLIssue: one event of a stress run that is not a test case result: a process crash found by the
// crash-log scanner or a failure of the framework itself. The results aggregate collects issues,
// writes them to the results file and the timeline, and counts the ones that hit key processes.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/foundation/value.h"

// Keys of the coding and dictionary forms, in their order.
inline constexpr const char* kVLIssueKeyReason = "Reason";
inline constexpr const char* kVLIssueKeyProcess = "Process";
inline constexpr const char* kVLIssueKeyType = "Type";
inline constexpr const char* kVLIssueKeyTime = "Time";
inline constexpr const char* kVLIssueKeyMTBFImpacting = "MTBFImpacting";
inline constexpr const char* kVLIssueKeyWirelessProcess = "WirelessProcess";
inline constexpr const char* kVLIssueKeyInstances = "Instances";
inline constexpr const char* kVLIssueKeyClass = "Class";

// The name of the exception isValid() raises.
inline constexpr const char* kVLIssueInvalidException = "VLIssueInvalid";

// Accessors are not guarded: an issue is filled by one thread before it is added to the results;
// the aggregate changes instances only under its issue lock.
class VLIssue : public vl::CodableRecord {
 public:
  static constexpr const char* kClassName = "VLIssue";

  // Reason, process, type and time none; both flags false; instances 1.
  static std::shared_ptr<VLIssue> make();
  // Reads the keys of the dictionary form ("Time" as a date string; a date value is taken too).
  // Absent keys, or keys of another type, leave the defaults of make(). Never fails.
  static std::shared_ptr<VLIssue> withDictionary(const vl::Dictionary& dictionary);
  // From a keyed archive. Returns nullptr (the decode failed with an error) when a key holds the
  // wrong class.
  static std::shared_ptr<VLIssue> withCoder(vl::KeyedUnarchiver& coder);

  bool primaryProcess() const { return primaryProcess_; }
  void setPrimaryProcess(bool value) { primaryProcess_ = value; }
  bool wirelessProcess() const { return wirelessProcess_; }
  void setWirelessProcess(bool value) { wirelessProcess_ = value; }
  const std::optional<std::string>& reason() const { return reason_; }
  void setReason(std::optional<std::string> reason) { reason_ = std::move(reason); }
  const std::optional<std::string>& process() const { return process_; }
  void setProcess(std::optional<std::string> process) { process_ = std::move(process); }
  const std::optional<std::string>& type() const { return type_; }
  void setType(std::optional<std::string> type) { type_ = std::move(type); }
  const std::optional<vl::Date>& time() const { return time_; }
  void setTime(std::optional<vl::Date> time) { time_ = time; }
  uint64_t instances() const { return instances_; }
  void setInstances(uint64_t instances) { instances_ = instances; }

  // True when reason, process, type and time are set and instances is not 0. Otherwise raises
  // VLException "VLIssueInvalid" naming the first missing field; never returns false.
  bool isValid() const;
  // Equal times, reasons and processes (a none on either side is unequal). Type, flags and
  // instances take no part.
  bool isEqualToIssue(const VLIssue& other) const;

  // "Reason", "Process", "Type", "Time" (date string), "MTBFImpacting", "WirelessProcess",
  // "Instances", "Class"; none fields are left out.
  vl::Dictionary getDictionaryRepresentation() const;
  // "VLIssue with dictionarion: {...}" (the spelling is part of the text).
  std::string description() const override;
  std::string className() const override { return kClassName; }
  vl::Dictionary dictionaryRepresentation() const override { return getDictionaryRepresentation(); }
  bool isEqual(const vl::Record& other) const override;
  void encodeWithCoder(vl::KeyedArchiver& coder) const override;

 private:
  bool primaryProcess_ = false;
  bool wirelessProcess_ = false;
  std::optional<std::string> reason_;
  std::optional<std::string> process_;
  std::optional<std::string> type_;
  std::optional<vl::Date> time_;
  uint64_t instances_ = 1;
};
