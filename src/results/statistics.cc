#include "vorlund/results/statistics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "results/statistics_sums.h"
#include "vorlund/foundation/format.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kLogCategory = "Results";
constexpr size_t kMinimumForQuartiles = 10;
constexpr size_t kMinimumForOutliers = 50;

// Stops the process: a mismatched pair of arrays is a caller's bug, not bad data. Kept active in
// every build type, unlike assert().
[[noreturn]] void assertionFailure(const char* expression, const char* function, int line) {
  std::string message =
      vl::format("*** Assertion failure in %s(), VLMath:%d: Invalid parameter not satisfying: %s",
                 function, line, expression);
  std::fprintf(stderr, "%s\n", message.c_str());
  std::fflush(stderr);
  VLLog(VLLogLevelFatal, kLogCategory, "%s", message);
  std::abort();
}

vl::Number numberAt(const vl::Value& element) {
  if (const vl::Number* number = element.asNumber()) return *number;
  return vl::Number(0.0);
}

// The numbers' own order, with not-a-number after everything else so that sorting stays well
// defined.
bool numberLess(const vl::Number& a, const vl::Number& b) {
  bool aNan = std::isnan(a.doubleValue());
  bool bNan = std::isnan(b.doubleValue());
  if (aNan || bNan) return !aNan && bNan;
  return a.compare(b) < 0;
}

std::vector<vl::Number> sortedCopy(const vl::Array& values) {
  std::vector<vl::Number> sorted;
  sorted.reserve(values.size());
  for (const vl::Value& element : values) sorted.push_back(numberAt(element));
  std::sort(sorted.begin(), sorted.end(), numberLess);
  return sorted;
}

// The median of sorted[begin, begin + count); count is at least 1.
double medianOfSorted(const std::vector<vl::Number>& sorted, size_t begin, size_t count) {
  if (count % 2 == 1) return sorted[begin + count / 2].doubleValue();
  return (sorted[begin + count / 2].doubleValue() + sorted[begin + count / 2 - 1].doubleValue()) *
         0.5;
}

}  // namespace

namespace vl {

double _sumValues(const Array& values) {
  double sum = 0.0;
  for (const Value& element : values) sum += numberAt(element).doubleValue();
  return sum;
}

double _squareAndSum(const Array& values) {
  double sum = 0.0;
  for (const Value& element : values) {
    double v = numberAt(element).doubleValue();
    sum += v * v;
  }
  return sum;
}

double _multiplyAndSum(const Array& x, const Array& y) {
  if (x.size() != y.size()) assertionFailure("x.count == y.count", "_multiplyAndSum", __LINE__);
  double sum = 0.0;
  for (size_t i = 0; i < x.size(); ++i) {
    sum += numberAt(x[i]).doubleValue() * numberAt(y[i]).doubleValue();
  }
  return sum;
}

}  // namespace vl

double VLMean(const vl::Array& values) {
  return vl::_sumValues(values) / static_cast<double>(values.size());
}

double VLVariance(const vl::Array& values) {
  double mean = VLMean(values);
  return vl::_squareAndSum(values) / static_cast<double>(values.size()) - mean * mean;
}

double VLStandardDeviation(const vl::Array& values) { return std::sqrt(VLVariance(values)); }

double VLMax(const vl::Array& values) {
  if (values.empty()) return 0.0;
  vl::Number best = numberAt(values[0]);
  for (const vl::Value& element : values) {
    vl::Number n = numberAt(element);
    if (numberLess(best, n)) best = n;
  }
  return best.doubleValue();
}

double VLMin(const vl::Array& values) {
  if (values.empty()) return 0.0;
  vl::Number best = numberAt(values[0]);
  for (const vl::Value& element : values) {
    vl::Number n = numberAt(element);
    if (numberLess(n, best)) best = n;
  }
  return best.doubleValue();
}

double VLBestFitSlope(const vl::Array& xValues, const vl::Array& yValues) {
  if (xValues.size() != yValues.size()) {
    assertionFailure("xValues.count == yValues.count", "VLBestFitSlope", __LINE__);
  }
  double n = static_cast<double>(xValues.size());
  double sxy = vl::_multiplyAndSum(xValues, yValues);
  double sx = vl::_sumValues(xValues);
  double sy = vl::_sumValues(yValues);
  double sxx = vl::_squareAndSum(xValues);
  return (sxy - sx * sy / n) / (sxx - sx * sx / n);
}

double VLMedian(const vl::Array& values) {
  if (values.empty()) {
    VLLog(VLLogLevelError, kLogCategory, "No data provided, cannot calculate median...%@", values);
    return 0.0;
  }
  std::vector<vl::Number> sorted = sortedCopy(values);
  return medianOfSorted(sorted, 0, sorted.size());
}

double VLLowerQuartileCutoff(const vl::Array& values) {
  if (values.size() < kMinimumForQuartiles) {
    VLLog(VLLogLevelError, kLogCategory, "Unable to calculate quartiles for data set less than %d",
          static_cast<int>(kMinimumForQuartiles));
    return -1.0;
  }
  std::vector<vl::Number> sorted = sortedCopy(values);
  return medianOfSorted(sorted, 0, sorted.size() / 2);
}

double VLUpperQuartileCutoff(const vl::Array& values) {
  if (values.size() < kMinimumForQuartiles) {
    VLLog(VLLogLevelError, kLogCategory, "Unable to calculate quartiles for data set less than %d",
          static_cast<int>(kMinimumForQuartiles));
    return -1.0;
  }
  std::vector<vl::Number> sorted = sortedCopy(values);
  size_t n = sorted.size();
  // For an odd count the middle element is skipped.
  size_t begin = n % 2 == 1 ? n / 2 + 1 : n / 2;
  return medianOfSorted(sorted, begin, n / 2);
}

double VLInterQuartileRange(const vl::Array& values) {
  if (values.size() < kMinimumForQuartiles) {
    VLLog(VLLogLevelError, kLogCategory, "Unable to calculate IQR for data set less than %d...",
          static_cast<int>(kMinimumForQuartiles));
    return -1.0;
  }
  return VLUpperQuartileCutoff(values) - VLLowerQuartileCutoff(values);
}

bool VLIsOutlier(const vl::Array& data, const vl::Number& value) {
  if (data.size() < kMinimumForOutliers) {
    VLLog(VLLogLevelError, kLogCategory,
          "Unable to calculate outliers for data set less than %d...",
          static_cast<int>(kMinimumForOutliers));
    return false;
  }
  double lower = VLLowerQuartileCutoff(data);
  double upper = VLUpperQuartileCutoff(data);
  double range = upper - lower;
  // The fence is one whole interquartile range from each cutoff, on purpose (not 1.5 ranges).
  double v = value.doubleValue();
  return v > upper + range || v < lower - range;
}
