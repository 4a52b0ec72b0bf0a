// VLResults: the results of one stress run on one device: per-test-case statistics, issues, the
// per-area counts of wireless crashes, the summaries of device and settings, start and run time.
// Every executed result and every issue found on the device enters the run here; each is also
// written to the run's timeline database. One process holds one shared instance (currentResults).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vorlund/catalogue/test_case_class.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/foundation/value.h"
#include "vorlund/results/issue.h"
#include "vorlund/results/test_case_result.h"

class VLTestCaseStatistic;
class VLTimelineDatabase;
struct VLSnapdumpRequest;

// The notification posted for failures of a known test case class, with {"result": result}.
inline constexpr const char* kVLResultNotification = "com.brindle.result.notification";
// The results format this library writes. Format 3.0 counted wireless crashes as plain numbers;
// later formats keep {"Total": n, <process>: n} per area.
inline constexpr double kVLResultsVersion = 3.1;
// How many test case definitions the recent history keeps.
inline constexpr size_t kVLResultsHistoryLength = 21;
// A result whose add takes longer than this files a failure issue.
inline constexpr double kVLResultsSlowAddSeconds = 10.0;
// A capture class stops requesting diagnostic archives once its counter exceeds this.
inline constexpr uint32_t kVLResultsMaxSnapdumps = 50;
// estimatedQI extrapolates below this many merged results.
inline constexpr double kVLResultsMinimumMergedResults = 10.0;

// Every operation is safe from any thread. Three locks guard the statistics, the issue list and
// the recent history; each is taken alone (the statistics lock across a merge and its failure
// callbacks). The other properties share a fourth, short-lived lock.
class VLResults : public std::enable_shared_from_this<VLResults> {
 public:
  // The shared instance, created on first use from any thread.
  static std::shared_ptr<VLResults> currentResults();
  // Replaces the shared instance (a new run); nullptr makes the next currentResults() create one.
  static void setCurrentResults(std::shared_ptr<VLResults> results);

  // A fresh run: start time now, version kVLResultsVersion, stress type, subtype and config of the
  // preferences, the preferences as test settings, the device's hardware, software and logging
  // summaries ("SerialNumber", "HardwareModel", "Architecture"; "OSName", "BuildVersion",
  // "Kernel"; "LogDirectory", "ProcessName"; unknown values left out), results file and timeline
  // paths derived from them (the timeline file is created empty to claim the name, see
  // fileNameSuffix), empty statistics, issues and crash counts. The timeline's tables are made on
  // first use.
  static std::shared_ptr<VLResults> make();
  VLResults();
  ~VLResults();
  VLResults(const VLResults&) = delete;
  VLResults& operator=(const VLResults&) = delete;

  // Adds one result: validation, multi-technology reason, recent history, row counter, merge into
  // the test case's statistic (with failure callbacks), timeline rows, run time, slow-add issue.
  // The result notification is posted on the calling thread with no lock of this aggregate held,
  // so its observers may read this run or add results and issues to it.
  // Invalid, no-op and missed results are not added. Raises VLException
  // "VLTestCaseStatisticMergeException" when a merge fails even with a freshly failed statistic.
  // A timeline that cannot be opened or written is logged ("Threw exception writing to DB. %@")
  // and the result stays in the statistics.
  void addTestCaseResult(const std::shared_ptr<VLTestCaseResult>& result, bool updateRuntime);
  void addTestCaseResult(const std::shared_ptr<VLTestCaseResult>& result,
                         const std::shared_ptr<VLTestCaseClass>& testCaseClass, bool updateRuntime,
                         bool updateDB = true);

  // Adds one issue (de-duplicated against the timeline and the run start, counted when it is a
  // wireless crash, merged with an issue of the same reason); a merge skips the timeline, the start
  // check, the captures and the issue row. Raises VLException "VLIssueInvalid" (before anything is
  // recorded) for an issue without reason, process, type or time, or with 0 instances. The check
  // for novelty and the recording are one step: the same issue added from several threads at once
  // is recorded once. The run keeps a copy; the caller's record is not changed. Diagnostic
  // archives are requested after the issue is recorded, with no lock held. Timeline failures are
  // logged; the issue is kept.
  void addIssue(const std::shared_ptr<VLIssue>& issue);
  void addIssueFromMerge(const std::shared_ptr<VLIssue>& issue);
  void addIssue(const std::shared_ptr<VLIssue>& issue, bool isFromMerge);

  // Counts a failure of bucket for the result's test case and posts the result notification while
  // the count is at most the preference "FailureCallbackMax".
  void markFailure(const std::string& bucket, const std::shared_ptr<VLTestCaseResult>& result,
                   const std::shared_ptr<VLTestCaseClass>& testCaseClass);

  // Run time: seconds since the reset-start date, or since startTime when none is set.
  void updateRuntime();
  // Sets the reset-start date to now: issues before it are dropped and run time counts from it.
  void resetStartTime();
  // The wirelessCrashes entry of the current stress type for format 3.1 and later; none otherwise.
  vl::Value resets() const;
  // That entry's "Total" (format 3.0: the entry itself); 0 when there is none.
  int64_t totalResets() const;
  // (N - F) / N over the non-histogram statistics (NaN when there are none).
  double testcaseQI() const;
  // testcaseQI * ln(runtime / 3600 / max(totalResets, 1)) * 1.45.
  double QI() const;
  // QI extrapolated to ten merged results while fewer were merged.
  double estimatedQI() const;
  // The recent history: up to 21 test case definitions, oldest first. The housekeeping test cases
  // "Stop Stress", "Idle", "Sleep" and "Wait", and results without a definition, are not kept.
  vl::Array getHistory() const;

  // Copies of the state. testCaseStatistics maps hashForTestCase to VLTestCaseStatistic records;
  // issueList holds VLIssue records in order of first arrival.
  vl::Dictionary testCaseStatistics() const;
  std::shared_ptr<VLTestCaseStatistic> statisticForName(const std::string& name) const;
  std::vector<std::shared_ptr<VLIssue>> issueList() const;
  vl::Dictionary wirelessCrashes() const;
  vl::Dictionary hardwareInfo() const;
  vl::Dictionary softwareInfo() const;
  vl::Dictionary loggingInfo() const;
  vl::Dictionary testSettings() const;
  vl::Date startTime() const;
  std::optional<vl::Date> resetStartDate() const;
  vl::Date lastUpdated() const;
  double runtime() const;
  std::string config() const;
  std::string testType() const;
  std::string testSubtype() const;
  double version() const;
  bool resumed() const;
  std::string plistPath() const;
  std::string timelinePath() const;
  // Bucket -> failure count per test case name (the failure callbacks' state).
  vl::Dictionary failureCounts() const;
  // Rows written to the timeline so far (the iteration of the next result minus one).
  int64_t iterations() const;
  // Accepted diagnostic-archive requests for primary and for other wireless processes.
  uint32_t primarySnapdumps() const;
  uint32_t stressSnapdumps() const;
  int64_t mergedResults() const;

  // Setters, for restoring a run from its files and for merging runs. They replace the state
  // wholesale; the timeline path takes effect before the first row is written.
  void setTestCaseStatistics(const vl::Dictionary& statistics);
  void setIssueList(std::vector<std::shared_ptr<VLIssue>> issues);
  void setHistory(const vl::Array& history);
  void setWirelessCrashes(vl::Dictionary crashes);
  void setHardwareInfo(vl::Dictionary info);
  void setSoftwareInfo(vl::Dictionary info);
  void setLoggingInfo(vl::Dictionary info);
  void setTestSettings(vl::Dictionary settings);
  void setStartTime(vl::Date date);
  void setResetStartDate(std::optional<vl::Date> date);
  void setLastUpdated(vl::Date date);
  void setRuntime(double seconds);
  void setConfig(std::string config);
  void setTestType(std::string type);
  void setTestSubtype(std::string subtype);
  void setVersion(double version);
  void setResumed(bool resumed);
  void setPlistPath(std::string path);
  void setTimelinePath(std::string path);
  void setFailureCounts(vl::Dictionary counts);
  void setIterations(int64_t iterations);
  void setPrimarySnapdumps(uint32_t count);
  void setStressSnapdumps(uint32_t count);
  void setMergedResults(int64_t count);

  // "<results folder>/<name>_<stress type>[_<serial>][_<start date><run suffix>].<suffix>", the
  // results folder being "~/Library/Logs/Vorlund/Results"; the serial part is left out when the
  // serial number is unknown, the date part unless includeTime. The run suffix is empty for the
  // first run of a start second and "-2", "-3", ... for later runs of the same second, so that a
  // run never writes over the files of an earlier one. Creates the missing parent folders (a
  // failure is logged at level 16 with the system's error text, and the path returned anyway).
  std::string getResultsFilePathForName(const std::string& name, const std::string& suffix,
                                        bool includeTime = true) const;
  // The run suffix of the file names: chosen once by make(), which claims the first free
  // timeline name of the start second by creating it (O_EXCL, so two processes starting runs in
  // the same second get different names) and skips names whose results file exists. A resumed run
  // keeps its suffix (resume key "FileNameSuffix").
  std::string fileNameSuffix() const;
  void setFileNameSuffix(std::string suffix);
  // "VorlundResults" ... ".plist"; logs at level 2 "Saving results to %@".
  std::string getResultsFilePath() const;
  // "VorlundTimeline" ... ".db"; logs at level 0 "Saving timeline to %@".
  std::string getTimelineFilePath() const;

  // The run's timeline database, opened (and its tables created) on first use on timelinePath().
  // Raises as VLTimelineDatabase::databaseInit() does ("DBInitializationFailed",
  // "VLTetherResultsException"); a later call tries again.
  std::shared_ptr<VLTimelineDatabase> timeline();

  // Results file and resume data
  //
  // The results file is a property list that tools and people read after the run; the resume data
  // is a secure keyed archive that lets a restarted service carry on the same run.

  // "~/Library/Caches/vorlund_results_resume_data.plist", tilde expanded.
  static std::string resumeDataPath();
  // The classes resume data may hold: VLValidExternalClassesForCoding() and the statistics, which
  // never cross a process boundary on their own and so are allowed for this decode only.
  static const vl::ClassSet& resumeDataClasses();
  // Whether a resume data file exists.
  static bool hasResumeData();
  // The results file's dictionary, keys in this order: "Test Settings", "City" (only when the test
  // settings hold it), "Hardware Info", "Software Info", "Logging Info", "StressType",
  // "WirelessTechnology" (the name of the technology the stress type names, compared without
  // case; "None" when it names none), "StressSubtype", "Config", "PlistVersion", "LastUpdated"
  // (now), "MergedResults", "RunTime", "StartTime", "CampedRAT", "CampedRAT2", "MTBF" (run time
  // per wireless crash of each area; the run time itself for a count of 0), "WirelessCrashes",
  // "Issues", "TestCases".
  vl::Dictionary resultsFileDictionary() const;
  // Sets lastUpdated, rewrites the timeline's Config table with the summary (everything before
  // "MTBF"; a timeline that cannot be opened is logged and skipped) and writes the results file
  // atomically as XML. Returns false, logged at level 16, when the file cannot be written; an older
  // file at path then stays whole.
  bool saveToFile(const std::string& path);
  // saveToFile(getResultsFilePath()).
  bool saveToDisk();
  // saveToDisk(), then writes the resume data atomically. Returns whether the resume data was
  // written (failures are logged at level 16; an older resume file then stays whole).
  bool suspend();
  // Ends the run: saveToDisk(), and when the results file was written, the run is handed to the
  // finished-run handler (finished_run.h) before this returns. Returns saveToDisk()'s answer.
  bool finish();
  // The run carried on from the resume data: every saved key restored, resumed() set, run time
  // updated, results file and timeline paths derived from the restored start time and file name
  // suffix, the resume file deleted and the results file written back at once (the resume data
  // follows with the first periodic save, see periodic_save.h). A fresh run (make()) when the file
  // cannot be read, is not a keyed archive of the resume dictionary or holds a class outside the
  // allowed set; each case is logged and the file is left in place. Never throws.
  static std::shared_ptr<VLResults> withResumeData();
  // Merges another run (another device's, usually rebuilt with withFile) into this one:
  // - statistics per key: a key new to this run is copied; a held one merges the other's
  //   statistic. A merge refused for its metric sets (code 3) is tried again with the other's
  //   statistic counted as failed ("Unable to merge result with error 3", no metrics), as a result
  //   is; if that fails too, VLException "VLTestCaseStatisticMergeException" is raised and this run
  //   is left as it was (the statistics are merged on copies and replaced together);
  // - issues through addIssueFromMerge (same reason: instances add up); one that fails
  //   VLIssue::isValid (a damaged results file) is left out and logged;
  // - wireless crashes per area and process ("Total" included; a format-3.0 count adds to
  //   "Total", or to the plain count when this run is format 3.0);
  // - run time and rows written add up; start time is the earlier, last update the later;
  // - merged results: each side counts as its MergedResults, or 1 when it merged none, so two
  //   single-device runs make 2.
  // The summaries (settings, device, stress type) stay this run's. Merging a run into itself
  // does nothing.
  void mergeWithResult(const VLResults& other);
  // An aggregate rebuilt from a results file (for merging devices' results): each top-level key
  // back into its property; derived keys ("City", "WirelessTechnology", "CampedRAT", "CampedRAT2",
  // "MTBF") and keys of an unexpected type are skipped. plistPath() is path; there is no timeline
  // path. nullptr, logged at level 16, when the file is not a property-list dictionary.
  static std::shared_ptr<VLResults> withFile(const std::string& path);
  // Replaces this aggregate's state with the entries of a results file dictionary, as withFile.
  void restoreStateFromSavedPlist(const vl::Dictionary& plist);

 private:
  // Marks a crash of a wireless daemon, counts it per area and overall, and returns the captures
  // it reserved, for the caller to request once it holds no lock.
  // primaryProcesses is the table of VLGetPrimaryProcesses(), or nullptr to read it here (it is
  // read from the preferences, so a merge reads it once for all of its issues).
  std::vector<VLSnapdumpRequest> checkForWirelessCrash(VLIssue& issue, bool isFromMerge,
                                                       const vl::Dictionary* primaryProcesses);
  // addIssue(issue, isFromMerge) with the table checkForWirelessCrash takes.
  void addIssue(const std::shared_ptr<VLIssue>& issue, bool isFromMerge,
                const vl::Dictionary* primaryProcesses);
  // The statistics part of mergeWithResult: all or nothing, under the statistics lock.
  void mergeStatistics(const VLResults& other);
  // The issue's row, with the recent history as JSON text.
  void saveIssueRow(const VLIssue& issue);
  // Takes the next free file name of the run's start second (see getResultsFilePathForName).
  void reserveFileNames();
  // A fresh run's state without its file names.
  static std::shared_ptr<VLResults> makeUnnamed();

  struct Impl;
  std::unique_ptr<Impl> impl_;
};
