#include "vorlund/foundation/value.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/format.h"

namespace vl {
namespace {

TEST(NumberTest, KeepsTypeCodesComparesNumericallyAndSaturates) {
  std::string codes;
  for (const Number& n :
       {Number(true), Number(int32_t{3}), Number(int64_t{3}), Number(uint64_t{3}), Number(2.5),
        Number(2.5f), Number::withChar(1), Number::withShort(1), Number::withLong(1)}) {
    codes += n.typeCode();
  }
  EXPECT_EQ(codes, "BiqQdfcsl");

  EXPECT_EQ(Number(1), Number(1.0));
  EXPECT_FALSE(Number(int64_t{-1}) == Number(UINT64_MAX));
  EXPECT_LT(Number(int64_t{-1}).compare(Number(uint64_t{0})), 0);
  EXPECT_GT(Number(UINT64_MAX).compare(Number(INT64_MAX)), 0);
  EXPECT_LT(Number(1.5).compare(Number(2)), 0);

  EXPECT_EQ(Number(1e300).int64Value(), INT64_MAX);
  EXPECT_EQ(Number(-1e300).int64Value(), INT64_MIN);
  EXPECT_EQ(Number(std::nan("")).int64Value(), 0);
  EXPECT_EQ(Number(2.9).int64Value(), 2);
}

TEST(ValueTest, DescriptionsAreTheTextPropertyListForm) {
  Dictionary d{
      {"Name", "Ping Test"}, {"Count", 3}, {"Tags", Array{"a", "b c"}}, {"Empty", Dictionary{}}};
  EXPECT_EQ(Value(d).description(),
            "{\n    Name = \"Ping Test\";\n    Count = 3;\n    Tags = (\n        a,\n"
            "        \"b c\"\n    );\n    Empty = {\n    };\n}");
  EXPECT_EQ((Error{"D", 7, {}}).localizedDescription(),
            "The operation couldn't be completed. (D error 7.)");
}

// A dictionary searched in order while small and through its index once grown keeps the same
// contents, order and lookups as a plain model across sets, replacements and erasures, on both
// sides of the size where the index is built.
TEST(DictionaryTest, LookupsOrderAndErasureAgreeWithAModelAtEverySize) {
  Dictionary dictionary;
  std::vector<std::pair<std::string, int64_t>> model;
  auto check = [&] {
    ASSERT_EQ(dictionary.size(), model.size());
    for (size_t i = 0; i < model.size(); ++i) {
      EXPECT_EQ(dictionary.keys()[i], model[i].first);
      const Value* found = dictionary.find(model[i].first);
      ASSERT_NE(found, nullptr) << model[i].first;
      EXPECT_EQ(found->int64Or(-1), model[i].second);
    }
    EXPECT_EQ(dictionary.find("absent"), nullptr);
  };
  for (int64_t round = 0; round < 3; ++round) {
    for (int64_t i = 0; i < 40; ++i) {
      std::string key = "k" + std::to_string(i % 25);
      dictionary.set(key, Value(i + round * 100));
      auto at = std::find_if(model.begin(), model.end(), [&](auto& e) { return e.first == key; });
      if (at == model.end()) {
        model.emplace_back(key, i + round * 100);
      } else {
        at->second = i + round * 100;
      }
      check();
    }
    // Erasing through a view of the stored key itself, from the front, middle and back.
    for (int end = 0; end < 3; ++end) {
      const size_t position = end == 0 ? 0 : end == 1 ? model.size() / 2 : model.size() - 1;
      EXPECT_TRUE(dictionary.erase(dictionary.keys()[position]));
      model.erase(model.begin() + static_cast<std::ptrdiff_t>(position));
      check();
    }
    EXPECT_FALSE(dictionary.erase("absent"));
  }
  Dictionary copy = dictionary;
  EXPECT_EQ(copy, dictionary);
}

TEST(FormatTest, PrintfConversionsObjectPlaceholdersAndMismatchedArguments) {
  EXPECT_EQ(format("%d %ld %zd %u %lu %lld", 1, -2L, size_t{3}, 4u, 5UL, -6LL), "1 -2 3 4 5 -6");
  EXPECT_EQ(format("%02d:%02d|%-5s|", 5, 7, "ab"), "05:07|ab   |");
  EXPECT_EQ(format("%f|%.1f|%0.2f", 1.5, 2.25, 3.14159), "1.500000|2.2|3.14");
  EXPECT_EQ(format("%s and %s, 100%% done", "a", std::string("b")), "a and b, 100% done");
  EXPECT_EQ(format("%x %X %u", 255, 255, -1), "ff FF 4294967295");
  EXPECT_EQ(format("[%@] %@", "Results", "line"), "[Results] line");
  EXPECT_EQ(format("%@", Value(Array{1, "two"})), "(\n    1,\n    two\n)");
  EXPECT_EQ(format("%@ %@ %@ items", Value(), nullptr, 3), "(null) (null) 3 items");
  EXPECT_EQ(format("%@", Error::withDescription("D", 1, "bad")).substr(0, 22),
            "Error Domain=D Code=1 ");
  EXPECT_EQ(format("%d|%.2f|%@", Value(7), Value(1.005), Number(2.5)), "7|1.00|2.5");

  // Mismatched or missing arguments never crash.
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

}  // namespace
}  // namespace vl
