#include "vorlund/results/test_case_result.h"

#include <gtest/gtest.h>

#include "catalogue/value_printers.h"
#include "results/run_sandbox.h"
#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/results/issue.h"

namespace {

using vl::Dictionary;
using vl::Value;

class WifiTestClass : public VLTestCaseClass {
 public:
  WifiTestClass() { setTechnology(2 | 4); }
  std::string className() const override { return "WifiTestClass"; }
};

std::shared_ptr<VLTestCaseObject> wifiDefinition() {
  auto object = VLTestCaseObject::make();
  object->setName(std::string("Wifi Join"));
  object->setSelector(std::string("joinNetwork:"));
  object->setType(std::string(kVLTestCaseResultTypeAverage));
  object->setWebTags(Dictionary{{"team", "radio"}, {"rack", 7}});
  return object;
}

std::shared_ptr<VLTestCaseResult> completeResult(const char* type = kVLTestCaseResultTypePassFail) {
  auto result = VLTestCaseResult::withName("Ping");
  result->setType(std::string(type));
  result->setStartTime(vl::Date{1700000000});
  result->setEndTime(vl::Date{1700000060});
  return result;
}

TEST(TestCaseResultTest, DefinitionGivesNameTypeTagsAndTechnologiesOfItsClass) {
  vl::test::RunSandbox run;
  vl::registerTestCaseProvider(vl::testCaseProviderFor<WifiTestClass>(
      "/bundles/Wifi.bundle", "WifiTestClass", {"Wifi Join"}, {"joinNetwork:"}));
  auto result = VLTestCaseResult::quickPassWithTestCaseObject(wifiDefinition());
  EXPECT_EQ(result->type(), kVLTestCaseResultTypeAverage);
  EXPECT_EQ(result->technologiesInvolved(), 6);
  EXPECT_EQ(result->getTags(), (Dictionary{{"team", "radio"}, {"rack", 7}}));
  EXPECT_EQ(VLTestCaseResult::quickFailWithTestCaseObject(wifiDefinition(), "x")->bucket(), "x");
  vl::removeTestCaseProvider("/bundles/Wifi.bundle");
  // Without an implementing class the technologies stay 0.
  EXPECT_EQ(VLTestCaseResult::withTestCaseObject(wifiDefinition())->technologiesInvolved(), 0);
}

TEST(TestCaseResultTest,
     CopyKeepsOutcomeMetricsAndTagsButNotCodeOrFlagsAndBreakdownAppendsTheSerial) {
  vl::test::RunSandbox run;
  auto source = VLTestCaseResult::withTestCaseObject(wifiDefinition());
  source->addMetric(12.5, "Throughput");
  source->setResultCode(42);
  source->setNoOp(true);
  source->setBucket(std::string("kept"));
  source->pass();
  auto copy = source->copy();
  EXPECT_TRUE(copy->didPass());
  EXPECT_EQ(copy->bucket(), "kept");
  EXPECT_EQ(copy->getMetrics(), (Dictionary{{"Throughput", 12.5}}));
  EXPECT_EQ(copy->getTags(), source->getTags());
  EXPECT_EQ(copy->resultCode(), -1);
  EXPECT_FALSE(copy->isNoOp());
  // A default result copies as a failure with the source's bucket.
  auto fresh = completeResult();
  fresh->setBucket(std::string("never ran"));
  EXPECT_TRUE(fresh->copy()->didFail());

  // Breakdown by device appends the serial number to a bucket, and copying appends it again.
  run.writePreferences(Dictionary{{"BreakdownFailuresByDevice", true}, {"SerialNumber", "C02XK1"}});
  fresh->failWithReason("timeout");
  EXPECT_EQ(fresh->bucket(), "timeout | C02XK1");
  EXPECT_EQ(fresh->copy()->bucket(), "timeout | C02XK1 | C02XK1");
  run.setPreference("BreakdownFailuresByDevice", false);
  fresh->failWithReason("timeout");
  EXPECT_EQ(fresh->bucket(), "timeout");
}

TEST(TestCaseResultTest, MetricsAndTagsRefuseNoneKeysAndValuesWithTheirLines) {
  vl::LogCapture capture;
  auto result = VLTestCaseResult::make();
  EXPECT_EQ(result->addMetric(1, "rssi"), 0);
  EXPECT_EQ(result->addMetric(Value(), "snr") + result->addMetric(3, std::nullopt), 2);
  EXPECT_EQ(result->getMetrics(), (Dictionary{{"rssi", 1}}));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Results", "Object is nil, unable to add snr"));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Results", "Key cannot be nil in addMetric:"));

  EXPECT_EQ(result->addTag("lab", "site"), 0);
  EXPECT_EQ(result->addTag(Value(), "room") + result->addTag("x", std::nullopt), 2);
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Default", "Object is nil, unable to add room"));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Default", "Key cannot be nil in addTag:"));
  EXPECT_EQ(result->getTags(), (Dictionary{{"site", "lab"}}));
  result->removeMetric("rssi");
  result->removeTag("site");
  EXPECT_TRUE(result->getMetrics().empty() && result->getTags().empty());
}

TEST(TestCaseResultTest, ArchiveAndDictionaryFormsKeepTheirKeysInOrderAndReadBack) {
  auto result = completeResult(kVLTestCaseResultTypeAverage);
  result->pass();
  result->addMetric(3.5, "Latency");
  result->addMetric("n/a", "Note");
  result->addTag(vl::Array{"a", 1}, "List");
  result->setTechnologiesInvolved(1024);
  result->setResultCode(7);
  result->setStopStress(true);
  Dictionary coded = result->codingDictionary();
  // clang-format off
  std::vector<std::string> expectedKeys{"Name", "Result", "TechnolgiesInvolved", "TimeStamp",
      "EndTime", "Metrics", "Tags", "Type", "ResultCode", "isMissedTestCase", "isNoOp",
      "isEnvironmentFailure", "isStopStress"};
  // clang-format on
  EXPECT_EQ(coded.keys(), expectedKeys);
  EXPECT_EQ(coded.get("TechnolgiesInvolved").asNumber()->typeCode(), 'l');
  std::optional<vl::Data> data = VLConvertObjectToData(Value(result));
  ASSERT_TRUE(data);
  auto decoded = VLConvertDataToObject(*data).record<VLTestCaseResult>();
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->codingDictionary(), coded);
  // The dictionary form of the coding keys reads back whole; absent keys give 0, NO or none.
  EXPECT_EQ(VLTestCaseResult::withDictionary(coded)->codingDictionary(), coded);
  auto empty = VLTestCaseResult::withDictionary({});
  EXPECT_EQ(empty->result() + empty->resultCode(), 0);
  EXPECT_FALSE(empty->name() || empty->getStartTime());

  // Empty metrics, tags and bucket are left out.
  vl::LogCapture capture;
  auto failed = completeResult();
  EXPECT_FALSE(failed->codingDictionary().contains("Metrics") ||
               failed->codingDictionary().contains("Tags"));
  failed->failWithReason("drop");
  failed->addTag("x", "t");
  Dictionary dictionary = failed->getDictionaryRepresentation();
  EXPECT_EQ(dictionary.keys(), (std::vector<std::string>{"Name", "Result", "TimeStamp", "EndTime",
                                                         "Type", "Bucket", "Class", "Tags"}));
  std::string start = vl::dateString(vl::Date{1700000000});
  std::string end = vl::dateString(vl::Date{1700000060});
  EXPECT_TRUE(
      capture.contains(VLLogLevelDebug, "Results",
                       "Saving the following attributes for Ping... Result = 1, Start = " + start +
                           ", End = " + end + ", Metrics = {\n}, type = PassFail, bucket = drop"));
  EXPECT_EQ(failed->dictionaryValue().keys(),
            std::vector<std::string>{"com.brindle.zep.model.stress.result"});
}

TEST(TestCaseResultTest, UnsetNameTypeAndBucketLeaveNoNullInAnyForm) {
  auto unnamed = VLTestCaseResult::make();
  unnamed->pass();
  auto unbucketed = completeResult();
  unbucketed->pass();
  for (const auto& source : {unnamed, unbucketed}) {
    SCOPED_TRACE(source->description());
    EXPECT_EQ(source->description().find("(null)"), std::string::npos);
    for (const Dictionary& form :
         {source->getDictionaryRepresentation(), source->codingDictionary()}) {
      vl::Error error;
      std::optional<std::string> xml =
          vl::plist::serialize(Value(form), vl::plist::Format::Xml, &error);
      ASSERT_TRUE(xml) << error.localizedDescription();
      std::optional<Value> parsed = vl::plist::parse(*xml);
      ASSERT_TRUE(parsed && parsed->asDictionary());
      auto back = VLTestCaseResult::withDictionary(*parsed->asDictionary());
      EXPECT_TRUE(back->didPass());
      EXPECT_EQ(back->name(), source->name());
      EXPECT_EQ(back->bucket(), std::nullopt);
    }
  }
}

Dictionary validBase() {
  return Dictionary{{"Name", "Ping"},
                    {"Result", 0},
                    {"TimeStamp", vl::dateString(vl::Date{1700000000})},
                    {"EndTime", vl::dateString(vl::Date{1700000060})},
                    {"Type", kVLTestCaseResultTypePassFail}};
}

Dictionary without(Dictionary d, const char* key) {
  d.erase(key);
  return d;
}

Dictionary with(Dictionary d, const char* key, Value value) {
  d.set(key, std::move(value));
  return d;
}

TEST(TestCaseResultTest, ValidationRejectsInOrderWithLineAndFailureIssue) {
  vl::test::RunSandbox run;
  for (const auto& result : {VLTestCaseResult::asNoOp(), VLTestCaseResult::asStopStress(),
                             VLTestCaseResult::asMissedTestCase(),
                             VLTestCaseResult::withDictionary(
                                 with(with(validBase(), "Type", kVLTestCaseResultTypeAverage),
                                      "Metrics", Dictionary{{"Mbps", 80}}))}) {
    EXPECT_TRUE(result->isValidResult()) << result->description();
  }
  EXPECT_TRUE(run.results()->issueList().empty());

  struct Case {
    Dictionary form;
    std::string line;
    std::string reason;
  };
  const Dictionary average = with(validBase(), "Type", kVLTestCaseResultTypeAverage);
  const std::vector<Case> cases{
      // The start is checked before the end and the type.
      {without(without(without(validBase(), "TimeStamp"), "EndTime"), "Type"),
       "Ping did not have start date set", "Invalid Result: Result did not have start date set."},
      {without(validBase(), "EndTime"), "Ping did not have end date set",
       "Invalid Result: Result did not have end date set."},
      {without(validBase(), "Type"), "Ping did not have type set",
       "Invalid Result: Result did not have type set."},
      {with(validBase(), "Result", -1), "Ping did not have pass/fail set",
       "Invalid Result: Result did not have pass/fail set"},
      {average, "Ping was an average test case without metrics",
       "Invalid Result: Result was an average test case without metrics."},
      {with(validBase(), "Result", 1), "Ping was a failed test case without a bucket",
       "Invalid Result: Result was a failed test case without a bucket."},
      // A histogram without pass/fail or bucket gets through to the last step.
      {with(with(validBase(), "Result", -1), "Type", kVLTestCaseResultTypeTimeHistogram),
       "Ping was a failed test case without a bucket",
       "Invalid Result: Result was a failed test case without a bucket."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    vl::LogCapture capture;
    EXPECT_FALSE(VLTestCaseResult::withDictionary(c.form)->isValidResult());
    EXPECT_TRUE(capture.contains(VLLogLevelError, "Results", c.line));
    bool filed = false;
    for (const auto& issue : run.results()->issueList())
      filed |= issue->reason() == c.reason && issue->type() == "Failure";
    EXPECT_TRUE(filed);
  }

  vl::LogCapture capture;
  EXPECT_FALSE(VLTestCaseResult::withDictionary(without(validBase(), "Name"))->isValidResult());
  EXPECT_EQ(vl::test::linesStartingWith(capture, VLLogLevelError, "Results",
                                        "Result did not have name set...(")
                .size(),
            1u);
}

}  // namespace
