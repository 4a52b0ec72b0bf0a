#include "vorlund/results/results.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>

#include "results/logging_summary.h"
#include "results/results_impl.h"
#include "vorlund/catalogue/catalogue_hooks.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/catalogue/primary_processes.h"
#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/deviceinfo/device_identity.h"
#include "vorlund/deviceinfo/technologies_in_use.h"
#include "vorlund/devicetools/diagnostic_archive.h"
#include "vorlund/devicetools/memory_diagnostics.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/notification_center.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log.h"
#include "vorlund/logging/log_hooks.h"
#include "vorlund/results/issue_reporting.h"
#include "vorlund/results/test_case_statistic.h"
#include "vorlund/results/timeline_database.h"

namespace {

constexpr const char* kCategory = "Results";
constexpr const char* kOverallArea = "overall";
constexpr const char* kTotalKey = "Total";
constexpr const char* kNfcNonCrashReason = "nfcsvc - Non Crash";

// Names of housekeeping test cases whose definitions never enter the recent history.
const std::vector<std::string>& historyExcludedNames() {
  static const std::vector<std::string> names{"Stop Stress", "Idle", "Sleep", "Wait"};
  return names;
}

std::string withoutSingleQuotes(const std::string& text) {
  std::string cleaned;
  cleaned.reserve(text.size());
  for (char c : text) {
    if (c != '\'') cleaned.push_back(c);
  }
  return cleaned;
}

int64_t integerPreference(const vl::Dictionary& preferences, const char* key, int64_t fallback) {
  const vl::Value& value = preferences.get(key);
  if (const vl::Number* number = value.asNumber()) return number->int64Value();
  if (const std::string* text = value.asString()) {
    try {
      return std::stoll(*text);
    } catch (const std::exception&) {
      return fallback;
    }
  }
  return fallback;
}

// The installed statistic recorder of the logging module files its issues here.
[[maybe_unused]] const bool kStatisticRecorderInstalled = [] {
  vl::logging::setStatisticIssueRecorder(
      [](const std::string& reason) { VLAddStatisticToResults(reason); });
  // The catalogue files its "Failure" issues (an unlistable bundle directory) here.
  vl::catalogue::setFailureIssueRecorder(
      [](const std::string& reason) { VLAddFailureToResults(reason); });
  // Memory diagnostics name their folders after the current run's start.
  vl::devicetools::setRunStartTimeSource([] { return VLResults::currentResults()->startTime(); });
  return true;
}();

std::mutex& sharedMutex() {
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<VLResults>& sharedResults() {
  static std::shared_ptr<VLResults>* results = new std::shared_ptr<VLResults>();
  return *results;
}

}  // namespace

std::shared_ptr<VLResults> VLResults::currentResults() {
  std::lock_guard lock(sharedMutex());
  std::shared_ptr<VLResults>& shared = sharedResults();
  if (!shared) shared = hasResumeData() ? withResumeData() : make();
  return shared;
}

void VLResults::setCurrentResults(std::shared_ptr<VLResults> results) {
  std::lock_guard lock(sharedMutex());
  sharedResults() = std::move(results);
}

VLResults::VLResults() : impl_(std::make_unique<Impl>()) {}
VLResults::~VLResults() = default;

std::shared_ptr<VLResults> VLResults::make() {
  auto results = makeUnnamed();
  results->reserveFileNames();
  results->impl_->plistPath = results->getResultsFilePath();
  results->impl_->timelinePath = results->getTimelineFilePath();
  return results;
}

std::shared_ptr<VLResults> VLResults::makeUnnamed() {
  auto results = std::make_shared<VLResults>();
  results->impl_->testType = VLGetCurrentTestMode();
  results->impl_->testSubtype = VLGetCurrentTestSubtype();
  results->impl_->config = VLGetCurrentConfig();
  results->impl_->hardwareInfo = vl::hardwareSummary();
  results->impl_->softwareInfo = vl::softwareSummary();
  results->impl_->loggingInfo = vl::results::loggingSummary();
  results->impl_->testSettings = VLGetPreferences();
  return results;
}

void VLResults::addTestCaseResult(const std::shared_ptr<VLTestCaseResult>& result,
                                  bool updateRuntime) {
  addTestCaseResult(result, nullptr, updateRuntime, true);
}

void VLResults::addTestCaseResult(const std::shared_ptr<VLTestCaseResult>& result,
                                  const std::shared_ptr<VLTestCaseClass>& testCaseClass,
                                  bool updateRuntime, bool updateDB) {
  if (!result) {
    VLLog(VLLogLevelError, kCategory, "Unable to add %@", result);
    return;
  }
  if (!result->isValidResult()) {
    VLLog(VLLogLevelError, kCategory, "Unable to add %@", result);
    return;
  }
  if (result->isNoOp()) return;
  if (result->shouldAddToMissedTestCases()) return;

  const auto began = std::chrono::steady_clock::now();

  if (result->didFail() && !result->isHistogram()) {
    std::vector<std::string> technologies = vl::technologiesInUse();
    if (technologies.size() >= 2) {
      std::string joined;
      for (const std::string& technology : technologies) {
        if (!joined.empty()) joined += " | ";
        joined += technology;
      }
      result->failWithReason(result->bucket().value_or("") + vl::format(" - %@", joined));
    }
  }

  std::string name = VLTestCaseStatistic::hashForTestCase(*result);
  if (std::find(historyExcludedNames().begin(), historyExcludedNames().end(), name) ==
      historyExcludedNames().end()) {
    if (auto definition = result->getUnderlyingTestCaseObject()) {
      std::lock_guard lock(impl_->historyMutex);
      if (impl_->history.size() >= kVLResultsHistoryLength) impl_->history.erase(0);
      impl_->history.push_back(vl::Value(definition));
    }
  }

  int64_t iteration = 0;
  if (updateDB) {
    iteration = ++impl_->iterations;
    VLLog(VLLogLevelInfo, kCategory, "Adding test case result (%ld overall) %@",
          static_cast<long>(iteration), result);
  } else {
    VLLog(VLLogLevelInfo, kCategory, "Adding test case result but not to DB %@", result);
  }

  // Everything that may call out (the class lookup loads bundles, the preferences are a file, the
  // notification runs observers that may call back into this run) happens outside the lock.
  std::shared_ptr<VLTestCaseClass> callbackClass = testCaseClass;
  if (!callbackClass) callbackClass = VLGetClassForTestCase(result->getUnderlyingTestCaseObject());
  const vl::Dictionary preferences = callbackClass ? VLGetPreferences() : vl::Dictionary();
  const int64_t callbackMax = integerPreference(preferences, "FailureCallbackMax", 0);
  bool notify = false;
  std::vector<std::string> failedBuckets;
  auto noteCallbacks = [&](const VLTestCaseStatistic* merged, const VLTestCaseStatistic& added) {
    if (callbackMax == -1) {
      notify = true;
    } else if (result->didFail() && callbackMax >= 1) {
      failedBuckets.push_back(result->bucket().value_or(""));
    } else if (merged) {
      failedBuckets = merged->metricsOutsideTwoSigma(added);
    }
  };

  {
    auto statistic = VLTestCaseStatistic::withTestCaseResult(*result);
    std::lock_guard lock(impl_->statisticsMutex);
    auto existing = impl_->statistics.get(name).record<VLTestCaseStatistic>();
    if (!existing) {
      impl_->statistics.set(name, vl::Value(statistic));
      if (callbackClass) noteCallbacks(nullptr, *statistic);
    } else {
      int code = existing->mergeWithStatistic(*statistic);
      if (code == kVLTestCaseStatisticMergeSucceeded) {
        VLLog(VLLogLevelDebug, kCategory, "Merge succeeded");
        if (callbackClass) {
          VLLog(VLLogLevelDebug, kCategory, "FailureCallbackMax is set to '%@'",
                preferences.get("FailureCallbackMax"));
          noteCallbacks(existing.get(), *statistic);
        }
      } else {
        VLLog(VLLogLevelError, kCategory, "Merge failed with error %d", code);
        result->failWithReason(vl::format("Unable to merge result with error %d", code));
        auto retry = VLTestCaseStatistic::withTestCaseResult(*result);
        int retryCode = existing->mergeWithStatistic(*retry);
        if (retryCode != kVLTestCaseStatisticMergeSucceeded) {
          throw VLException(kVLTestCaseStatisticMergeException,
                            vl::format("Initial merge failed with error %d, retry failed with "
                                       "error %d",
                                       code, retryCode));
        }
      }
    }
  }
  for (const std::string& bucket : failedBuckets) markFailure(bucket, result, callbackClass);
  if (notify) {
    vl::NotificationCenter::defaultCenter().post(kVLResultNotification,
                                                 vl::Dictionary{{"result", result}});
  }

  if (updateDB) {
    try {
      timeline()->saveResultToDatabase(*result, iteration);
    } catch (const std::exception& exception) {
      VLLog(VLLogLevelError, kCategory, "Threw exception writing to DB. %@", exception.what());
    }
  }
  if (updateRuntime) this->updateRuntime();

  double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  double limit = std::chrono::duration<double>(vl::time::scaled(kVLResultsSlowAddSeconds)).count();
  if (elapsed > limit) {
    auto issue = VLIssue::make();
    issue->setReason(std::string("Result add time exceeded 10s"));
    issue->setProcess(std::string("Vorlund"));
    issue->setType(std::string("Failure"));
    issue->setTime(vl::Date::now());
    addIssue(issue);
    VLLog(VLLogLevelError, kCategory, "Runtime of adding result was %f", elapsed);
  }
}

void VLResults::markFailure(const std::string& bucket,
                            const std::shared_ptr<VLTestCaseResult>& result,
                            const std::shared_ptr<VLTestCaseClass>& /*testCaseClass*/) {
  if (!result) return;
  std::string name = VLTestCaseStatistic::hashForTestCase(*result);
  int64_t count = 0;
  {
    std::lock_guard lock(impl_->failuresMutex);
    vl::Dictionary buckets;
    if (const vl::Dictionary* existing = impl_->failureCounts.get(name).asDictionary()) {
      buckets = *existing;
    }
    count = buckets.get(bucket).int64Or(0) + 1;
    buckets.set(bucket, vl::Value(count));
    impl_->failureCounts.set(name, buckets);
  }
  int64_t callbackMax = integerPreference(VLGetPreferences(), "FailureCallbackMax", 0);
  if (count <= callbackMax) {
    vl::NotificationCenter::defaultCenter().post(kVLResultNotification,
                                                 vl::Dictionary{{"result", result}});
  }
}

void VLResults::addIssue(const std::shared_ptr<VLIssue>& issue) { addIssue(issue, false); }

void VLResults::addIssueFromMerge(const std::shared_ptr<VLIssue>& issue) { addIssue(issue, true); }

void VLResults::addIssue(const std::shared_ptr<VLIssue>& given, bool isFromMerge) {
  addIssue(given, isFromMerge, nullptr);
}

void VLResults::addIssue(const std::shared_ptr<VLIssue>& given, bool isFromMerge,
                         const vl::Dictionary* primaryProcesses) {
  if (!given) return;
  given->isValid();
  // The run keeps its own record: the caller's may change, or belong to another run (a merge).
  auto issue = std::make_shared<VLIssue>(*given);

  const std::string& reason = *issue->reason();
  if (reason.find('\'') != std::string::npos) {
    VLLog(VLLogLevelDebug, kCategory, "Removing single quotes from %@", reason);
    issue->setReason(withoutSingleQuotes(reason));
  }

  std::vector<VLSnapdumpRequest> captures;
  {
    std::lock_guard admission(impl_->admissionMutex);
    if (!isFromMerge) {
      bool isNew = true;
      try {
        isNew = timeline()->isNewIssue(*issue);
      } catch (const std::exception& exception) {
        VLLog(VLLogLevelError, kCategory, "Threw exception writing to DB. %@", exception.what());
      }
      if (!isNew) {
        VLLog(VLLogLevelDebug, kCategory, "Issue seen before");
        return;
      }
      vl::Date since = resetStartDate().value_or(startTime());
      if (*issue->time() <= since) {
        VLLog(VLLogLevelInfo, kCategory, "Issue is in the past, not adding...%@", issue);
        return;
      }
    }

    if (issue->type() == std::optional<std::string>("Crash"))
      captures = checkForWirelessCrash(*issue, isFromMerge, primaryProcesses);

    // An issue from a merge was logged by the run that recorded it; replaying a whole fleet's
    // issues at the info level would cost a refresh more than the merge itself.
    VLLog(isFromMerge ? VLLogLevelDebug : VLLogLevelInfo, kCategory, "Adding issue %@", issue);
    {
      std::lock_guard lock(impl_->issuesMutex);
      auto same = std::find_if(impl_->issues.begin(), impl_->issues.end(),
                               [&](const auto& held) { return held->reason() == issue->reason(); });
      if (same != impl_->issues.end()) {
        (*same)->setInstances((*same)->instances() + issue->instances());
      } else {
        impl_->issues.push_back(issue);
      }
    }
    if (!isFromMerge) saveIssueRow(*issue);
  }

  for (const VLSnapdumpRequest& capture : captures) {
    VLLog(VLLogLevelInfo, kCategory,
          "Triggering snapdump for %@primary process. Total snapdumps captured: %u",
          capture.primary ? "" : "non-", capture.capturedBefore);
    if (!VLTriggerSnapdump()) impl_->releaseSnapdump(capture.primary);
  }
  if (!isFromMerge && *issue->reason() == kNfcNonCrashReason) {
    VLLog(VLLogLevelInfo, kCategory, "Triggering snapdump for %@", *issue->reason());
    VLTriggerSnapdump();
  }
}

void VLResults::saveIssueRow(const VLIssue& issue) {
  vl::Array historyDictionaries;
  for (const vl::Value& entry : getHistory()) {
    if (auto definition = entry.record<VLTestCaseObject>()) {
      historyDictionaries.push_back(definition->getJSONSafeDictionaryRepresentation());
    } else {
      VLLog(VLLogLevelError, kCategory, "Unexpected object in history...%@", entry);
    }
  }
  std::string historyJSON;
  vl::Error error;
  if (auto text = vl::json::serialize(historyDictionaries, false, true, &error)) {
    historyJSON = std::move(*text);
  } else {
    VLLog(VLLogLevelError, kCategory, "Can not generate JSON from results array. %@", error);
  }
  try {
    timeline()->saveIssueToDatabase(issue, std::move(historyJSON));
  } catch (const std::exception& exception) {
    VLLog(VLLogLevelError, kCategory, "Threw exception writing to DB. %@", exception.what());
  }
}

std::vector<VLSnapdumpRequest> VLResults::checkForWirelessCrash(
    VLIssue& issue, bool isFromMerge, const vl::Dictionary* primaryProcesses) {
  const std::string process = issue.process().value_or("");
  const vl::Dictionary table = primaryProcesses ? *primaryProcesses : VLGetPrimaryProcesses();
  bool capture = false;
  if (!isFromMerge) {
    vl::Dictionary preferences = VLGetPreferences();
    capture = preferences.get("CaptureProcessCrashSnapdumps").boolOr(false);
  }
  std::string stressType = testType();
  std::vector<VLSnapdumpRequest> captures;
  for (size_t i = 0; i < table.size(); ++i) {
    auto [area, processes] = table.entry(i);
    const vl::Array* names = processes.asArray();
    if (!names || !names->contains(vl::Value(process))) continue;
    issue.setWirelessProcess(true);
    if (capture) {
      bool primary = area == stressType;
      if (primary) issue.setPrimaryProcess(true);
      if (auto request = impl_->reserveSnapdump(primary)) captures.push_back(*request);
    }
    if (area != kOverallArea) impl_->countCrash(area, process, issue.instances());
  }
  if (issue.wirelessProcess()) impl_->countCrash(kOverallArea, process, issue.instances());
  return captures;
}

std::optional<VLSnapdumpRequest> VLResults::Impl::reserveSnapdump(bool primary) {
  std::lock_guard lock(stateMutex);
  uint32_t& counter = primary ? primarySnapdumps : stressSnapdumps;
  // "at most 50" lets a 51st capture through; kept as it stands.
  if (counter > kVLResultsMaxSnapdumps) return std::nullopt;
  VLSnapdumpRequest request{primary, primarySnapdumps + stressSnapdumps};
  ++counter;
  return request;
}

void VLResults::Impl::releaseSnapdump(bool primary) {
  std::lock_guard lock(stateMutex);
  uint32_t& counter = primary ? primarySnapdumps : stressSnapdumps;
  if (counter > 0) --counter;
}

void VLResults::Impl::countCrash(const std::string& area, const std::string& process,
                                 uint64_t instances) {
  std::lock_guard lock(stateMutex);
  const int64_t added = static_cast<int64_t>(instances);
  if (version <= 3.0) {
    int64_t count = wirelessCrashes.get(area).int64Or(0);
    wirelessCrashes.set(area, vl::Value(count + added));
    return;
  }
  vl::Dictionary counts;
  if (const vl::Dictionary* existing = wirelessCrashes.get(area).asDictionary()) {
    counts = *existing;
  }
  counts.set(process, vl::Value(counts.get(process).int64Or(0) + added));
  counts.set(kTotalKey, vl::Value(counts.get(kTotalKey).int64Or(0) + added));
  wirelessCrashes.set(area, counts);
}

void VLResults::updateRuntime() {
  std::lock_guard lock(impl_->stateMutex);
  vl::Date since = impl_->resetStartDate.value_or(impl_->startTime);
  impl_->runtime = std::fabs(vl::Date::now().secondsSince1970 - since.secondsSince1970);
}

void VLResults::resetStartTime() {
  std::lock_guard lock(impl_->stateMutex);
  impl_->resetStartDate = vl::Date::now();
}

vl::Value VLResults::resets() const {
  std::lock_guard lock(impl_->stateMutex);
  if (impl_->version < 3.1) return {};
  return impl_->wirelessCrashes.get(impl_->testType);
}

int64_t VLResults::totalResets() const {
  std::lock_guard lock(impl_->stateMutex);
  const vl::Value& entry = impl_->wirelessCrashes.get(impl_->testType);
  if (const vl::Dictionary* counts = entry.asDictionary()) return counts->get(kTotalKey).int64Or(0);
  return entry.int64Or(0);
}

double VLResults::testcaseQI() const {
  double instances = 0;
  double failures = 0;
  std::lock_guard lock(impl_->statisticsMutex);
  for (const vl::Value& value : impl_->statistics.values()) {
    auto statistic = value.record<VLTestCaseStatistic>();
    if (!statistic || statistic->isHistogram()) continue;
    double n = static_cast<double>(statistic->instances());
    instances += n;
    failures += std::round(statistic->failureRate() * n);
  }
  return (instances - failures) / instances;
}

double VLResults::QI() const {
  double resetsCount = static_cast<double>(std::max<int64_t>(totalResets(), 1));
  return testcaseQI() * std::log(runtime() / 3600.0 / resetsCount) * 1.45;
}

double VLResults::estimatedQI() const {
  int64_t merged = mergedResults();
  if (static_cast<double>(merged) < kVLResultsMinimumMergedResults) {
    double factor = kVLResultsMinimumMergedResults / static_cast<double>(merged);
    int64_t resetsCount = totalResets();
    double divisor = resetsCount != 0 ? factor * static_cast<double>(resetsCount) : 1.0;
    return testcaseQI() * std::log(factor * runtime() / 3600.0 / divisor) * 1.45;
  }
  VLLog(VLLogLevelInfo, kCategory,
        "There are %ld merged results, meeting the minimum of %f.  Returning normal QI",
        static_cast<long>(merged), kVLResultsMinimumMergedResults);
  return QI();
}

vl::Array VLResults::getHistory() const {
  std::lock_guard lock(impl_->historyMutex);
  return impl_->history;
}

vl::Dictionary VLResults::testCaseStatistics() const {
  std::lock_guard lock(impl_->statisticsMutex);
  vl::Dictionary copies;
  for (size_t i = 0; i < impl_->statistics.size(); ++i) {
    auto [key, value] = impl_->statistics.entry(i);
    if (auto statistic = value.record<VLTestCaseStatistic>()) {
      copies.set(key, vl::Value(std::make_shared<VLTestCaseStatistic>(*statistic)));
    }
  }
  return copies;
}

std::shared_ptr<VLTestCaseStatistic> VLResults::statisticForName(const std::string& name) const {
  std::lock_guard lock(impl_->statisticsMutex);
  auto statistic = impl_->statistics.get(name).record<VLTestCaseStatistic>();
  return statistic ? std::make_shared<VLTestCaseStatistic>(*statistic) : nullptr;
}

std::vector<std::shared_ptr<VLIssue>> VLResults::issueList() const {
  std::lock_guard lock(impl_->issuesMutex);
  std::vector<std::shared_ptr<VLIssue>> copies;
  copies.reserve(impl_->issues.size());
  for (const auto& issue : impl_->issues) copies.push_back(std::make_shared<VLIssue>(*issue));
  return copies;
}

#define VL_STATE_ACCESSOR(Type, getter, setter, member) \
  Type VLResults::getter() const {                      \
    std::lock_guard lock(impl_->stateMutex);            \
    return impl_->member;                               \
  }                                                     \
  void VLResults::setter(Type value) {                  \
    std::lock_guard lock(impl_->stateMutex);            \
    impl_->member = std::move(value);                   \
  }

VL_STATE_ACCESSOR(vl::Dictionary, wirelessCrashes, setWirelessCrashes, wirelessCrashes)
VL_STATE_ACCESSOR(std::string, fileNameSuffix, setFileNameSuffix, fileNameSuffix)
VL_STATE_ACCESSOR(vl::Dictionary, hardwareInfo, setHardwareInfo, hardwareInfo)
VL_STATE_ACCESSOR(vl::Dictionary, softwareInfo, setSoftwareInfo, softwareInfo)
VL_STATE_ACCESSOR(vl::Dictionary, loggingInfo, setLoggingInfo, loggingInfo)
VL_STATE_ACCESSOR(vl::Dictionary, testSettings, setTestSettings, testSettings)
VL_STATE_ACCESSOR(vl::Date, startTime, setStartTime, startTime)
VL_STATE_ACCESSOR(std::optional<vl::Date>, resetStartDate, setResetStartDate, resetStartDate)
VL_STATE_ACCESSOR(vl::Date, lastUpdated, setLastUpdated, lastUpdated)
VL_STATE_ACCESSOR(double, runtime, setRuntime, runtime)
VL_STATE_ACCESSOR(std::string, config, setConfig, config)
VL_STATE_ACCESSOR(std::string, testType, setTestType, testType)
VL_STATE_ACCESSOR(std::string, testSubtype, setTestSubtype, testSubtype)
VL_STATE_ACCESSOR(double, version, setVersion, version)
VL_STATE_ACCESSOR(bool, resumed, setResumed, resumed)
VL_STATE_ACCESSOR(std::string, plistPath, setPlistPath, plistPath)
VL_STATE_ACCESSOR(uint32_t, primarySnapdumps, setPrimarySnapdumps, primarySnapdumps)
VL_STATE_ACCESSOR(uint32_t, stressSnapdumps, setStressSnapdumps, stressSnapdumps)
VL_STATE_ACCESSOR(int64_t, mergedResults, setMergedResults, mergedResults)
#undef VL_STATE_ACCESSOR

std::string VLResults::timelinePath() const {
  std::lock_guard lock(impl_->stateMutex);
  return impl_->timelinePath;
}

void VLResults::setTimelinePath(std::string path) {
  {
    std::lock_guard lock(impl_->stateMutex);
    impl_->timelinePath = std::move(path);
  }
  std::lock_guard lock(impl_->timelineMutex);
  impl_->timeline.reset();
}

vl::Dictionary VLResults::failureCounts() const {
  std::lock_guard lock(impl_->failuresMutex);
  return impl_->failureCounts;
}

void VLResults::setFailureCounts(vl::Dictionary counts) {
  std::lock_guard lock(impl_->failuresMutex);
  impl_->failureCounts = std::move(counts);
}

int64_t VLResults::iterations() const { return impl_->iterations.load(); }
void VLResults::setIterations(int64_t iterations) { impl_->iterations.store(iterations); }

void VLResults::setTestCaseStatistics(const vl::Dictionary& statistics) {
  vl::Dictionary copies;
  for (size_t i = 0; i < statistics.size(); ++i) {
    auto [key, value] = statistics.entry(i);
    if (auto statistic = value.record<VLTestCaseStatistic>()) {
      copies.set(key, vl::Value(std::make_shared<VLTestCaseStatistic>(*statistic)));
    }
  }
  std::lock_guard lock(impl_->statisticsMutex);
  impl_->statistics = std::move(copies);
}

void VLResults::setIssueList(std::vector<std::shared_ptr<VLIssue>> issues) {
  std::erase(issues, nullptr);
  std::lock_guard lock(impl_->issuesMutex);
  impl_->issues = std::move(issues);
}

void VLResults::setHistory(const vl::Array& history) {
  vl::Array kept;
  for (const vl::Value& entry : history) kept.push_back(entry);
  while (kept.size() > kVLResultsHistoryLength) kept.erase(0);
  std::lock_guard lock(impl_->historyMutex);
  impl_->history = std::move(kept);
}

std::shared_ptr<VLTimelineDatabase> VLResults::timeline() {
  std::string path = timelinePath();
  std::lock_guard lock(impl_->timelineMutex);
  if (!impl_->timeline || impl_->timeline->path() != path) {
    auto database = std::make_shared<VLTimelineDatabase>(path);
    database->databaseInit();
    impl_->timeline = std::move(database);
  }
  return impl_->timeline;
}
