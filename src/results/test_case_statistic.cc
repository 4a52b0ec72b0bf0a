#include "vorlund/results/test_case_statistic.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/format.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kLogCategory = "Results";
constexpr const char* kMergeLogCategory = "framework";
// An "Average" statistic tests new metrics against its spread only beyond this many passing
// instances.
constexpr double kTwoSigmaMinimumPassingInstances = 50.0;

[[maybe_unused]] const bool kRegistered = vl::registerCodableClass({
    .name = VLTestCaseStatistic::kClassName,
    .superclasses = {vl::kClassRoot},
    .decode = [](vl::KeyedUnarchiver& coder) -> std::shared_ptr<vl::CodableRecord> {
      return VLTestCaseStatistic::withCoder(coder);
    },
    .fromDictionary = [](const vl::Dictionary& dictionary,
                         vl::Error*) -> std::shared_ptr<vl::CodableRecord> {
      return VLTestCaseStatistic::withDictionary(dictionary);
    },
});

// x to the nearest whole number, halves away from zero.
double nearest(double x) { return std::round(x); }

double numberIn(const vl::Dictionary& dictionary, std::string_view key) {
  return dictionary.get(key).doubleOr(0.0);
}

// One "Average" metric as its four figures; a missing metric or figure reads as 0.
struct MetricFigures {
  double max = 0;
  double min = 0;
  double mean = 0;
  double deviation = 0;

  static MetricFigures of(const vl::Dictionary& metrics, std::string_view key) {
    MetricFigures figures;
    if (const vl::Dictionary* metric = metrics.get(key).asDictionary()) {
      figures.max = numberIn(*metric, kVLTestCaseStatisticMetricMax);
      figures.min = numberIn(*metric, kVLTestCaseStatisticMetricMin);
      figures.mean = numberIn(*metric, kVLTestCaseStatisticMetricMean);
      figures.deviation = numberIn(*metric, kVLTestCaseStatisticMetricStdDeviation);
    }
    return figures;
  }
};

// The keys of a, then the keys of b that a lacks.
std::vector<std::string> unionOfKeys(const vl::Dictionary& a, const vl::Dictionary& b) {
  std::vector<std::string> keys = a.keys();
  for (const std::string& key : b.keys()) {
    if (!a.contains(key)) keys.push_back(key);
  }
  return keys;
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
  std::string text;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) text += separator;
    text += parts[i];
  }
  return text;
}

}  // namespace

std::shared_ptr<VLTestCaseStatistic> VLTestCaseStatistic::make() {
  return std::make_shared<VLTestCaseStatistic>();
}

std::shared_ptr<VLTestCaseStatistic> VLTestCaseStatistic::withTestCaseResult(
    const VLTestCaseResult& result) {
  auto statistic = make();
  statistic->name_ = result.name().value_or("");
  statistic->type_ = result.type();
  statistic->tags_ = result.getTags();
  statistic->instances_ = 1;

  std::optional<std::string> bucket = result.bucket();
  if (result.isHistogram()) {
    if (bucket) statistic->metrics_.set(*bucket, int32_t{1});
    if (statistic->type_ == kVLTestCaseResultTypeTimeHistogram) {
      std::optional<vl::Date> start = result.getStartTime();
      std::optional<vl::Date> end = result.getEndTime();
      statistic->instances_ =
          start && end ? static_cast<uint64_t>(
                             nearest(std::fabs(end->secondsSince1970 - start->secondsSince1970)))
                       : 0;
    }
    return statistic;
  }

  if (result.didPass()) {
    statistic->failureRate_ = 0.0;
    statistic->consecutiveFailures_ = 0;
  } else {
    statistic->failureRate_ = 1.0;
    statistic->consecutiveFailures_ = 1;
    if (std::optional<std::string> reason = result.getFailureReason()) {
      statistic->failures_.set(*reason, 1.0);
    }
  }

  if (statistic->type_ == kVLTestCaseResultTypeAverage && result.didPass()) {
    const vl::Dictionary metrics = result.getMetrics();
    for (size_t i = 0; i < metrics.size(); ++i) {
      auto [key, value] = metrics.entry(i);
      if (!value.isNumber()) continue;
      statistic->metrics_.set(key, vl::Dictionary{{kVLTestCaseStatisticMetricMax, value},
                                                  {kVLTestCaseStatisticMetricMin, value},
                                                  {kVLTestCaseStatisticMetricMean, value},
                                                  {kVLTestCaseStatisticMetricStdDeviation, 0}});
    }
  }
  return statistic;
}

std::shared_ptr<VLTestCaseStatistic> VLTestCaseStatistic::withDictionary(
    const vl::Dictionary& dictionary) {
  auto statistic = make();
  if (const std::string* name = dictionary.get(kVLTestCaseStatisticKeyName).asString()) {
    statistic->name_ = *name;
  }
  if (const vl::Number* instances = dictionary.get(kVLTestCaseStatisticKeyInstances).asNumber()) {
    statistic->instances_ = instances->uint64Value();
  }
  if (const vl::Dictionary* metrics =
          dictionary.get(kVLTestCaseStatisticKeyMetrics).asDictionary()) {
    statistic->metrics_ = *metrics;
  }
  if (const vl::Dictionary* tags = dictionary.get(kVLTestCaseStatisticKeyTags).asDictionary()) {
    statistic->tags_ = *tags;
  }
  if (const vl::Dictionary* failures =
          dictionary.get(kVLTestCaseStatisticKeyFailures).asDictionary()) {
    statistic->failures_ = *failures;
  }
  if (const vl::Number* rate = dictionary.get(kVLTestCaseStatisticKeyFailureRate).asNumber()) {
    statistic->failureRate_ = rate->doubleValue();
  }
  if (const std::string* type = dictionary.get(kVLTestCaseStatisticKeyType).asString()) {
    statistic->type_ = *type;
  }
  return statistic;
}

std::shared_ptr<VLTestCaseStatistic> VLTestCaseStatistic::withCoder(vl::KeyedUnarchiver& coder) {
  auto statistic = make();
  const vl::ClassSet& allowed = VLValidExternalClassesForCoding();
  if (auto name = coder.decodeString(kVLTestCaseStatisticKeyName)) statistic->name_ = *name;
  if (auto instances = coder.decodeNumber(kVLTestCaseStatisticKeyInstances)) {
    statistic->instances_ = instances->uint64Value();
  }
  if (auto metrics = coder.decodeDictionary(kVLTestCaseStatisticKeyMetrics, allowed)) {
    statistic->metrics_ = std::move(*metrics);
  }
  if (auto tags = coder.decodeDictionary(kVLTestCaseStatisticKeyTags, allowed)) {
    statistic->tags_ = std::move(*tags);
  }
  if (auto failures = coder.decodeDictionary(kVLTestCaseStatisticKeyFailures, allowed)) {
    statistic->failures_ = std::move(*failures);
  }
  if (auto rate = coder.decodeNumber(kVLTestCaseStatisticKeyFailureRate)) {
    statistic->failureRate_ = rate->doubleValue();
  }
  statistic->type_ = coder.decodeString(kVLTestCaseStatisticKeyType);
  statistic->consecutiveFailures_ = 0;
  if (coder.failed()) return nullptr;
  return statistic;
}

std::string VLTestCaseStatistic::hashForTestCase(const VLTestCaseResult& result) {
  return result.name().value_or("");
}

bool VLTestCaseStatistic::isHistogram() const {
  return type_ == kVLTestCaseResultTypeTimeHistogram ||
         type_ == kVLTestCaseResultTypeInstanceHistogram;
}

int VLTestCaseStatistic::mergeWithStatistic(const VLTestCaseStatistic& other) {
  if (name_ != other.name_) return kVLTestCaseStatisticMergeNameMismatch;
  if (type_ != other.type_) return kVLTestCaseStatisticMergeTypeMismatch;

  const double countA = static_cast<double>(instances_);
  const double countB = static_cast<double>(other.instances_);

  if (isHistogram()) {
    vl::Dictionary merged;
    for (const std::string& key : unionOfKeys(metrics_, other.metrics_)) {
      double a = numberIn(metrics_, key);
      double b = numberIn(other.metrics_, key);
      merged.set(key, (a * countA + b * countB) / (countA + countB));
    }
    instances_ += other.instances_;
    metrics_ = std::move(merged);
    return kVLTestCaseStatisticMergeSucceeded;
  }

  if (type_ == kVLTestCaseResultTypeAverage && failureRate_ < 1.0 && other.failureRate_ < 1.0 &&
      instances_ != 0 && other.instances_ != 0) {
    std::vector<std::string> mismatched;
    for (const std::string& key : other.metrics_.keys()) {
      if (metrics_.contains(key)) continue;
      VLLog(VLLogLevelError, kLogCategory, "Cannot merge new numeric metric %@", key);
      mismatched.push_back(key);
    }
    for (const std::string& key : metrics_.keys()) {
      if (other.metrics_.contains(key)) continue;
      VLLog(VLLogLevelError, kLogCategory, "Cannot merge since new statistic does not have %@",
            key);
      mismatched.push_back(key);
    }
    if (!mismatched.empty()) {
      VLLog(VLLogLevelError, kLogCategory,
            "Failed to merge statistics because of the following metrics...%@",
            joined(mismatched, ", "));
      return kVLTestCaseStatisticMergeMetricMismatch;
    }
  }

  const double failedA = nearest(failureRate_ * countA);
  const double failedB = nearest(other.failureRate_ * countB);
  const uint64_t previousInstances = instances_;
  instances_ += other.instances_;
  VLLog(VLLogLevelDebug, kMergeLogCategory, "Merging results for '%@' (%d + %d = %d)", name_,
        previousInstances, other.instances_, instances_);

  vl::Dictionary mergedFailures;
  for (const std::string& reason : unionOfKeys(failures_, other.failures_)) {
    double a = numberIn(failures_, reason);
    double b = numberIn(other.failures_, reason);
    mergedFailures.set(reason, (nearest(failedA * a) + nearest(failedB * b)) / (failedA + failedB));
  }
  failures_ = std::move(mergedFailures);
  failureRate_ = (failedA + failedB) / (countA + countB);

  if (type_ != kVLTestCaseResultTypePassFail) {
    const double passedA = countA - failedA;
    const double passedB = countB - failedB;
    const std::vector<std::string>& keys =
        metrics_.empty() ? other.metrics_.keys() : metrics_.keys();
    vl::Dictionary mergedMetrics;
    for (const std::string& key : keys) {
      MetricFigures a = MetricFigures::of(metrics_, key);
      MetricFigures b = MetricFigures::of(other.metrics_, key);
      double min = a.min;
      double max = a.max;
      if (passedA > 0 && passedB > 0) {
        min = std::min(a.min, b.min);
        max = std::max(a.max, b.max);
      } else if (passedB > 0) {
        min = b.min;
        max = b.max;
      }
      double mean = (passedA * a.mean + passedB * b.mean) / (passedA + passedB);
      // The pooled population deviation of the two groups of passing instances.
      double deviation =
          std::sqrt((passedA * (a.deviation * a.deviation + (a.mean - mean) * (a.mean - mean)) +
                     passedB * (b.deviation * b.deviation + (b.mean - mean) * (b.mean - mean))) /
                    (passedA + passedB));
      mergedMetrics.set(key, vl::Dictionary{{kVLTestCaseStatisticMetricMax, max},
                                            {kVLTestCaseStatisticMetricMin, min},
                                            {kVLTestCaseStatisticMetricMean, mean},
                                            {kVLTestCaseStatisticMetricStdDeviation, deviation}});
    }
    metrics_ = std::move(mergedMetrics);
  }
  return kVLTestCaseStatisticMergeSucceeded;
}

std::vector<std::string> VLTestCaseStatistic::metricsOutsideTwoSigma(
    const VLTestCaseStatistic& newStatistic) const {
  std::vector<std::string> reasons;
  if (type_ != kVLTestCaseResultTypeAverage) return reasons;
  if ((1.0 - failureRate_) * static_cast<double>(instances_) <= kTwoSigmaMinimumPassingInstances) {
    return reasons;
  }
  for (const std::string& key : newStatistic.metrics_.keys()) {
    if (!metrics_.contains(key)) continue;
    MetricFigures merged = MetricFigures::of(metrics_, key);
    double newMean = MetricFigures::of(newStatistic.metrics_, key).mean;
    // Only values above the band count, on purpose: a faster or smaller figure is no failure.
    if (newMean > merged.mean + 2 * merged.deviation) {
      reasons.push_back(vl::format("%@ : %@ | Metric outside 2 sigma", name_, key));
    }
  }
  return reasons;
}

vl::Dictionary VLTestCaseStatistic::getDictionaryRepresentation() const {
  vl::Dictionary dictionary;
  dictionary.set(kVLTestCaseStatisticKeyName, name_);
  dictionary.set(kVLTestCaseStatisticKeyInstances, instances_);
  dictionary.set(kVLTestCaseStatisticKeyMetrics, metrics_);
  dictionary.set(kVLTestCaseStatisticKeyFailures, failures_);
  dictionary.set(kVLTestCaseStatisticKeyFailureRate, failureRate_);
  if (type_) dictionary.set(kVLTestCaseStatisticKeyType, *type_);
  dictionary.set(kVLTestCaseStatisticKeyClass, kClassName);
  return dictionary;
}

void VLTestCaseStatistic::encodeWithCoder(vl::KeyedArchiver& coder) const {
  coder.encodeObject(name_, kVLTestCaseStatisticKeyName);
  coder.encodeObject(instances_, kVLTestCaseStatisticKeyInstances);
  coder.encodeObject(metrics_, kVLTestCaseStatisticKeyMetrics);
  coder.encodeObject(tags_, kVLTestCaseStatisticKeyTags);
  coder.encodeObject(failures_, kVLTestCaseStatisticKeyFailures);
  coder.encodeObject(failureRate_, kVLTestCaseStatisticKeyFailureRate);
  coder.encodeObject(type_ ? vl::Value(*type_) : vl::Value(), kVLTestCaseStatisticKeyType);
}

std::string VLTestCaseStatistic::description() const {
  return getDictionaryRepresentation().description();
}

bool VLTestCaseStatistic::isEqual(const vl::Record& other) const {
  const auto* that = dynamic_cast<const VLTestCaseStatistic*>(&other);
  if (!that) return false;
  return name_ == that->name_ && type_ == that->type_ && instances_ == that->instances_ &&
         vl::Value(failureRate_) == vl::Value(that->failureRate_) && metrics_ == that->metrics_ &&
         tags_ == that->tags_ && failures_ == that->failures_;
}
