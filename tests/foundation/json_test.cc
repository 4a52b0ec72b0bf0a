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

TEST(JsonTest, StrictWritingKeepsOrderAndNumberTypes) {
  Dictionary d{{"zeta", Value(int64_t{1})},
               {"alpha", Value(true)},
               {"whole", Value(2.0)},
               {"float", Value(0.1f)},
               {"negative", Value(int64_t{-7})},
               {"huge", Value(std::numeric_limits<uint64_t>::max())},
               {"list", Value(Array{Value("x"), Value(), Value(false)})},
               {"text", Value("quote \" and é")}};
  std::optional<std::string> text = json::serialize(Value(d), false);
  ASSERT_TRUE(text);
  EXPECT_EQ(*text,
            "{\"zeta\":1,\"alpha\":true,\"whole\":2.0,\"float\":0.1,\"negative\":-7,"
            "\"huge\":18446744073709551615,\"list\":[\"x\",null,false],"
            "\"text\":\"quote \\\" and é\"}");

  std::optional<std::string> pretty =
      json::serialize(Value(Dictionary{{"a", Value(Array{Value(int32_t{1})})}}), true);
  ASSERT_TRUE(pretty);
  EXPECT_EQ(*pretty, "{\n  \"a\": [\n    1\n  ]\n}");
}

TEST(JsonTest, StrictWritingRefusesWhatJsonCannotHold) {
  const std::pair<const char*, Value> refused[] = {
      {"date", Value(Array{Value(Date{0})})},
      {"data", Value(Dictionary{{"d", Value(Data::fromString("x"))}})},
      {"uuid", Value(Array{Value(Uuid())})},
      {"record", Value(Array{Value(std::make_shared<Sample>("s"))})},
      {"NaN", Value(Array{Value(std::nan(""))})},
      {"infinity", Value(Array{Value(std::numeric_limits<double>::infinity())})},
      {"top-level string", Value("alone")},
      {"top-level number", Value(int32_t{5})},
      {"top-level none", Value()},
      {"invalid UTF-8", Value(Array{Value(std::string("\xff\xfe"))})},
  };
  for (const auto& [what, value] : refused) {
    Error error;
    EXPECT_FALSE(json::serialize(value, false, true, &error)) << what;
    EXPECT_EQ(error.domain, json::kErrorDomain) << what;
    EXPECT_FALSE(error.localizedDescription().empty()) << what;
  }
  EXPECT_EQ(json::serialize(Value("alone"), false, false), "\"alone\"");
  EXPECT_EQ(json::serialize(Value(int32_t{5}), false, false), "5");
  EXPECT_EQ(json::serialize(Value(), false, false), "null");
}

TEST(JsonTest, DisplayWritesEverything) {
  auto child = std::make_shared<Sample>("inner");
  Dictionary d{
      {"when", Value(Date{1769847302})},
      {"precise", Value(Date{1769847302.25})},
      {"bytes", Value(Data(std::vector<uint8_t>{0, 1, 2, 0xff}))},
      {"id", Value(*Uuid::fromString("00112233-4455-6677-8899-aabbccddeeff"))},
      {"record", Value(std::make_shared<Sample>("outer", Value(Array{Value(child)})))},
      {"nan", Value(std::nan(""))},
  };
  const std::string text = json::displayString(Value(d));
  std::optional<Value> back = json::parse(text);
  ASSERT_TRUE(back) << text;
  const Dictionary& shown = *back->asDictionary();
  EXPECT_EQ(shown.get("when"), Value("2026-01-31T08:15:02Z"));
  EXPECT_EQ(shown.get("precise"), Value("2026-01-31T08:15:02.250Z"));
  EXPECT_EQ(shown.get("bytes"), Value("AAEC/w=="));
  EXPECT_EQ(shown.get("id"), Value("00112233-4455-6677-8899-AABBCCDDEEFF"));
  EXPECT_EQ(shown.get("nan"), Value("nan"));
  const Dictionary& record = *shown.get("record").asDictionary();
  EXPECT_EQ(record.get("$class"), Value("VLSample"));
  EXPECT_EQ(record.get("Name"), Value("outer"));
  const Dictionary& nested = *(*record.get("Child").asArray())[0].asDictionary();
  EXPECT_EQ(nested.get("$class"), Value("VLSample"));
  EXPECT_EQ(nested.get("Name"), Value("inner"));
  EXPECT_EQ(back->asDictionary()->keys(), d.keys());

  // Scalars and broken strings display too.
  EXPECT_EQ(json::displayString(Value("plain")), "\"plain\"");
  EXPECT_FALSE(json::displayString(Value(std::string("bad \xff byte"))).empty());
  EXPECT_EQ(json::displayString(Value(Data::fromString("ab"))), "\"YWI=\"");
  EXPECT_EQ(json::displayString(Value(Data::fromString("abc"))), "\"YWJj\"");
}

TEST(JsonTest, ParsingKeepsTypesAndOrder) {
  Error error;
  std::optional<Value> value = json::parse(
      R"({"b": [1, -2, 18446744073709551615, 1.5, 2.0, true, null, "s"], "a": {}, "c": "\u00e9"})",
      &error);
  ASSERT_TRUE(value) << error.description();
  const Dictionary& d = *value->asDictionary();
  EXPECT_EQ(d.keys(), (std::vector<std::string>{"b", "a", "c"}));
  const Array& list = *d.get("b").asArray();
  std::string codes;
  for (const Value& item : list) codes += item.asNumber() ? item.asNumber()->typeCode() : '-';
  EXPECT_EQ(codes, "qqQddB--");
  EXPECT_EQ(list[1].asNumber()->int64Value(), -2);
  EXPECT_EQ(list[2].asNumber()->uint64Value(), std::numeric_limits<uint64_t>::max());
  EXPECT_TRUE(list[6].isNone());
  EXPECT_EQ(list[7], Value("s"));
  EXPECT_EQ(d.get("a"), Value(Dictionary()));
  EXPECT_EQ(d.get("c"), Value("é"));
  EXPECT_EQ(json::parse("42"), Value(int64_t{42}));

  // Writing what was read gives the same text back.
  const std::string compact = R"({"x":[1,2.5,"y",null],"w":{"v":false}})";
  EXPECT_EQ(json::serialize(*json::parse(compact), false), compact);
}

TEST(JsonTest, MalformedOrDeepTextGivesErrors) {
  const std::pair<const char*, std::string> cases[] = {
      {"empty", ""},
      {"unclosed", "{\"a\": [1, 2"},
      {"trailing", "[1] x"},
      {"single quotes", "{'a': 1}"},
      {"invalid UTF-8", "[\"\xff\"]"},
      {"deep", std::string(100000, '[') + std::string(100000, ']')},
  };
  for (const auto& [what, text] : cases) {
    Error error;
    EXPECT_FALSE(json::parse(text, &error)) << what;
    EXPECT_EQ(error.domain, json::kErrorDomain) << what;
    EXPECT_FALSE(error.localizedDescription().empty()) << what;
  }
  Error error;
  json::parse(std::string(600, '[') + std::string(600, ']'), &error);
  EXPECT_NE(error.localizedDescription().find("nested more than 512"), std::string::npos);
  EXPECT_TRUE(json::parse(std::string(500, '[') + std::string(500, ']')));
}

}  // namespace
}  // namespace vl
