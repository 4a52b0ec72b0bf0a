#include "vorlund/results/statistics.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "results/statistics_sums.h"
#include "vorlund/logging/log_capture.h"

namespace {

using vl::Array;
using vl::Number;

Array numbers(std::initializer_list<double> values) {
  Array array;
  for (double v : values) array.push_back(v);
  return array;
}

// The integers first..last, as int64 numbers.
Array range(int64_t first, int64_t last) {
  Array array;
  for (int64_t v = first; v <= last; ++v) array.push_back(v);
  return array;
}

TEST(StatisticsTest, SeriesFiguresAndEdgeSeries) {
  struct SeriesCase {
    const char* label;
    Array values;
    double mean, variance, max, min, median;
  };
  const std::vector<SeriesCase> cases = {
      // The population variance (the sample variance would be 1).
      {"odd count, unsorted", numbers({3, 1, 2}), 2.0, 2.0 / 3.0, 3.0, 1.0, 2.0},
      {"even count, negative", numbers({-1.5, 0.5, 2.5, -3.5}), -0.5, 5.0, 2.5, -3.5, -0.5},
      {"mixed type codes", Array{Number(true), int32_t{3}, 2.0f, int64_t{-2}}, 1.0, 3.5, 3.0, -2.0,
       1.5},
  };
  for (const SeriesCase& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_DOUBLE_EQ(VLMean(c.values), c.mean);
    EXPECT_NEAR(VLVariance(c.values), c.variance, 1e-12);
    EXPECT_NEAR(VLStandardDeviation(c.values), std::sqrt(c.variance), 1e-12);
    EXPECT_DOUBLE_EQ(VLMax(c.values), c.max);
    EXPECT_DOUBLE_EQ(VLMin(c.values), c.min);
    EXPECT_DOUBLE_EQ(VLMedian(c.values), c.median);
  }

  vl::LogCapture capture;
  EXPECT_TRUE(std::isnan(VLMean(Array{})) && std::isnan(VLVariance(Array{})) &&
              std::isnan(VLStandardDeviation(Array{})));
  EXPECT_EQ(VLMax(Array{}) + VLMin(Array{}) + VLMedian(Array{}), 0.0);
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Results",
                               "No data provided, cannot calculate median...(\n)"));
  // Read as doubles the first two are equal; the numbers' own comparison tells them apart.
  const int64_t big = (int64_t{1} << 53) + 1;
  EXPECT_EQ(VLMax(Array{int64_t{1} << 53, big, int64_t{5}}), static_cast<double>(big));
  // Elements that are not numbers read as zero.
  Array odd{"ten", 4.0, vl::Value()};
  EXPECT_DOUBLE_EQ(VLMean(odd), 4.0 / 3.0);
  EXPECT_EQ(VLMin(odd), 0.0);
  // The input is never sorted in place.
  Array values = numbers({5, 3, 9, 1, 7, 2, 8, 4, 6, 10, 0});
  const Array before = values;
  VLMedian(values);
  VLLowerQuartileCutoff(values);
  VLIsOutlier(values, Number(3.0));
  EXPECT_EQ(values, before);
}

TEST(StatisticsTest, QuartilesOutliersAndSlopes) {
  struct QuartileCase {
    const char* label;
    Array values;
    double lower;
    double upper;
  };
  const std::vector<QuartileCase> cases = {
      {"1..10", range(1, 10), 3.0, 8.0},
      {"1..11, middle element in neither half", range(1, 11), 3.0, 9.0},
      {"1..12, halves of even count", range(1, 12), 3.5, 9.5},
      {"unsorted", numbers({10, 1, 9, 2, 8, 3, 7, 4, 6, 5}), 3.0, 8.0},
  };
  for (const QuartileCase& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_DOUBLE_EQ(VLLowerQuartileCutoff(c.values), c.lower);
    EXPECT_DOUBLE_EQ(VLUpperQuartileCutoff(c.values), c.upper);
    EXPECT_DOUBLE_EQ(VLInterQuartileRange(c.values), c.upper - c.lower);
  }
  // 1..50: L = 13, U = 38, R = 25, so the fences are -12 and 63 (1.5 ranges would give 75.5).
  for (auto [value, outlier] :
       {std::pair{63.0, false}, {63.5, true}, {-12.0, false}, {-12.5, true}})
    EXPECT_EQ(VLIsOutlier(range(1, 50), Number(value)), outlier) << value;

  EXPECT_DOUBLE_EQ(VLBestFitSlope(numbers({0, 1, 2, 3}), numbers({5, 4.5, 4, 3.5})), -0.5);
  // Sxy = 22, Sx = 6, Sy = 9, Sxx = 14, n = 3: (22 - 18) / (14 - 12) = 2.
  EXPECT_DOUBLE_EQ(VLBestFitSlope(numbers({1, 2, 3}), numbers({2, 1, 6})), 2.0);
  // Every x equal: the denominator is zero and the arithmetic is left to stand.
  EXPECT_FALSE(std::isfinite(VLBestFitSlope(numbers({2, 2, 2}), numbers({1, 2, 3}))));
}

TEST(StatisticsTest, QuartilesNeedTenElementsAndOutliersFifty) {
  vl::LogCapture capture;
  const Array nine = range(1, 9);
  EXPECT_EQ(VLLowerQuartileCutoff(nine), -1.0);
  EXPECT_EQ(VLUpperQuartileCutoff(nine) + VLInterQuartileRange(nine), -2.0);
  EXPECT_EQ(capture.count("Unable to calculate quartiles for data set less than 10"), 2u);
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Results",
                               "Unable to calculate IQR for data set less than 10..."));
  EXPECT_FALSE(VLIsOutlier(range(1, 49), Number(1e9)));
  EXPECT_EQ(capture.find("Unable to calculate outliers for data set less than 50...").size(), 1u);
}

TEST(StatisticsDeathTest, MismatchedArraysStopTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(VLBestFitSlope(numbers({1, 2, 3}), numbers({1, 2})),
               "Assertion failure in VLBestFitSlope\\(\\), VLMath:[0-9]+: .*"
               "xValues\\.count == yValues\\.count");
  EXPECT_DEATH(
      vl::_multiplyAndSum(numbers({1}), Array{}),
      "Assertion failure in _multiplyAndSum\\(\\), VLMath:[0-9]+: .*x\\.count == y\\.count");
}

}  // namespace
