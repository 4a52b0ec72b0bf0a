// A random whole number of seconds between two bounds, for spreading out test timing.
#pragma once

#include <cstdint>

// A uniformly random whole number in [lower, upper), as a double; lower itself when both bounds are
// equal. The upper bound comes first: when it is below the lower one the process stops with an
// assertion failure (in every build type), since the caller has swapped the arguments.
double VLGetRandomInterval(int32_t upper, int32_t lower);
