#include "vorlund/conversion/random_interval.h"

#include <cstdio>
#include <cstdlib>
#include <random>

double VLGetRandomInterval(int32_t upper, int32_t lower) {
  if (upper == lower) return upper;
  if (upper < lower) {
    // A real assertion in every build: a caller that swaps the bounds has a bug to fix.
    std::fprintf(stderr,
                 "Assertion failed: VLGetRandomInterval: the upper bound (%d) must be greater than "
                 "the lower bound (%d); pass the upper bound first\n",
                 upper, lower);
    std::abort();
  }
  thread_local std::mt19937 generator{std::random_device{}()};
  // The span of two 32-bit bounds needs 33 bits. A 32-bit random number modulo the span, so the
  // upper bound itself is never returned.
  auto span = static_cast<uint64_t>(static_cast<int64_t>(upper) - lower);
  uint64_t draw = static_cast<uint32_t>(generator()) % span;
  return static_cast<double>(static_cast<int64_t>(draw) + lower);
}
