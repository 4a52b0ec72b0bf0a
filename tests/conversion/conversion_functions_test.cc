// Technologies, random intervals, JSON text and required dictionary keys.
#include <gtest/gtest.h>

#include <set>

#include "vorlund/conversion/dictionary_keys.h"
#include "vorlund/conversion/json_conversion.h"
#include "vorlund/conversion/random_interval.h"
#include "vorlund/conversion/technology.h"
#include "vorlund/foundation/json.h"
#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

TEST(TechnologyTest, NamesEverySingleBitAndNothingElse) {
  const std::pair<int64_t, const char*> table[] = {
      {0, "None"},         {1, "Cellular"},    {2, "WiFi"},           {4, "Bluetooth"},
      {8, "Location"},     {16, "NFC"},        {32, "Domicile"},      {64, "Motion"},
      {128, "Parley"},     {256, "Networking"}, {512, "Accessories"}, {1024, "Dashlink"},
      {2048, "UWB"}};
  for (const auto& [value, name] : table) {
    EXPECT_EQ(VLConvertTechnologyEnumToString(value), name);
    EXPECT_EQ(VLConvertTechnologyStringToEnum(name), value);
  }
  EXPECT_EQ(VLConvertTechnologyStringToEnum("wifi"), VLTechnologyNone);
  EXPECT_EQ(VLConvertTechnologyStringToEnum(""), VLTechnologyNone);
  EXPECT_EQ(VLConvertTechnologyEnumToString(3), "None");
  EXPECT_EQ(VLConvertTechnologyEnumToString(4096), "None");
  EXPECT_EQ(VLConvertTechnologyEnumToString(-1), "None");
  EXPECT_EQ(VLTechnologyWiFi | VLTechnologyBluetooth, 6);
}

TEST(RandomIntervalTest, StaysWithinTheLowerBoundAndBelowTheUpper) {
  EXPECT_EQ(VLGetRandomInterval(10, 10), 10.0);
  std::set<double> seen;
  for (int i = 0; i < 2000; ++i) {
    double v = VLGetRandomInterval(10, 5);
    EXPECT_GE(v, 5.0);
    EXPECT_LT(v, 10.0);
    EXPECT_EQ(v, static_cast<double>(static_cast<int>(v)));
    seen.insert(v);
  }
  EXPECT_EQ(seen.size(), 5u);
  double wide = VLGetRandomInterval(INT32_MAX, INT32_MIN);
  EXPECT_GE(wide, static_cast<double>(INT32_MIN));
  EXPECT_LT(wide, static_cast<double>(INT32_MAX));
}

TEST(RandomIntervalDeathTest, SwappedBoundsStopTheProcess) {
  EXPECT_DEATH(VLGetRandomInterval(5, 10), "upper bound \\(5\\) must be greater");
}

TEST(JSONConversionTest, WritesPrettyJSONAndReadsItBack) {
  Dictionary object{{"Name", "Ping"}, {"Count", 3}, {"List", Array{true, 0.5}}};
  Error error;
  auto data = VLJSONDataFromObject(object, &error);
  ASSERT_TRUE(data) << error.description();
  auto text = VLJSONStringFromJSONData(*data);
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("\n  \"Name\": \"Ping\""), std::string::npos) << *text;
  EXPECT_EQ(VLObjectFromJSONString(*text, &error), Value(object));
  auto array = VLArrayFromJSONString("[1, \"two\", {\"k\": null}]", &error);
  ASSERT_TRUE(array);
  EXPECT_EQ(array->size(), 3u);
  EXPECT_EQ(array->at(1), Value("two"));
}

TEST(JSONConversionTest, LogsAndReportsFailures) {
  LogCapture capture;
  Error error;

  Value notJson = Dictionary{{"When", Date{0}}};
  EXPECT_FALSE(VLJSONDataFromObject(notJson, &error));
  EXPECT_EQ(error.domain, json::kErrorDomain);
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "NSJSONSerialization returned nil jsonData for dictionary:" +
                                   notJson.description()));
  EXPECT_FALSE(VLJSONDataFromObject(Value("fragment")));

  EXPECT_FALSE(VLJSONStringFromJSONData(nullptr));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "VLStringFromJSONData:Argument jsonData cannot be nil"));
  Data bad(std::vector<uint8_t>{'"', 0xC3, 0x28, '"'});
  EXPECT_FALSE(VLJSONStringFromJSONData(bad));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "NSString returned nil when init-ing with JSON data:" +
                                   Value(bad).description()));

  error = {};
  EXPECT_TRUE(VLObjectFromJSONString("{\"a\": ", &error).isNone());
  EXPECT_EQ(error.domain, json::kErrorDomain);
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "Failed to convert JSON string to Object:{\"a\": :Error:" +
                                   error.description()));
  // Without the fragments option only arrays and objects are JSON texts.
  EXPECT_TRUE(VLObjectFromJSONString("42", &error).isNone());
  EXPECT_EQ(error.code, 3840);

  error = {};
  const std::string objectText = "{\"a\": 1}";
  EXPECT_FALSE(VLArrayFromJSONString(objectText, &error));
  EXPECT_EQ(error.domain, "VLJSONConversionErrorDomain");
  EXPECT_EQ(error.code, 22);
  const std::string prefix = "Caught exception creating NSArray from JSON string " + objectText + ":";
  EXPECT_EQ(error.localizedDescription().rfind(prefix, 0), 0u) << error.localizedDescription();
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", error.localizedDescription()));
  EXPECT_FALSE(VLArrayFromJSONString("[", &error));
  EXPECT_EQ(error.domain, json::kErrorDomain);
}

TEST(DictionaryKeysTest, ReportsMissingKeysInOrder) {
  Dictionary d{{"Name", "Ping"}, {"Count", 1}};
  EXPECT_TRUE(VLDoesDictionaryContainKeys(d, {}));
  EXPECT_TRUE(VLDoesDictionaryContainKeys(d, {"Count", "Name"}));

  LogCapture capture;
  Error error;
  EXPECT_FALSE(VLDoesDictionaryContainKeys(d, {"Zed", "Name", "Alpha", 7}, &error));
  Array missing{"Zed", "Alpha", 7};
  const std::string message = "Dictionary " + Value(d).description() +
                              " does not contain the following keys:" +
                              Value(missing).description();
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", message));
  EXPECT_EQ(error.domain, "VLErrorDomain");
  EXPECT_EQ(error.code, -1);
  EXPECT_EQ(error.localizedDescription(), message);
  EXPECT_EQ(error.userInfo.get("KeysNotInDictionary"), Value(missing));
  EXPECT_EQ(error.userInfo.get("DictionaryChecked"), Value(d));
  EXPECT_FALSE(VLDoesDictionaryContainKeys(d, {"Zed"}));  // no error out: still false
}

}  // namespace
}  // namespace vl
