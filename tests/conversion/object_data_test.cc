#include "vorlund/conversion/object_data.h"

#include <gtest/gtest.h>

#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

// A record that claims the allowed "VLIssue" as its superclass, and one outside the allowed set.
class SampleIssue : public CodableRecord {
 public:
  explicit SampleIssue(std::string process) : process(std::move(process)) {}
  std::string process;
  std::string className() const override { return "VLSampleIssue"; }
  std::string description() const override { return "<VLSampleIssue " + process + ">"; }
  void encodeWithCoder(KeyedArchiver& coder) const override { coder.encodeObject(process, "Process"); }
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

TEST(ObjectDataTest, AllowsTheRecordClassesAndPlainValues) {
  const ClassSet& classes = VLValidExternalClassesForCoding();
  for (const char* name : {"VLTestCaseClass", "VLTestCaseResult", "VLTestCaseObject", "VLIssue",
                           "NSString", "NSNumber", "NSDate", "NSData", "NSUUID", "NSArray",
                           "NSDictionary"}) {
    EXPECT_TRUE(classes.count(name)) << name;
  }
  EXPECT_EQ(classes.size(), 11u);
}

TEST(ObjectDataTest, ConvertsObjectsBothWaysAndLogs) {
  ASSERT_TRUE(kRegistered);
  LogCapture capture;
  Value object = Dictionary{{"Issue", std::make_shared<SampleIssue>("wifid")}, {"Count", 2}};
  auto data = VLConvertObjectToData(object);
  ASSERT_TRUE(data);
  EXPECT_TRUE(capture.contains(VLLogLevelDebug, "Framework",
                               "Converting object '" + object.description() + "'"));
  Value back = VLConvertDataToObject(*data);
  ASSERT_TRUE(back.isDictionary());
  EXPECT_EQ(back.asDictionary()->get("Issue").record<SampleIssue>()->process, "wifid");
  EXPECT_EQ(back.asDictionary()->get("Count"), Value(2));
}

TEST(ObjectDataTest, LogsEveryFailure) {
  LogCapture capture;
  EXPECT_FALSE(VLConvertObjectToData(Value()));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", "Unable to convert nil object"));

  EXPECT_TRUE(VLConvertDataToObject(nullptr).isNone());
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", "Unable to convert nil data to object"));

  Error error;
  auto secret = VLConvertObjectToData(Array{std::make_shared<SampleSecret>("x")});
  ASSERT_TRUE(secret);
  EXPECT_TRUE(VLConvertDataToObject(*secret, &error).isNone());
  EXPECT_NE(error.localizedDescription().find("'VLSampleSecret'"), std::string::npos);
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
