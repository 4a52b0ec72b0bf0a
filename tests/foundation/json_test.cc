#include "vorlund/foundation/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace vl {
namespace {

class Sample : public Record {
 public:
  explicit Sample(std::string name, Value child = Value())
      : name_(std::move(name)), child_(child) {}
  std::string className() const override { return "VLSample"; }
  Dictionary dictionaryRepresentation() const override {
    Dictionary d{{"Name", Value(name_)}};
    if (!child_.isNone()) d.set("Child", child_);
    return d;
  }

 private:
  std::string name_;
  Value child_;
};

TEST(JsonTest, StrictWritingKeepsNumberTypesAndRefusesWhatJsonCannotHold) {
  EXPECT_EQ(json::serialize(Value(Dictionary{{"float", 0.1f}, {"text", "quote \" and é"}}), false),
            "{\"float\":0.1,\"text\":\"quote \\\" and é\"}");
  EXPECT_EQ(json::serialize(Value(Dictionary{{"a", Array{1}}}), true),
            "{\n  \"a\": [\n    1\n  ]\n}");
  for (const Value& value :
       {Value(Array{Date{0}}), Value(Dictionary{{"d", Data::fromString("x")}}),
        Value(Array{Uuid()}), Value(Array{std::make_shared<Sample>("s")}),
        Value(Array{std::nan("")}), Value(Array{std::numeric_limits<double>::infinity()}),
        Value("alone"), Value(5), Value(), Value(Array{std::string("\xff\xfe")})}) {
    Error error;
    EXPECT_FALSE(json::serialize(value, false, true, &error)) << value.description();
    EXPECT_EQ(error.domain, json::kErrorDomain);
  }
  // Without the fragments rule, scalars are written alone.
  EXPECT_EQ(json::serialize(Value("alone"), false, false), "\"alone\"");
  EXPECT_EQ(json::serialize(Value(), false, false), "null");
}

TEST(JsonTest, DisplayWritesEverything) {
  auto child = std::make_shared<Sample>("inner");
  Dictionary d{{"when", Date{1769847302}},
               {"precise", Date{1769847302.25}},
               {"bytes", Data(std::vector<uint8_t>{0, 1, 2, 0xff})},
               {"id", *Uuid::fromString("00112233-4455-6677-8899-aabbccddeeff")},
               {"record", std::make_shared<Sample>("outer", Array{child})},
               {"nan", std::nan("")}};
  std::optional<Value> back = json::parse(json::displayString(Value(d)));
  ASSERT_TRUE(back);
  const Dictionary nested{{"$class", "VLSample"}, {"Name", "inner"}};
  EXPECT_EQ(*back, Value(Dictionary{{"when", "2026-01-31T08:15:02Z"},
                                    {"precise", "2026-01-31T08:15:02.250Z"},
                                    {"bytes", "AAEC/w=="},
                                    {"id", "00112233-4455-6677-8899-AABBCCDDEEFF"},
                                    {"record", Dictionary{{"$class", "VLSample"},
                                                          {"Name", "outer"},
                                                          {"Child", Array{nested}}}},
                                    {"nan", "nan"}}));

  // Scalars and broken strings display too.
  EXPECT_FALSE(json::displayString(Value(std::string("bad \xff byte"))).empty());
  EXPECT_EQ(json::displayString(Value(Data::fromString("ab"))), "\"YWI=\"");
  EXPECT_EQ(json::displayString(Value(Data::fromString("abc"))), "\"YWJj\"");
}

TEST(JsonTest, ParsingKeepsTypesAndOrderAndRefusesMalformedOrDeepText) {
  const std::string text =
      R"({"b":[1,-2,18446744073709551615,1.5,2.0,true,null,"s"],"a":{},"c":"é"})";
  std::optional<Value> value = json::parse(text);
  ASSERT_TRUE(value);
  std::string codes;
  for (const Value& item : *value->asDictionary()->get("b").asArray()) {
    codes += item.asNumber() ? item.asNumber()->typeCode() : '-';
  }
  EXPECT_EQ(codes, "qqQddB--");
  EXPECT_EQ(json::serialize(*value, false), text);
  EXPECT_EQ(json::parse("42"), Value(int64_t{42}));

  for (const std::string text : {"", "[1] x", "{'a': 1}", "[\"\xff\"]"}) {
    Error error;
    EXPECT_FALSE(json::parse(text, &error)) << text;
    EXPECT_EQ(error.domain, json::kErrorDomain) << text;
  }
  Error error;
  EXPECT_FALSE(json::parse(std::string(100000, '[') + std::string(100000, ']'), &error));
  EXPECT_NE(error.localizedDescription().find("nested more than 512"), std::string::npos);
  EXPECT_TRUE(json::parse(std::string(500, '[') + std::string(500, ']')));
}

}  // namespace
}  // namespace vl
