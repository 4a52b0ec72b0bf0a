#include "vorlund/foundation/format.h"

#include <gtest/gtest.h>

#include "vorlund/foundation/error.h"

namespace vl {
namespace {

TEST(FormatTest, PrintfConversions) {
  EXPECT_EQ(format("%d %ld %zd %u %lu %lld", 1, -2L, size_t{3}, 4u, 5UL, -6LL), "1 -2 3 4 5 -6");
  EXPECT_EQ(format("%02d:%02d", 5, 7), "05:07");
  EXPECT_EQ(format("%f|%.1f|%0.2f", 1.5, 2.25, 3.14159), "1.500000|2.2|3.14");
  EXPECT_EQ(format("%s and %s", "a", std::string("b")), "a and b");
  EXPECT_EQ(format("100%% done"), "100% done");
  EXPECT_EQ(format("%x %X", 255, 255), "ff FF");
  EXPECT_EQ(format("%u", -1), "4294967295");
  EXPECT_EQ(format("%-5s|", "ab"), "ab   |");
}

TEST(FormatTest, ObjectPlaceholderPrintsDescriptions) {
  EXPECT_EQ(format("[%@] %@", "Results", "line"), "[Results] line");
  EXPECT_EQ(format("%@", Value(Array{1, "two"})), "(\n    1,\n    two\n)");
  EXPECT_EQ(format("%@", Value()), "(null)");
  EXPECT_EQ(format("%@", nullptr), "(null)");
  EXPECT_EQ(format("%@ items", 3), "3 items");
  EXPECT_EQ(format("%@", Error::withDescription("D", 1, "bad")).substr(0, 22), "Error Domain=D Code=1 ");
}

TEST(FormatTest, MismatchedOrMissingArgumentsNeverCrash) {
  EXPECT_EQ(format("%d", "text"), "text");
  EXPECT_EQ(format("%s", 42), "42");
  EXPECT_EQ(format("%d %d", 1), "1 (null)");
  EXPECT_EQ(format("%d", 2.9), "2");
  EXPECT_EQ(format("%.1f", 3), "3.0");
  EXPECT_EQ(format("trailing %"), "trailing %");
  EXPECT_EQ(format("%k unknown", 1), "%k unknown");
  // An absurd width is clamped rather than allocating gigabytes.
  EXPECT_LE(format("%999999999d", 1).size(), 10000u);
}

TEST(FormatTest, NumberValuesUseNumericConversions) {
  EXPECT_EQ(format("%d", Value(7)), "7");
  EXPECT_EQ(format("%.2f", Value(1.005)), "1.00");
  EXPECT_EQ(format("%@", Number(2.5)), "2.5");
}

}  // namespace
}  // namespace vl
