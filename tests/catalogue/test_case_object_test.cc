#include "vorlund/catalogue/test_case_object.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "catalogue/value_printers.h"
#include "support/child_process.h"
#include "support/test_support.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/catalogue/test_case_class.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/logging/log_capture.h"

namespace {

using ::testing::HasSubstr;
using vl::Array;
using vl::Dictionary;
using vl::Value;

const Dictionary kNoTags{{"no_tags", "no_tags"}};

void writePreferences(const Dictionary& preferences) {
  std::string path = VLGetTestSettingsFilePath();
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  ASSERT_TRUE(vl::plist::writeFile(Value(preferences), path));
}

// The dictionary form of a definition holding these fields and the defaults of the others.
Dictionary withDefaults(Dictionary fields) {
  const Dictionary defaults{
      {"AvailableInProcedor", true}, {"ReportingTags", kNoTags}, {"Timeout", 0.0}};
  for (const std::string& key : defaults.keys()) {
    if (!fields.contains(key)) fields.set(key, defaults.get(key));
  }
  return fields;
}

// Every field set, none of them to its default.
std::shared_ptr<VLTestCaseObject> fullObject() {
  auto object = VLTestCaseObject::make();
  object->setAvailableInProcedor(false);
  object->setOptions(Dictionary{{"Count", 3},
                                {"Host", "gateway"},
                                {"Since", vl::Date{1700000000}},
                                {"Nested", Array{"a", Dictionary{{"b", 2.5}}}}});
  object->setInstanceId("6F9619FF-8B86-D011-B42D-00C04FC964FF");
  object->setName("Ping Gateway");
  object->setSelector("pingGateway");
  object->setTechnology("WiFi");
  object->setType("PassFail");
  object->setEnvironments(Array{"Office", "Lab"});
  object->setTags(Array{"fast"});
  object->setWebTags(Dictionary{{"team", "wifi"}});
  object->setTimeout(12.5);
  object->setDestinationClass("RemoteRunner");
  object->setDestinationIdentifier("runner-2");
  return object;
}

TEST(TestCaseObjectTest, BundleSettingsApplyDefaultsAndLeaveOutWrongTypes) {
  vl::LogCapture capture;
  Dictionary settings{{"Name", "Call"},
                      {"Selector", "placeCall"},
                      {"Technology", "Cellular"},
                      {"Type", "PassFail"},
                      {"Tags", Array{"voice"}},
                      {"Options", Dictionary{{"n", 1}}},
                      {"Environments", Array{"Car"}},
                      {"AvailableInProcedor", false},
                      {"ReportingTags", Dictionary{{"k", "v"}}},
                      {"Timeout", 30},
                      {"instanceId", "ignored"}};
  auto object = VLTestCaseObject::withBundleSettings(settings);
  EXPECT_TRUE(capture.contains(
      VLLogLevelDebug, "Results",
      vl::format("Initing test case object with the following settings...%@", settings)));
  // Instance, time-out and destination are filled in later by whoever runs the test case.
  settings.erase("instanceId");
  settings.erase("Timeout");
  EXPECT_EQ(object->getDictionaryRepresentation(), withDefaults(settings));

  object =
      VLTestCaseObject::withBundleSettings({{"Name", "Odd"}, {"Selector", 42}, {"Tags", "solo"}});
  EXPECT_FALSE(object->selector() || object->tags());
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Results",
                               "Ignoring test case setting 'Selector': expected a string, found "
                               "NSNumber"));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Results",
                               "Ignoring test case setting 'Tags': expected an array, found "
                               "NSString"));
}

TEST(TestCaseObjectTest, DictionaryFormHoldsEveryFieldAndReadsBack) {
  auto object = fullObject();
  Dictionary representation = object->getDictionaryRepresentation();
  EXPECT_EQ(
      representation.keys(),
      (std::vector<std::string>{"AvailableInProcedor", "Options", "instanceId", "Name", "Selector",
                                "Technology", "Type", "Environments", "Tags", "ReportingTags",
                                "Timeout", "DestinationClass", "DestinationIdentifier"}));
  EXPECT_EQ(object->dictionaryRepresentation(), representation);

  // The archiver's registry builds the record from the same form.
  vl::Error error;
  const vl::CodableClass* cls = vl::findCodableClass("VLTestCaseObject");
  ASSERT_TRUE(cls && cls->fromDictionary);
  auto back =
      std::dynamic_pointer_cast<VLTestCaseObject>(cls->fromDictionary(representation, &error));
  ASSERT_TRUE(back) << error.description();
  EXPECT_EQ(back->getDictionaryRepresentation(), representation);
  EXPECT_EQ(VLTestCaseObject::withDictionary({{"Name", "Bare"}})->getDictionaryRepresentation(),
            withDefaults({{"Name", "Bare"}}));

  // A wrong type is refused naming the key.
  EXPECT_FALSE(VLTestCaseObject::withDictionary({{"Name", "Late"}, {"Timeout", "soon"}}, &error));
  EXPECT_EQ(error.domain, kVLTestCaseObjectErrorDomain);
  EXPECT_THAT(error.localizedDescription(), HasSubstr("\"Timeout\""));
}

std::shared_ptr<VLTestCaseObject> archiveRoundTrip(
    const std::shared_ptr<VLTestCaseObject>& object) {
  vl::Error error;
  auto bytes = vl::archive(Value(object), &error);
  EXPECT_TRUE(bytes) << error.description();
  auto decoded =
      bytes ? vl::unarchive(*bytes, VLValidExternalClassesForCoding(), &error) : std::nullopt;
  EXPECT_TRUE(decoded) << error.description();
  return decoded ? decoded->record<VLTestCaseObject>() : nullptr;
}

TEST(TestCaseObjectTest, ArchiveRoundTripKeepsAllThirteenFieldsAndDecodesDefaults) {
  auto object = fullObject();
  auto back = archiveRoundTrip(object);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->getDictionaryRepresentation(), object->getDictionaryRepresentation());

  // Fields left out of the archive decode to their defaults.
  auto sparse = VLTestCaseObject::make();
  sparse->setName("Sparse");
  sparse->setWebTags(std::nullopt);
  back = archiveRoundTrip(sparse);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->getDictionaryRepresentation(), withDefaults({{"Name", "Sparse"}}));
}

// A codable record that is not among the classes allowed across process boundaries.
class StrangerRecord : public vl::CodableRecord {
 public:
  std::string className() const override { return "VLStrangerRecord"; }
  void encodeWithCoder(vl::KeyedArchiver& coder) const override {
    coder.encodeObject(Value("x"), "Payload");
  }
};
[[maybe_unused]] const bool kStrangerRegistered = vl::registerCodableClass(
    {.name = "VLStrangerRecord",
     .superclasses = {vl::kClassRoot},
     .decode = [](vl::KeyedUnarchiver&) -> std::shared_ptr<vl::CodableRecord> {
       return std::make_shared<StrangerRecord>();
     },
     .fromDictionary = nullptr});

TEST(TestCaseObjectTest, DecodeRefusesOptionsHoldingAClassOutsideTheAllowedSet) {
  auto object = VLTestCaseObject::make();
  object->setName("Smuggler");
  object->setOptions(Dictionary{{"Payload", Value(std::make_shared<StrangerRecord>())}});
  vl::Error error;
  auto bytes = vl::archive(Value(object), &error);
  ASSERT_TRUE(bytes) << error.description();

  // Even when the caller allows the stranger class, the options take only the external classes.
  vl::ClassSet allowed = VLValidExternalClassesForCoding();
  allowed.insert("VLStrangerRecord");
  error = {};
  EXPECT_FALSE(vl::unarchive(*bytes, allowed, &error));
  EXPECT_FALSE(error.domain.empty());
}

TEST(TestCaseObjectTest, EqualityComparesIdentityThenOnlyFieldsBothSidesHave) {
  auto a = VLTestCaseObject::make();
  a->setName("Download");
  a->setInstanceId("A1");
  auto b = VLTestCaseObject::withDictionary({{"Name", "Download"},
                                             {"instanceId", "A1"},
                                             {"Options", Dictionary{{"Size", 10}}},
                                             {"Selector", "download"},
                                             {"Timeout", 99},
                                             {"AvailableInProcedor", false}});
  EXPECT_EQ(Value(a), Value(b));

  // Each change is undone before the next one.
  const std::function<void(bool)> changes[] = {
      [&](bool on) { a->setSelector(on ? std::optional<std::string>("upload") : std::nullopt); },
      [&](bool on) { a->setOptions(Dictionary{{"Size", on ? 11 : 10.0}}); },
      [&](bool on) {
        a->setWebTags(on ? std::optional<Dictionary>(Dictionary{{"o", "t"}}) : std::nullopt);
      },
      [&](bool on) {
        a->setTags(Array{"x"});
        b->setTags(on ? std::optional<Array>(Array{"y"}) : std::nullopt);
      },
      [&](bool on) { b->setInstanceId(on ? "A2" : "A1"); },
  };
  for (size_t i = 0; i < std::size(changes); ++i) {
    changes[i](true);
    EXPECT_FALSE(a->isEqual(*b)) << i;
    changes[i](false);
    EXPECT_TRUE(a->isEqual(*b)) << i;
  }
  b->setName(std::nullopt);
  a->setName(std::nullopt);
  EXPECT_FALSE(a->isEqual(*b)) << "objects without a name are never equal";
  EXPECT_FALSE(a->isEqual(*VLTestCaseClass::make()));
}

TEST(TestCaseObjectTest, JSONSafeFormDescriptionAndEmptyOptions) {
  auto object = fullObject();
  object->setTags(Array{"fast", Array{vl::Data::fromString("raw"), "kept"}});
  object->setWebTags(Dictionary{{"when", vl::Date{5}}, {"team", "wifi"}});
  Dictionary safe = object->getJSONSafeDictionaryRepresentation();
  Dictionary options = *safe.get("Options").asDictionary();
  EXPECT_FALSE(options.contains("Since"));
  EXPECT_EQ(options.get("Nested"), Value(Array{"a", Dictionary{{"b", 2.5}}}));
  EXPECT_EQ(safe.get("Tags"), Value(Array{"fast", Array{"kept"}}));
  EXPECT_EQ(safe.get("ReportingTags"), Value(Dictionary{{"team", "wifi"}}));

  object = VLTestCaseObject::make();
  EXPECT_FALSE(object->verifyOptionExists("Host"));
  object->setName("Ping");
  object->setSelector("ping");
  object->setOptions(Dictionary{{"Host", ""}, {"Port", 0}});
  EXPECT_FALSE(object->verifyOptionExists("Host")) << "an empty string counts as missing";
  EXPECT_TRUE(object->verifyOptionExists("Port"));
  object->setTags(Array{"net"});
  EXPECT_EQ(vl::format("%@", object),
            "<VLTestCaseObject : " + vl::format("%p", static_cast<const void*>(object.get())) +
                "> Ping (selector: ping) has options " + object->options()->description() +
                " and tags " + Value(Array{"net"}).description() + " and environments (null)");
}

// The overrides are read once per process, so each override behaviour is checked in a fresh child
// process running one of the disabled tests below, with HOME pointing at the parent's sandbox.
constexpr const char* kChildGate = "VORLUND_OVERRIDES_CHILD";

class OptionOverridesChild : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::getenv(kChildGate)) GTEST_SKIP() << "runs only in a child process";
  }
};

TEST_F(OptionOverridesChild, DISABLED_Resolved) {
  vl::LogCapture capture;
  auto object = VLTestCaseObject::make();
  // A reference the overrides do not hold removes its option.
  Dictionary stored{{"Home", "$home"}, {"Count", "$count"}, {"Gone", "$elsewhere"}, {"Plain", "p"}};
  object->setOptions(stored);
  EXPECT_EQ(object->options(), (Dictionary{{"Home", "x"}, {"Count", 7}, {"Plain", "p"}}));
  EXPECT_TRUE(capture.contains(VLLogLevelNotice, "VLTestCaseObject",
                               "Looking up override for '$home' in Options Overrides dictionary"));
  EXPECT_EQ(object->getDictionaryRepresentation().get("Options"), Value(stored));
  // Changed preferences take effect in a new process only.
  writePreferences({{"Options Overrides", Dictionary{{"$home", "y"}}}});
  EXPECT_EQ(object->options()->get("Home"), Value("x"));
}

TEST_F(OptionOverridesChild, DISABLED_NoOverridesKeepTheValueAndLogEachRead) {
  vl::LogCapture capture;
  auto object = VLTestCaseObject::make();
  object->setOptions(Dictionary{{"Home", "$home"}});
  EXPECT_EQ(object->options(), (Dictionary{{"Home", "$home"}}));
  EXPECT_EQ(object->options(), (Dictionary{{"Home", "$home"}}));
  const std::string line = "Got test case option override request '$home', but no overrides exist";
  EXPECT_EQ(capture.count(line), 2u);
  // The preferences were read once, for the first request.
  EXPECT_EQ(capture.count(vl::format("Empty Preferences at '%@', returning empty dictionary",
                                     VLGetTestSettingsFilePath())),
            1u);
}

TEST(TestCaseObjectOverridesTest, ChildProcessesResolveAgainstTheirPreferences) {
  const std::pair<std::optional<Dictionary>, const char*> cases[] = {
      {Dictionary{{"Options Overrides", Dictionary{{"$home", "x"}, {"$count", 7}}}}, "Resolved"},
      {std::nullopt, "NoOverridesKeepTheValueAndLogEachRead"},
  };
  for (const auto& [preferences, child] : cases) {
    SCOPED_TRACE(child);
    vl::test::Sandbox sandbox;
    if (preferences) writePreferences(*preferences);
    vl::test::ScopedEnv gate(kChildGate, "1");
    vl::test::ChildResult result = vl::test::runChild(
        {std::filesystem::read_symlink("/proc/self/exe").string(),
         "--gtest_also_run_disabled_tests",
         std::string("--gtest_filter=OptionOverridesChild.DISABLED_") + child});
    EXPECT_EQ(result.exitStatus, 0) << result.out << result.err;
    EXPECT_THAT(result.out, HasSubstr("[  PASSED  ] 1 test.")) << result.out;
  }
}

}  // namespace
