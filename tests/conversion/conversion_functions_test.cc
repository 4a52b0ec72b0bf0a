// Technologies, random intervals, JSON text, required dictionary keys and object data.
#include <gtest/gtest.h>

#include <set>

#include "vorlund/conversion/dictionary_keys.h"
#include "vorlund/conversion/json_conversion.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/conversion/random_interval.h"
#include "vorlund/conversion/technology.h"
#include "vorlund/foundation/json.h"
#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

TEST(TechnologyTest, NamesEverySingleBitAndNothingElse) {
  const std::pair<int64_t, const char*> table[] = {
      {0, "None"},     {1, "Cellular"},     {2, "WiFi"},          {4, "Bluetooth"},
      {8, "Location"}, {16, "NFC"},         {32, "Domicile"},     {64, "Motion"},
      {128, "Parley"}, {256, "Networking"}, {512, "Accessories"}, {1024, "Dashlink"},
      {2048, "UWB"}};
  for (const auto& [value, name] : table) {
    EXPECT_EQ(VLConvertTechnologyEnumToString(value), name);
    EXPECT_EQ(VLConvertTechnologyStringToEnum(name), value);
  }
  EXPECT_EQ(VLConvertTechnologyStringToEnum("wifi"), VLTechnologyNone);
  for (int64_t value : {3, 4096, -1}) EXPECT_EQ(VLConvertTechnologyEnumToString(value), "None");
}

TEST(RandomIntervalTest, StaysWithinTheLowerBoundAndBelowTheUpper) {
  EXPECT_EQ(VLGetRandomInterval(10, 10), 10.0);
  std::set<double> seen;
  for (int i = 0; i < 2000; ++i) seen.insert(VLGetRandomInterval(10, 5));
  EXPECT_EQ(seen, (std::set<double>{5, 6, 7, 8, 9}));
  EXPECT_LT(VLGetRandomInterval(INT32_MAX, INT32_MIN), static_cast<double>(INT32_MAX));
}

TEST(RandomIntervalDeathTest, SwappedBoundsStopTheProcess) {
  EXPECT_DEATH(VLGetRandomInterval(5, 10), "upper bound \\(5\\) must be greater");
}

TEST(JSONConversionTest, WritesPrettyJSONReadsItBackAndLogsFailures) {
  Dictionary object{{"Name", "Ping"}, {"Count", 3}, {"List", Array{true, 0.5}}};
  Error error;
  auto text = VLJSONStringFromJSONData(VLJSONDataFromObject(object, &error).value());
  ASSERT_TRUE(text) << error.description();
  EXPECT_NE(text->find("\n  \"Name\": \"Ping\""), std::string::npos) << *text;
  EXPECT_EQ(VLObjectFromJSONString(*text, &error), Value(object));
  EXPECT_EQ(VLArrayFromJSONString("[1, \"two\", {\"k\": null}]", &error),
            (Array{1, "two", Dictionary{{"k", Value()}}}));

  LogCapture capture;

  Value notJson = Dictionary{{"When", Date{0}}};
  EXPECT_FALSE(VLJSONDataFromObject(notJson, &error));
  EXPECT_TRUE(capture.contains(
      VLLogLevelError, "Framework",
      "NSJSONSerialization returned nil jsonData for dictionary:" + notJson.description()));
  EXPECT_FALSE(VLJSONDataFromObject(Value("fragment")));

  EXPECT_FALSE(VLJSONStringFromJSONData(nullptr));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "VLStringFromJSONData:Argument jsonData cannot be nil"));
  Data bad(std::vector<uint8_t>{'"', 0xC3, 0x28, '"'});
  EXPECT_FALSE(VLJSONStringFromJSONData(bad));
  EXPECT_TRUE(capture.contains(
      VLLogLevelError, "Framework",
      "NSString returned nil when init-ing with JSON data:" + Value(bad).description()));

  EXPECT_TRUE(VLObjectFromJSONString("{\"a\": ", &error).isNone());
  EXPECT_TRUE(capture.contains(
      VLLogLevelError, "Framework",
      "Failed to convert JSON string to Object:{\"a\": :Error:" + error.description()));
  // Without the fragments option only arrays and objects are JSON texts.
  EXPECT_TRUE(VLObjectFromJSONString("42", &error).isNone());
  EXPECT_EQ(error.code, 3840);

  const std::string objectText = "{\"a\": 1}";
  EXPECT_FALSE(VLArrayFromJSONString(objectText, &error));
  EXPECT_EQ(error.domain, "VLJSONConversionErrorDomain");
  EXPECT_EQ(error.code, 22);
  const std::string prefix =
      "Caught exception creating NSArray from JSON string " + objectText + ":";
  EXPECT_EQ(error.localizedDescription().rfind(prefix, 0), 0u) << error.localizedDescription();
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", error.localizedDescription()));
  EXPECT_FALSE(VLArrayFromJSONString("[", &error));
}

TEST(DictionaryKeysTest, ReportsMissingKeysInOrder) {
  Dictionary d{{"Name", "Ping"}, {"Count", 1}};
  EXPECT_TRUE(VLDoesDictionaryContainKeys(d, {"Count", "Name"}));

  LogCapture capture;
  Error error;
  EXPECT_FALSE(VLDoesDictionaryContainKeys(d, {"Zed", "Name", "Alpha", 7}, &error));
  Array missing{"Zed", "Alpha", 7};
  const std::string message =
      "Dictionary " + Value(d).description() +
      " does not contain the following keys:" + Value(missing).description();
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", message));
  EXPECT_EQ(error.localizedDescription(), message);
  EXPECT_EQ(error.userInfo.get("KeysNotInDictionary"), Value(missing));
  EXPECT_EQ(error.userInfo.get("DictionaryChecked"), Value(d));
  EXPECT_FALSE(VLDoesDictionaryContainKeys(d, {"Zed"}));  // no error out: still false
}

// A record that claims the allowed "VLIssue" as its superclass, and one outside the allowed set.
class SampleIssue : public CodableRecord {
 public:
  explicit SampleIssue(std::string process) : process(std::move(process)) {}
  std::string process;
  std::string className() const override { return "VLSampleIssue"; }
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(process, "Process");
  }
};

class SampleSecret : public SampleIssue {
 public:
  using SampleIssue::SampleIssue;
  std::string className() const override { return "VLSampleSecret"; }
};

template <typename T>
std::shared_ptr<CodableRecord> decodeAs(KeyedUnarchiver& coder) {
  auto process = coder.decodeString("Process");
  if (!process) return nullptr;
  return std::make_shared<T>(*process);
}

const bool kRegistered =
    registerCodableClass({"VLSampleIssue", {"VLIssue", "NSObject"}, &decodeAs<SampleIssue>, {}}) &&
    registerCodableClass({"VLSampleSecret", {"NSObject"}, &decodeAs<SampleSecret>, {}});

TEST(ObjectDataTest, ConvertsObjectsBothWaysAndLogsEveryFailure) {
  ASSERT_TRUE(kRegistered);
  LogCapture capture;
  Value object = Dictionary{{"Issue", std::make_shared<SampleIssue>("wifid")}, {"Count", 2}};
  Value back = VLConvertDataToObject(VLConvertObjectToData(object).value());
  EXPECT_TRUE(capture.contains(VLLogLevelDebug, "Framework",
                               "Converting object '" + object.description() + "'"));
  EXPECT_EQ(back.asDictionary()->get("Issue").record<SampleIssue>()->process, "wifid");

  EXPECT_FALSE(VLConvertObjectToData(Value()));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", "Unable to convert nil object"));

  EXPECT_TRUE(VLConvertDataToObject(nullptr).isNone());
  EXPECT_TRUE(
      capture.contains(VLLogLevelError, "Framework", "Unable to convert nil data to object"));

  Error error;
  auto secret = VLConvertObjectToData(Array{std::make_shared<SampleSecret>("x")}).value();
  EXPECT_TRUE(VLConvertDataToObject(secret, &error).isNone());
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "NSKeyedUnarchiver returned with error: " + error.description()));

  struct Uncodable : Record {
    std::string className() const override { return "VLUncodable"; }
  };
  EXPECT_FALSE(VLConvertObjectToData(Value(std::make_shared<Uncodable>()), &error));
  EXPECT_EQ(error.code, kKeyedArchiveWriteError);
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "NSKeyedArchiver returned with error: " + error.description()));
}

}  // namespace
}  // namespace vl
