// Merging one run into another: how the results of several devices become one aggregate.

#include <algorithm>

#include "results/results_impl.h"
#include "vorlund/foundation/format.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/results.h"
#include "vorlund/results/test_case_statistic.h"

namespace {

constexpr const char* kCategory = "Results";
constexpr const char* kTotalKey = "Total";

// The statistic that stands for other once its metrics could not be merged: every instance
// failed for the merge's reason, as a result that cannot be merged is failed and merged again.
VLTestCaseStatistic failedForMerge(const VLTestCaseStatistic& other, int code) {
  VLTestCaseStatistic failed(other);
  failed.setFailureRate(1.0);
  failed.setFailures(
      vl::Dictionary{{vl::format("Unable to merge result with error %d", code), vl::Value(1.0)}});
  failed.setMetrics({});
  return failed;
}

// How many device runs a run stands for.
int64_t runsIn(int64_t mergedResults) { return std::max<int64_t>(mergedResults, 1); }

}  // namespace

void VLResults::Impl::addCrashEntry(const std::string& area, const vl::Value& entry) {
  std::lock_guard lock(stateMutex);
  const vl::Dictionary* incoming = entry.asDictionary();
  const int64_t incomingTotal = incoming ? incoming->get(kTotalKey).int64Or(0) : entry.int64Or(0);
  const vl::Value& held = wirelessCrashes.get(area);
  if (version <= 3.0) {
    const vl::Dictionary* heldCounts = held.asDictionary();
    int64_t count = heldCounts ? heldCounts->get(kTotalKey).int64Or(0) : held.int64Or(0);
    wirelessCrashes.set(area, vl::Value(count + incomingTotal));
    return;
  }
  vl::Dictionary counts;
  if (const vl::Dictionary* existing = held.asDictionary()) {
    counts = *existing;
  } else if (!held.isNone()) {
    counts.set(kTotalKey, vl::Value(held.int64Or(0)));
  }
  if (incoming) {
    for (size_t i = 0; i < incoming->size(); ++i) {
      auto [process, count] = incoming->entry(i);
      counts.set(process, vl::Value(counts.get(process).int64Or(0) + count.int64Or(0)));
    }
  } else {
    counts.set(kTotalKey, vl::Value(counts.get(kTotalKey).int64Or(0) + incomingTotal));
  }
  wirelessCrashes.set(area, counts);
}

void VLResults::mergeStatistics(const VLResults& other) {
  // The other run's copies are taken before this run's lock, so that two runs merging into each
  // other never wait on each other. The lock is held from copy to replace: a result added
  // meanwhile waits instead of being lost.
  const vl::Dictionary incoming = other.testCaseStatistics();
  std::lock_guard lock(impl_->statisticsMutex);
  vl::Dictionary merged;
  for (size_t i = 0; i < impl_->statistics.size(); ++i) {
    auto [key, value] = impl_->statistics.entry(i);
    if (auto held = value.record<VLTestCaseStatistic>())
      merged.set(key, vl::Value(std::make_shared<VLTestCaseStatistic>(*held)));
  }
  for (size_t i = 0; i < incoming.size(); ++i) {
    auto [key, value] = incoming.entry(i);
    auto statistic = value.record<VLTestCaseStatistic>();
    if (!statistic) continue;
    auto held = merged.get(key).record<VLTestCaseStatistic>();
    if (!held) {
      merged.set(key, value);
      continue;
    }
    int code = held->mergeWithStatistic(*statistic);
    if (code == kVLTestCaseStatisticMergeSucceeded) continue;
    VLLog(VLLogLevelError, kCategory, "Merge failed with error %d", code);
    int retryCode = held->mergeWithStatistic(failedForMerge(*statistic, code));
    if (retryCode != kVLTestCaseStatisticMergeSucceeded) {
      throw VLException(kVLTestCaseStatisticMergeException,
                        vl::format("Initial merge failed with error %d, retry failed with error %d",
                                   code, retryCode));
    }
  }
  impl_->statistics = std::move(merged);
}

void VLResults::mergeWithResult(const VLResults& other) {
  if (&other == this) return;
  mergeStatistics(other);

  // Merging the other run's issues runs the wireless-crash check on its crashes, which counts them
  // in this run's table a second time: the other run's own table already holds them. The table is
  // therefore taken back to what it was before the issues, and the other's table added to it.
  // (A crash this run counted of its own meanwhile would be lost: merges are made on aggregates
  // read back from files, not on the run that is recording.)
  const vl::Dictionary crashesBefore = wirelessCrashes();
  for (const auto& issue : other.issueList()) {
    // A results file may hold an issue that lacks a field; it is left out, not the whole merge.
    try {
      addIssueFromMerge(issue);
    } catch (const VLException& exception) {
      VLLog(VLLogLevelError, kCategory, "Skipping an invalid issue of a merged run: %@",
            exception.reason());
    }
  }

  setWirelessCrashes(crashesBefore);
  const vl::Dictionary crashes = other.wirelessCrashes();
  for (size_t i = 0; i < crashes.size(); ++i) {
    auto [area, entry] = crashes.entry(i);
    impl_->addCrashEntry(area, entry);
  }

  const double otherRuntime = other.runtime();
  const vl::Date otherStart = other.startTime();
  const vl::Date otherUpdated = other.lastUpdated();
  const int64_t otherRuns = runsIn(other.mergedResults());
  {
    std::lock_guard lock(impl_->stateMutex);
    impl_->runtime += otherRuntime;
    impl_->startTime = std::min(impl_->startTime, otherStart);
    impl_->lastUpdated = std::max(impl_->lastUpdated, otherUpdated);
    impl_->mergedResults = runsIn(impl_->mergedResults) + otherRuns;
  }
  impl_->iterations += other.iterations();
}
