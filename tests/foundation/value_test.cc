#include "vorlund/foundation/value.h"

#include <gtest/gtest.h>

#include <cmath>

#include "vorlund/foundation/error.h"

namespace vl {
namespace {

TEST(NumberTest, KeepsTypeCodesAndComparesNumerically) {
  std::string codes;
  for (const Number& n : {Number(true), Number(int32_t{3}), Number(int64_t{3}), Number(uint64_t{3}),
                          Number(2.5), Number(2.5f), Number::withChar(1), Number::withShort(1),
                          Number::withLong(1)}) {
    codes += n.typeCode();
  }
  EXPECT_EQ(codes, "BiqQdfcsl");

  EXPECT_EQ(Number(1), Number(1.0));
  EXPECT_EQ(Number(true), Number(int64_t{1}));
  EXPECT_FALSE(Number(int64_t{-1}) == Number(UINT64_MAX));
  EXPECT_LT(Number(int64_t{-1}).compare(Number(uint64_t{0})), 0);
  EXPECT_GT(Number(UINT64_MAX).compare(Number(INT64_MAX)), 0);
  EXPECT_LT(Number(1.5).compare(Number(2)), 0);
}

TEST(NumberTest, ConversionsSaturateInsteadOfOverflowing) {
  EXPECT_EQ(Number(1e300).int64Value(), INT64_MAX);
  EXPECT_EQ(Number(-1e300).int64Value(), INT64_MIN);
  EXPECT_EQ(Number(std::nan("")).int64Value(), 0);
  EXPECT_EQ(Number(2.9).int64Value(), 2);
}

TEST(NumberTest, DescriptionIsShortestText) {
  EXPECT_EQ(Number(true).description(), "1");
  EXPECT_EQ(Number(int64_t{-3}).description(), "-3");
  EXPECT_EQ(Number(0.5).description(), "0.5");
  EXPECT_EQ(Number(2.0).description(), "2");
  EXPECT_EQ(Number(0.1f).description(), "0.1");
  EXPECT_EQ(Number(UINT64_MAX).description(), "18446744073709551615");
}

TEST(DictionaryTest, KeepsInsertionOrderThroughSetAndErase) {
  Dictionary d{{"b", 1}, {"a", 2}, {"c", 3}};
  d.set("a", 20);  // an existing key keeps its place
  d.set("d", 4);
  EXPECT_EQ(d.keys(), (std::vector<std::string>{"b", "a", "c", "d"}));
  EXPECT_TRUE(d.erase("a"));
  EXPECT_FALSE(d.erase("a"));
  EXPECT_EQ(d.keys(), (std::vector<std::string>{"b", "c", "d"}));
  // Lookup still works for every key after the indices shifted.
  EXPECT_EQ(d.get("c"), Value(3));
  EXPECT_EQ(d.get("d"), Value(4));
  EXPECT_TRUE(d.get("missing").isNone());
}

TEST(DictionaryTest, EqualityIgnoresOrderButNotContent) {
  Dictionary a{{"x", 1}, {"y", "two"}};
  Dictionary b{{"y", "two"}, {"x", 1.0}};
  EXPECT_EQ(a, b);
  b.set("x", 2);
  EXPECT_FALSE(a == b);
  EXPECT_FALSE((a == Dictionary{{"x", 1}}));
}

TEST(ValueTest, CollectionsAreCopiedByValue) {
  Array inner{1, 2};
  Dictionary d{{"list", inner}};
  Value copy = d;
  copy.asDictionary()->find("list")->asArray()->push_back(3);
  EXPECT_EQ(d.get("list").asArray()->size(), 2u);
  EXPECT_EQ(copy.asDictionary()->get("list").asArray()->size(), 3u);
}

class SampleRecord : public Record {
 public:
  explicit SampleRecord(int id) : id_(id) {}
  std::string className() const override { return "SampleRecord"; }
  bool isEqual(const Record& other) const override {
    auto* o = dynamic_cast<const SampleRecord*>(&other);
    return o && o->id_ == id_;
  }

 private:
  int id_;
};

TEST(ValueTest, RecordsCompareThroughIsEqualAndDowncast) {
  Value a = std::make_shared<SampleRecord>(1);
  Value b = std::make_shared<SampleRecord>(1);
  Value c = std::make_shared<SampleRecord>(2);
  EXPECT_EQ(a, b);
  EXPECT_FALSE(a == c);
  EXPECT_NE(a.record<SampleRecord>(), nullptr);
  EXPECT_EQ(Value("text").record<SampleRecord>(), nullptr);
  EXPECT_EQ(a.className(), "SampleRecord");
  Value none = std::shared_ptr<SampleRecord>();
  EXPECT_TRUE(none.isNone());
}

TEST(ValueTest, DescriptionIsTheTextPropertyListForm) {
  Dictionary d{{"Name", "Ping Test"}, {"Count", 3}, {"Tags", Array{"a", "b c"}}, {"Empty", Dictionary{}}};
  EXPECT_EQ(Value(d).description(),
            "{\n"
            "    Name = \"Ping Test\";\n"
            "    Count = 3;\n"
            "    Tags = (\n"
            "        a,\n"
            "        \"b c\"\n"
            "    );\n"
            "    Empty = {\n"
            "    };\n"
            "}");
  EXPECT_EQ(Value("plain string").description(), "plain string");
  EXPECT_EQ(Value().description(), "(null)");
  EXPECT_EQ(Value(Data(std::vector<uint8_t>{1, 2, 3, 4, 255})).description(), "<01020304 ff>");
  EXPECT_EQ(Value(Date{0}).description(), "1970-01-01 00:00:00 +0000");
}

TEST(UuidTest, CanonicalUpperCaseRoundTrip) {
  Uuid u = Uuid::random();
  std::string text = u.string();
  ASSERT_EQ(text.size(), 36u);
  EXPECT_EQ(text.find_first_of("abcdef"), std::string::npos) << text;
  EXPECT_EQ(Uuid::fromString(text), u);
  std::string lower = text;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_EQ(Uuid::fromString(lower), u);
  EXPECT_FALSE(Uuid::fromString("not-a-uuid").has_value());
  EXPECT_FALSE(Uuid::random() == u);
}

TEST(ErrorTest, DescriptionCarriesDomainCodeAndUserInfo) {
  Error e = Error::withDescription("VLErrorDomain", -1, "Keys missing");
  EXPECT_EQ(e.localizedDescription(), "Keys missing");
  EXPECT_NE(e.description().find("Error Domain=VLErrorDomain Code=-1 \"Keys missing\""), std::string::npos);
  Error bare{"D", 7, {}};
  EXPECT_EQ(bare.localizedDescription(), "The operation couldn't be completed. (D error 7.)");
}

}  // namespace
}  // namespace vl
