// Statistics over series of measurements (throughput samples, latencies) that test bundles reduce
// to single figures before storing them as metrics of a VLTestCaseResult.
//
// Every function takes an array of numbers and reads each element as a double; an element that is
// not a number reads as 0.0. None of them changes its input, and none caches anything: the median
// and the quartiles sort a fresh copy on every call.
#pragma once

#include "vorlund/foundation/value.h"

// The arithmetic mean: sum ÷ count. An empty array gives 0 ÷ 0, not a number.
double VLMean(const vl::Array& values);

// The population variance, (sum of squares ÷ count) − mean². An empty array gives not a number.
double VLVariance(const vl::Array& values);

// The square root of VLVariance.
double VLStandardDeviation(const vl::Array& values);

// The largest or smallest element by the numbers' own comparison; 0.0 for an empty array.
double VLMax(const vl::Array& values);
double VLMin(const vl::Array& values);

// The least-squares slope of y on x: (Sxy − Sx·Sy/n) ÷ (Sxx − Sx²/n). Not a number or infinite
// when every x is equal. Arrays of different lengths are a programming error: the process stops
// with an assertion failure naming "xValues.count == yValues.count".
double VLBestFitSlope(const vl::Array& xValues, const vl::Array& yValues);

// The median of a sorted copy: the middle element for an odd count, the mean of the two middle
// elements for an even count. An empty array is logged at error level ("Results") and gives 0.0.
double VLMedian(const vl::Array& values);

// The median of the lower (upper) half of a sorted copy; for an odd count the middle element
// belongs to neither half. Fewer than 10 elements are logged at error level ("Results") and give
// -1.0.
double VLLowerQuartileCutoff(const vl::Array& values);
double VLUpperQuartileCutoff(const vl::Array& values);

// Upper cutoff − lower cutoff. Fewer than 10 elements are logged at error level and give -1.0.
double VLInterQuartileRange(const vl::Array& values);

// Whether value lies more than one interquartile range below the lower cutoff or above the upper
// cutoff of data (a value exactly on a fence is not an outlier). Fewer than 50 elements are logged
// at error level and give false.
bool VLIsOutlier(const vl::Array& data, const vl::Number& value);
