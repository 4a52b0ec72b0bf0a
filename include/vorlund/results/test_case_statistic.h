// VLTestCaseStatistic: the running aggregate of every result of one test case in a stress run:
// instances, failure rate and failure reasons, and per metric the running minimum, maximum, mean
// and deviation. The results aggregate makes one from each result and merges it into the one it
// holds for that test case; merging also combines the statistics of several runs or devices.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/foundation/value.h"
#include "vorlund/results/test_case_result.h"

// Keys of the coding and dictionary forms, in their order ("Tags" is coded only, "Class" is in the
// dictionary form only).
inline constexpr const char* kVLTestCaseStatisticKeyName = "Name";
inline constexpr const char* kVLTestCaseStatisticKeyInstances = "Instances";
inline constexpr const char* kVLTestCaseStatisticKeyMetrics = "Metrics";
inline constexpr const char* kVLTestCaseStatisticKeyTags = "Tags";
inline constexpr const char* kVLTestCaseStatisticKeyFailures = "Failures";
inline constexpr const char* kVLTestCaseStatisticKeyFailureRate = "FailureRate";
inline constexpr const char* kVLTestCaseStatisticKeyType = "Type";
inline constexpr const char* kVLTestCaseStatisticKeyClass = "Class";

// Keys of one metric of an "Average" statistic.
inline constexpr const char* kVLTestCaseStatisticMetricMax = "Max";
inline constexpr const char* kVLTestCaseStatisticMetricMin = "Min";
inline constexpr const char* kVLTestCaseStatisticMetricMean = "Mean";
inline constexpr const char* kVLTestCaseStatisticMetricStdDeviation = "StdDeviation";

// The name of a statistic made by make().
inline constexpr const char* kVLTestCaseStatisticUnknownName = "Unknown Name";

// The codes of mergeWithStatistic(). They are logged and compared by callers: never renumber.
inline constexpr int kVLTestCaseStatisticMergeSucceeded = 0;
inline constexpr int kVLTestCaseStatisticMergeNameMismatch = 2;
inline constexpr int kVLTestCaseStatisticMergeMetricMismatch = 3;
inline constexpr int kVLTestCaseStatisticMergeTypeMismatch = 4;

// The exception the results aggregate raises when a merge fails twice for one result.
inline constexpr const char* kVLTestCaseStatisticMergeException =
    "VLTestCaseStatisticMergeException";

// Not locked: the results aggregate merges statistics under its own lock.
class VLTestCaseStatistic : public vl::CodableRecord {
 public:
  static constexpr const char* kClassName = "VLTestCaseStatistic";

  // Name "Unknown Name", no type, 0 instances, failure rate 0.0, 0 consecutive failures, empty
  // metrics, tags and failures.
  static std::shared_ptr<VLTestCaseStatistic> make();

  // The statistic of one result: its name (the empty string when it has none), type and tags, one
  // instance.
  // - A histogram counts 1 in the metric named by its bucket (none without a bucket); a
  //   "HistogramByTime" result counts its whole seconds from start to end as instances (halves
  //   away from zero; 0 when a date is missing). Failure rate and failures stay empty.
  // - Any other result that did not pass (failed, or pass/fail unset) has failure rate 1.0, one
  //   consecutive failure and its bucket at 1.0 in the failures (none without a bucket).
  // - A passing "Average" result gives each number metric {"Max", "Min", "Mean": value,
  //   "StdDeviation": 0}; metrics that are not numbers are dropped.
  static std::shared_ptr<VLTestCaseStatistic> withTestCaseResult(const VLTestCaseResult& result);

  // Reads "Name", "Instances", "Metrics", "Tags", "Failures", "FailureRate" and "Type". Absent
  // keys, or keys of another type, keep the values of make(). Never fails.
  static std::shared_ptr<VLTestCaseStatistic> withDictionary(const vl::Dictionary& dictionary);
  // From a keyed archive: strings and numbers must be of their classes, the dictionaries may hold
  // only VLValidExternalClassesForCoding(). Consecutive failures start at 0. Returns nullptr (the
  // decode failed with an error) when a key holds the wrong class.
  static std::shared_ptr<VLTestCaseStatistic> withCoder(vl::KeyedUnarchiver& coder);

  // The key under which the results aggregate files the statistic of result: a copy of the
  // result's name (the empty string when it has none).
  static std::string hashForTestCase(const VLTestCaseResult& result);

  // Merges other into this statistic. Returns kVLTestCaseStatisticMergeSucceeded (0),
  // ...NameMismatch (2), ...MetricMismatch (3: two "Average" statistics, both with instances and
  // passing ones, whose metric names differ; each differing name is logged at error level) or
  // ...TypeMismatch (4). This statistic changes only when the code is 0; other is never changed.
  // Instances add up; failure rate and failure fractions are weighted by the rounded failure
  // counts; metric means and deviations are pooled over the passing instances (histogram buckets
  // over all instances).
  int mergeWithStatistic(const VLTestCaseStatistic& other);

  // For an "Average" statistic with more than 50 passing instances ((1 − failureRate) × instances
  // > 50.0), the reasons "<name> : <metric> | Metric outside 2 sigma" of every metric of
  // newStatistic (the statistic made from the result just merged in) whose Mean is greater than
  // this statistic's Mean + 2 × StdDeviation, in newStatistic's metric order. Only the upper side
  // is tested, on purpose. Empty in every other case.
  std::vector<std::string> metricsOutsideTwoSigma(const VLTestCaseStatistic& newStatistic) const;

  // Type "HistogramByTime" or "HistogramByInstance".
  bool isHistogram() const;

  double failureRate() const { return failureRate_; }
  void setFailureRate(double rate) { failureRate_ = rate; }
  const std::string& name() const { return name_; }
  void setName(std::string name) { name_ = std::move(name); }
  // Instances; for "HistogramByTime", seconds.
  uint64_t instances() const { return instances_; }
  void setInstances(uint64_t instances) { instances_ = instances; }
  const std::optional<std::string>& type() const { return type_; }
  void setType(std::optional<std::string> type) { type_ = std::move(type); }
  // "Average": metric name to {"Max", "Min", "Mean", "StdDeviation"}; histograms: bucket to its
  // weighted share of the instances; "PassFail": empty.
  const vl::Dictionary& metrics() const { return metrics_; }
  void setMetrics(vl::Dictionary metrics) { metrics_ = std::move(metrics); }
  // The tags of the first result.
  const vl::Dictionary& tags() const { return tags_; }
  void setTags(vl::Dictionary tags) { tags_ = std::move(tags); }
  // Failure reason to the fraction of the failed instances that had it.
  const vl::Dictionary& failures() const { return failures_; }
  void setFailures(vl::Dictionary failures) { failures_ = std::move(failures); }
  // 1 when made from a result that did not pass; merging leaves it, decoding resets it to 0.
  uint64_t consecutiveFailures() const { return consecutiveFailures_; }
  void setConsecutiveFailures(uint64_t count) { consecutiveFailures_ = count; }

  // "Name", "Instances", "Metrics", "Failures", "FailureRate", "Type" (when set) and "Class"; no
  // tags.
  vl::Dictionary getDictionaryRepresentation() const;
  // "Name", "Instances", "Metrics", "Tags", "Failures", "FailureRate", "Type" (when set).
  void encodeWithCoder(vl::KeyedArchiver& coder) const override;

  std::string className() const override { return kClassName; }
  // The dictionary form, printed as a dictionary.
  std::string description() const override;
  vl::Dictionary dictionaryRepresentation() const override { return getDictionaryRepresentation(); }
  // Another statistic with equal name, type, instances, failure rate, metrics, tags and failures.
  // Consecutive failures take no part.
  bool isEqual(const vl::Record& other) const override;

 private:
  double failureRate_ = 0.0;
  std::string name_ = kVLTestCaseStatisticUnknownName;
  uint64_t instances_ = 0;
  std::optional<std::string> type_;
  vl::Dictionary metrics_;
  vl::Dictionary tags_;
  vl::Dictionary failures_;
  uint64_t consecutiveFailures_ = 0;
};
