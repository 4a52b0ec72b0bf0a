// The two files of a run besides its timeline: the results file, a property list written on every
// save, and the resume data, a secure keyed archive that lets a restarted service carry on the run.

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/conversion/technology.h"
#include "vorlund/deviceinfo/radio_state.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/finished_run.h"
#include "vorlund/results/results.h"
#include "vorlund/results/test_case_statistic.h"
#include "vorlund/results/timeline_database.h"

namespace {

constexpr const char* kResultsCategory = "Results";
constexpr const char* kFrameworkCategory = "Framework";
constexpr const char* kResumeDataPath = "~/Library/Caches/vorlund_results_resume_data.plist";
constexpr const char* kTotalKey = "Total";

// Results file keys.
constexpr const char* kKeyTestSettings = "Test Settings";
constexpr const char* kKeyCity = "City";
constexpr const char* kKeyHardwareInfo = "Hardware Info";
constexpr const char* kKeySoftwareInfo = "Software Info";
constexpr const char* kKeyLoggingInfo = "Logging Info";
constexpr const char* kKeyStressType = "StressType";
constexpr const char* kKeyWirelessTechnology = "WirelessTechnology";
constexpr const char* kKeyStressSubtype = "StressSubtype";
constexpr const char* kKeyConfig = "Config";
constexpr const char* kKeyPlistVersion = "PlistVersion";
constexpr const char* kKeyLastUpdated = "LastUpdated";
constexpr const char* kKeyMergedResults = "MergedResults";
constexpr const char* kKeyRunTime = "RunTime";
constexpr const char* kKeyStartTime = "StartTime";
constexpr const char* kKeyCampedRAT = "CampedRAT";
constexpr const char* kKeyCampedRAT2 = "CampedRAT2";
constexpr const char* kKeyMTBF = "MTBF";
constexpr const char* kKeyWirelessCrashes = "WirelessCrashes";
constexpr const char* kKeyIssues = "Issues";
constexpr const char* kKeyTestCases = "TestCases";

// Resume data keys (the summaries share the results file's names).
constexpr const char* kKeyHistory = "History";
constexpr const char* kKeyFailures = "Failures";
constexpr const char* kKeyIterations = "Iterations";
constexpr const char* kKeyPrimarySnapdumps = "Primary Snapdumps";
constexpr const char* kKeyStressSnapdumps = "Stress Snapdumps";
constexpr const char* kKeyStatistics = "Statistics";
constexpr const char* kKeyResetStartTime = "ResetStartTime";
constexpr const char* kKeyFileNameSuffix = "FileNameSuffix";

// The technology a stress type names. Stress types are spelt like the areas of the primary-process
// table ("wifi", "cellular", "nfc"), so the names are compared without case; "None" otherwise.
std::string wirelessTechnologyForStressType(const std::string& stressType) {
  if (VLConvertTechnologyStringToEnum(stressType) != VLTechnologyNone) return stressType;
  auto sameIgnoringCase = [](std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
      if (std::tolower(static_cast<unsigned char>(a[i])) !=
          std::tolower(static_cast<unsigned char>(b[i])))
        return false;
    }
    return true;
  };
  for (int64_t bit = VLTechnologyCellular; bit <= VLTechnologyUWB; bit <<= 1) {
    std::string name = VLConvertTechnologyEnumToString(bit);
    if (sameIgnoringCase(name, stressType)) return name;
  }
  return VLConvertTechnologyEnumToString(VLTechnologyNone);
}

// The wireless-crash count of one area: the entry itself (format 3.0) or its "Total".
double crashCount(const vl::Value& entry) {
  if (const vl::Dictionary* counts = entry.asDictionary())
    return counts->get(kTotalKey).doubleOr(0);
  return entry.doubleOr(0);
}

// Everything of the results file before "MTBF": the run's summary, which the Config table mirrors.
vl::Dictionary summaryOf(const VLResults& results, vl::Date saveDate) {
  vl::Dictionary summary;
  vl::Dictionary settings = results.testSettings();
  summary.set(kKeyTestSettings, settings);
  if (const vl::Value* city = settings.find(kKeyCity)) summary.set(kKeyCity, *city);
  summary.set(kKeyHardwareInfo, results.hardwareInfo());
  summary.set(kKeySoftwareInfo, results.softwareInfo());
  summary.set(kKeyLoggingInfo, results.loggingInfo());
  std::string stressType = results.testType();
  summary.set(kKeyStressType, stressType);
  summary.set(kKeyWirelessTechnology, wirelessTechnologyForStressType(stressType));
  summary.set(kKeyStressSubtype, results.testSubtype());
  summary.set(kKeyConfig, results.config());
  summary.set(kKeyPlistVersion, results.version());
  summary.set(kKeyLastUpdated, saveDate);
  summary.set(kKeyMergedResults, results.mergedResults());
  summary.set(kKeyRunTime, results.runtime());
  summary.set(kKeyStartTime, results.startTime());
  summary.set(kKeyCampedRAT, vl::campedRadioTechnology(1));
  summary.set(kKeyCampedRAT2, vl::campedRadioTechnology(2));
  return summary;
}

// Appends "MTBF", "WirelessCrashes", "Issues" and "TestCases" to the summary.
void appendRunData(const VLResults& results, vl::Dictionary& file) {
  const double runtime = results.runtime();
  vl::Dictionary crashes = results.wirelessCrashes();
  vl::Dictionary mtbf;
  for (size_t i = 0; i < crashes.size(); ++i) {
    auto [area, entry] = crashes.entry(i);
    double count = crashCount(entry);
    mtbf.set(area, count == 0 ? runtime : runtime / count);
  }
  file.set(kKeyMTBF, mtbf);
  file.set(kKeyWirelessCrashes, crashes);

  vl::Array issues;
  for (const auto& issue : results.issueList())
    issues.push_back(issue->getDictionaryRepresentation());
  file.set(kKeyIssues, issues);

  vl::Dictionary statistics = results.testCaseStatistics();
  vl::Dictionary testCases;
  for (size_t i = 0; i < statistics.size(); ++i) {
    auto [key, value] = statistics.entry(i);
    if (auto statistic = value.record<VLTestCaseStatistic>())
      testCases.set(key, statistic->getDictionaryRepresentation());
  }
  file.set(kKeyTestCases, testCases);
}

vl::Dictionary resumeDictionaryOf(const VLResults& results) {
  vl::Dictionary resume;
  resume.set(kKeyHistory, results.getHistory());
  resume.set(kKeyFailures, results.failureCounts());
  vl::Array issues;
  for (const auto& issue : results.issueList()) issues.push_back(vl::Value(issue));
  resume.set(kKeyIssues, issues);
  resume.set(kKeyIterations, results.iterations());
  resume.set(kKeyPrimarySnapdumps, results.primarySnapdumps());
  resume.set(kKeyStressSnapdumps, results.stressSnapdumps());
  resume.set(kKeyStatistics, results.testCaseStatistics());
  resume.set(kKeyStartTime, results.startTime());
  if (auto reset = results.resetStartDate()) resume.set(kKeyResetStartTime, *reset);
  resume.set(kKeyWirelessCrashes, results.wirelessCrashes());
  resume.set(kKeyHardwareInfo, results.hardwareInfo());
  resume.set(kKeySoftwareInfo, results.softwareInfo());
  resume.set(kKeyLoggingInfo, results.loggingInfo());
  resume.set(kKeyTestSettings, results.testSettings());
  std::string stressType = results.testType();
  resume.set(kKeyStressType, stressType);
  resume.set(kKeyWirelessTechnology, wirelessTechnologyForStressType(stressType));
  resume.set(kKeyStressSubtype, results.testSubtype());
  resume.set(kKeyConfig, results.config());
  // Carried so that a resumed run keeps how many results were merged into it, and the names of
  // its files when it was not the first run of its start second.
  resume.set(kKeyMergedResults, results.mergedResults());
  if (std::string suffix = results.fileNameSuffix(); !suffix.empty())
    resume.set(kKeyFileNameSuffix, suffix);
  return resume;
}

// Typed access to the resume dictionary. An absent key gives nullptr; a key of another type
// throws, so that foreign or damaged resume data falls back to a fresh run as a whole.
[[noreturn]] void wrongType(const char* key, const vl::Value& value, const char* expected) {
  throw std::runtime_error(vl::format("Resume data key \"%s\" holds %@ where %s belongs", key,
                                      value.className(), expected));
}

template <typename T>
const T* resumeEntry(const vl::Dictionary& resume, const char* key, const char* expected,
                     const T* (vl::Value::*view)() const) {
  const vl::Value* value = resume.find(key);
  if (!value) return nullptr;
  const T* typed = (value->*view)();
  if (!typed) wrongType(key, *value, expected);
  return typed;
}

const vl::Dictionary* resumeDictionary(const vl::Dictionary& r, const char* key) {
  return resumeEntry<vl::Dictionary>(r, key, "a dictionary", &vl::Value::asDictionary);
}
const vl::Array* resumeArray(const vl::Dictionary& r, const char* key) {
  return resumeEntry<vl::Array>(r, key, "an array", &vl::Value::asArray);
}
const std::string* resumeString(const vl::Dictionary& r, const char* key) {
  return resumeEntry<std::string>(r, key, "a string", &vl::Value::asString);
}
const vl::Number* resumeNumber(const vl::Dictionary& r, const char* key) {
  return resumeEntry<vl::Number>(r, key, "a number", &vl::Value::asNumber);
}
const vl::Date* resumeDate(const vl::Dictionary& r, const char* key) {
  return resumeEntry<vl::Date>(r, key, "a date", &vl::Value::asDate);
}

uint32_t snapdumpCount(const vl::Number& number) {
  int64_t count = number.int64Value();
  if (count < 0) return 0;
  return count > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(count);
}

// Restores every key of the resume dictionary into results. Throws std::runtime_error for a key
// of the wrong type; results is then discarded by the caller.
void restoreFromResumeDictionary(VLResults& results, const vl::Dictionary& resume) {
  if (const vl::Array* history = resumeArray(resume, kKeyHistory)) results.setHistory(*history);
  if (const vl::Dictionary* failures = resumeDictionary(resume, kKeyFailures))
    results.setFailureCounts(*failures);
  if (const vl::Array* issues = resumeArray(resume, kKeyIssues)) {
    std::vector<std::shared_ptr<VLIssue>> restored;
    for (const vl::Value& entry : *issues) {
      auto issue = entry.record<VLIssue>();
      if (!issue) wrongType(kKeyIssues, entry, "a VLIssue");
      restored.push_back(std::move(issue));
    }
    results.setIssueList(std::move(restored));
  }
  if (const vl::Number* iterations = resumeNumber(resume, kKeyIterations))
    results.setIterations(iterations->int64Value());
  if (const vl::Number* count = resumeNumber(resume, kKeyPrimarySnapdumps))
    results.setPrimarySnapdumps(snapdumpCount(*count));
  if (const vl::Number* count = resumeNumber(resume, kKeyStressSnapdumps))
    results.setStressSnapdumps(snapdumpCount(*count));
  if (const vl::Dictionary* statistics = resumeDictionary(resume, kKeyStatistics)) {
    for (const vl::Value& entry : statistics->values()) {
      if (!entry.record<VLTestCaseStatistic>())
        wrongType(kKeyStatistics, entry, "a VLTestCaseStatistic");
    }
    results.setTestCaseStatistics(*statistics);
  }
  if (const vl::Date* start = resumeDate(resume, kKeyStartTime)) results.setStartTime(*start);
  if (const vl::Date* reset = resumeDate(resume, kKeyResetStartTime))
    results.setResetStartDate(*reset);
  if (const vl::Dictionary* crashes = resumeDictionary(resume, kKeyWirelessCrashes))
    results.setWirelessCrashes(*crashes);
  if (const vl::Dictionary* info = resumeDictionary(resume, kKeyHardwareInfo))
    results.setHardwareInfo(*info);
  if (const vl::Dictionary* info = resumeDictionary(resume, kKeySoftwareInfo))
    results.setSoftwareInfo(*info);
  if (const vl::Dictionary* info = resumeDictionary(resume, kKeyLoggingInfo))
    results.setLoggingInfo(*info);
  if (const vl::Dictionary* settings = resumeDictionary(resume, kKeyTestSettings))
    results.setTestSettings(*settings);
  if (const std::string* type = resumeString(resume, kKeyStressType)) results.setTestType(*type);
  // "WirelessTechnology" follows from the stress type; it is checked but not kept.
  resumeString(resume, kKeyWirelessTechnology);
  if (const std::string* subtype = resumeString(resume, kKeyStressSubtype))
    results.setTestSubtype(*subtype);
  if (const std::string* config = resumeString(resume, kKeyConfig)) results.setConfig(*config);
  if (const vl::Number* merged = resumeNumber(resume, kKeyMergedResults))
    results.setMergedResults(merged->int64Value());
  if (const std::string* suffix = resumeString(resume, kKeyFileNameSuffix))
    results.setFileNameSuffix(*suffix);
}

void removeResumeFile(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::remove(path, error) && error) {
    VLLog(VLLogLevelError, kResultsCategory, "Failed to remove the resume data %@: %@", path,
          error.message());
  }
}

std::shared_ptr<VLResults> freshRunAfterFailedResume() {
  VLLog(VLLogLevelNotice, kFrameworkCategory,
        "Returning default results object so we're not completely hosed");
  return VLResults::make();
}

}  // namespace

std::string VLResults::resumeDataPath() { return vl::paths::expandTilde(kResumeDataPath); }

bool VLResults::hasResumeData() {
  std::error_code error;
  return std::filesystem::exists(resumeDataPath(), error);
}

vl::Dictionary VLResults::resultsFileDictionary() const {
  vl::Dictionary file = summaryOf(*this, vl::Date::now());
  appendRunData(*this, file);
  return file;
}

bool VLResults::saveToFile(const std::string& path) {
  vl::Date now = vl::Date::now();
  setLastUpdated(now);
  vl::Dictionary file = summaryOf(*this, now);
  // An aggregate rebuilt from files (merged devices) has no timeline of its own to mirror into.
  if (!timelinePath().empty()) {
    try {
      timeline()->saveConfigToDatabase(file);
    } catch (const std::exception& exception) {
      VLLog(VLLogLevelError, kResultsCategory, "Threw exception writing to DB. %@",
            exception.what());
    }
  }
  appendRunData(*this, file);

  std::string folder = vl::paths::deletingLastComponent(path);
  if (!folder.empty()) vl::paths::createDirectories(folder);
  vl::Error error;
  if (!vl::plist::writeFile(vl::Value(file), path, vl::plist::Format::Xml, &error)) {
    VLLog(VLLogLevelError, kResultsCategory, "Failed to write out plist @ %@\n Data:\n %@", path,
          file);
    return false;
  }
  return true;
}

bool VLResults::saveToDisk() { return saveToFile(getResultsFilePath()); }

bool VLResults::finish() {
  if (!saveToDisk()) return false;
  vl::announceFinishedRun(*this);
  return true;
}

bool VLResults::suspend() {
  saveToDisk();
  vl::Error error;
  std::optional<std::string> bytes;
  try {
    bytes = vl::archive(vl::Value(resumeDictionaryOf(*this)), &error);
  } catch (const std::exception& exception) {
    error = vl::Error::withDescription(vl::kKeyedArchiveErrorDomain, vl::kKeyedArchiveWriteError,
                                       exception.what());
  }
  if (!bytes) {
    VLLog(VLLogLevelError, kResultsCategory,
          "Failed to Archive results data for file write in NSKeyedArchiver: %@", error);
    return false;
  }
  std::string path = resumeDataPath();
  std::string folder = vl::paths::deletingLastComponent(path);
  if (!folder.empty()) vl::paths::createDirectories(folder);
  if (!vl::paths::writeFileAtomically(path, *bytes)) {
    VLLog(VLLogLevelError, kResultsCategory, "Failed to write resume data to %@: %@", path,
          std::strerror(errno));
    return false;
  }
  return true;
}

std::shared_ptr<VLResults> VLResults::withResumeData() {
  const std::string path = resumeDataPath();
  errno = 0;
  std::optional<std::string> bytes = vl::paths::readFile(path);
  if (!bytes) {
    VLLog(VLLogLevelError, kFrameworkCategory,
          "Failed to read data from resume data file: %@ error: %@", path,
          std::strerror(errno != 0 ? errno : ENOENT));
    return make();
  }

  std::shared_ptr<VLResults> results;
  try {
    vl::Error error;
    std::optional<vl::Value> root = vl::unarchive(*bytes, VLResults::resumeDataClasses(), &error);
    if (!root) {
      VLLog(VLLogLevelError, kFrameworkCategory, "NSKeyedUnarchiver returned with error: %@",
            error);
      return freshRunAfterFailedResume();
    }
    const vl::Dictionary* resume = root->asDictionary();
    if (!resume) {
      throw std::runtime_error(
          vl::format("Resume data holds %@ where a dictionary belongs", root->className()));
    }
    // Not make(): that would claim file names for a new run's start second.
    results = makeUnnamed();
    restoreFromResumeDictionary(*results, *resume);
  } catch (const std::exception& exception) {
    VLLog(VLLogLevelError, kFrameworkCategory, "Hit exception trying to unarchive resume plist: %@",
          exception.what());
    return freshRunAfterFailedResume();
  }

  results->setResumed(true);
  // The restored start time and stress type name the run's files, so a resumed run keeps them.
  results->setPlistPath(results->getResultsFilePath());
  results->setTimelinePath(results->getTimelineFilePath());
  // The camped technologies of both subscriptions ("SIM1Value", "SIM2Value") are read afresh at
  // every save (campedRadioTechnology); there is nothing cached to refresh here.
  results->updateRuntime();
  removeResumeFile(path);
  // The restored state is on disk again at once; the resume data follows with the service's
  // periodic save (startPeriodicSave), whose first save is immediate.
  results->saveToDisk();
  return results;
}

std::shared_ptr<VLResults> VLResults::withFile(const std::string& path) {
  VLLog(VLLogLevelInfo, kResultsCategory, "Trying to restore existing save : %@", path);
  vl::Error error;
  std::optional<vl::Dictionary> plist = vl::plist::readDictionary(path, &error);
  if (!plist) {
    VLLog(VLLogLevelError, kResultsCategory, "Unable to restore results from %@: %@", path, error);
    return nullptr;
  }
  auto results = std::make_shared<VLResults>();
  results->setPlistPath(path);
  results->restoreStateFromSavedPlist(*plist);
  return results;
}

void VLResults::restoreStateFromSavedPlist(const vl::Dictionary& plist) {
  if (const vl::Dictionary* settings = plist.get(kKeyTestSettings).asDictionary())
    setTestSettings(*settings);
  if (const vl::Dictionary* info = plist.get(kKeyHardwareInfo).asDictionary())
    setHardwareInfo(*info);
  if (const vl::Dictionary* info = plist.get(kKeySoftwareInfo).asDictionary())
    setSoftwareInfo(*info);
  if (const vl::Dictionary* info = plist.get(kKeyLoggingInfo).asDictionary()) setLoggingInfo(*info);
  if (const std::string* type = plist.get(kKeyStressType).asString()) setTestType(*type);
  if (const std::string* subtype = plist.get(kKeyStressSubtype).asString())
    setTestSubtype(*subtype);
  if (const std::string* config = plist.get(kKeyConfig).asString()) setConfig(*config);
  if (const vl::Number* version = plist.get(kKeyPlistVersion).asNumber())
    setVersion(version->doubleValue());
  if (const vl::Date* updated = plist.get(kKeyLastUpdated).asDate()) setLastUpdated(*updated);
  if (const vl::Number* merged = plist.get(kKeyMergedResults).asNumber())
    setMergedResults(merged->int64Value());
  if (const vl::Number* runtime = plist.get(kKeyRunTime).asNumber())
    setRuntime(runtime->doubleValue());
  if (const vl::Date* start = plist.get(kKeyStartTime).asDate()) setStartTime(*start);

  if (const vl::Dictionary* crashes = plist.get(kKeyWirelessCrashes).asDictionary())
    setWirelessCrashes(*crashes);
  // The restored state is printed whole, so only where debug lines are wanted: a fleet's refresh
  // restores every device's file, and printing them cost more than reading them.
  const bool printRestored = VLLogLevelWanted(VLLogLevelDebug);
  if (printRestored)
    VLLog(VLLogLevelDebug, kResultsCategory, "Restored Crashes With : %@", wirelessCrashes());

  if (const vl::Array* issues = plist.get(kKeyIssues).asArray()) {
    std::vector<std::shared_ptr<VLIssue>> restored;
    for (const vl::Value& entry : *issues) {
      if (const vl::Dictionary* form = entry.asDictionary())
        restored.push_back(VLIssue::withDictionary(*form));
    }
    setIssueList(std::move(restored));
  }
  if (printRestored) {
    vl::Array issueRecords;
    for (const auto& issue : issueList()) issueRecords.push_back(vl::Value(issue));
    VLLog(VLLogLevelDebug, kResultsCategory, "Restored Issues With : %@", issueRecords);
  }

  if (const vl::Dictionary* testCases = plist.get(kKeyTestCases).asDictionary()) {
    vl::Dictionary statistics;
    for (size_t i = 0; i < testCases->size(); ++i) {
      auto [key, value] = testCases->entry(i);
      if (const vl::Dictionary* form = value.asDictionary())
        statistics.set(key, vl::Value(VLTestCaseStatistic::withDictionary(*form)));
    }
    setTestCaseStatistics(statistics);
  }
  if (printRestored) {
    VLLog(VLLogLevelDebug, kResultsCategory, "Restored testCaseStats With : %@",
          testCaseStatistics());
  }
}

const vl::ClassSet& VLResults::resumeDataClasses() {
  static const vl::ClassSet classes = [] {
    vl::ClassSet set = VLValidExternalClassesForCoding();
    set.insert(VLTestCaseStatistic::kClassName);
    return set;
  }();
  return classes;
}
