// The state of a VLResults, shared by the files that implement it (results.cc, the results file,
// merging runs). Each lock guards the members listed under it; no lock is held while another is
// taken, except the admission lock, which is held around the others while one issue is admitted.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vorlund/foundation/value.h"
#include "vorlund/results/issue.h"
#include "vorlund/results/results.h"

// A diagnostic archive reserved under the state lock and requested after every lock is let go.
struct VLSnapdumpRequest {
  bool primary = false;
  // Both counters before the reservation, as the log line prints them.
  uint32_t capturedBefore = 0;
};

struct VLResults::Impl {
  mutable std::mutex statisticsMutex;
  vl::Dictionary statistics;

  mutable std::mutex failuresMutex;
  vl::Dictionary failureCounts;

  // Held while one issue is checked for novelty, counted, listed and written, so that the same
  // issue arriving on several threads at once is admitted once.
  std::mutex admissionMutex;

  mutable std::mutex issuesMutex;
  std::vector<std::shared_ptr<VLIssue>> issues;

  mutable std::mutex historyMutex;
  vl::Array history;

  mutable std::mutex stateMutex;
  vl::Dictionary wirelessCrashes;
  vl::Dictionary hardwareInfo;
  vl::Dictionary softwareInfo;
  vl::Dictionary loggingInfo;
  vl::Dictionary testSettings;
  vl::Date startTime = vl::Date::now();
  std::optional<vl::Date> resetStartDate;
  vl::Date lastUpdated = vl::Date::now();
  double runtime = 0;
  std::string config;
  std::string testType;
  std::string testSubtype;
  double version = kVLResultsVersion;
  bool resumed = false;
  std::string plistPath;
  std::string timelinePath;
  // What follows the start date in the run's file names ("" or "-2", "-3", ...).
  std::string fileNameSuffix;
  uint32_t primarySnapdumps = 0;
  uint32_t stressSnapdumps = 0;
  int64_t mergedResults = 0;

  std::atomic<int64_t> iterations{0};

  std::mutex timelineMutex;
  std::shared_ptr<VLTimelineDatabase> timeline;

  // Adds instances crashes of process to area: a plain count in format 3.0, else the area's
  // {"Total": n, <process>: n}. Takes the state lock.
  void countCrash(const std::string& area, const std::string& process, uint64_t instances);
  // Adds another run's entry of one area (either format) to this run's. Takes the state lock.
  void addCrashEntry(const std::string& area, const vl::Value& entry);
  // Reserves a capture of the class (primary or not) while its counter is at most
  // kVLResultsMaxSnapdumps; none when the class is spent. Takes the state lock.
  std::optional<VLSnapdumpRequest> reserveSnapdump(bool primary);
  // Gives back a reservation whose request was refused.
  void releaseSnapdump(bool primary);
};
