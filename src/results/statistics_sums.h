// The sums beneath the statistics functions (results/statistics.h). Each sums in index order from
// 0.0; an empty array sums to 0.0. Not part of the public interface.
#pragma once

#include "vorlund/foundation/value.h"

namespace vl {

// The sum of the elements.
double _sumValues(const Array& values);
// The sum of the squares of the elements.
double _squareAndSum(const Array& values);
// The sum of the products of same-index elements. Arrays of different lengths stop the process with
// an assertion failure naming "x.count == y.count".
double _multiplyAndSum(const Array& x, const Array& y);

}  // namespace vl
