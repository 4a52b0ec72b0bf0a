// vorlundctl decode and encode, run as the user runs them.
#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/test_support.h"
#include "vorlund/foundation/json.h"

namespace vl {
namespace {

const std::string kCtl = VORLUNDCTL_PATH;
const std::string kSample = std::string(VORLUND_SOURCE_DIR) + "/samples/test_case.json";

test::ChildResult ctl(std::vector<std::string> args) {
  args.insert(args.begin(), kCtl);
  return test::runChild(args);
}

class VorlundctlTest : public ::testing::Test {
 protected:
  test::Sandbox sandbox_;
  test::TempDir dir_;
};

TEST_F(VorlundctlTest, EncodedTestCaseDecodesBackToItsDictionaryForm) {
  std::string archive = dir_.file("case.archive");
  auto encoded = ctl({"encode", "--class", "VLTestCaseObject", kSample, archive});
  ASSERT_EQ(encoded.exitStatus, 0) << encoded.err;
  EXPECT_EQ(test::readFile(archive).substr(0, 8), "bplist00");

  auto decoded = ctl({"decode", archive});
  ASSERT_EQ(decoded.exitStatus, 0) << decoded.err;
  std::optional<Value> json = json::parse(decoded.out);
  ASSERT_TRUE(json && json->isDictionary()) << decoded.out;
  const Dictionary& d = *json->asDictionary();
  EXPECT_EQ(d.get("$class"), Value("VLTestCaseObject"));
  EXPECT_EQ(d.get("Name"), Value("WiFi Ping Gateway"));
  EXPECT_EQ(d.get("Selector"), Value("pingGateway:"));
  EXPECT_EQ(d.get("Timeout"), Value(120.0));
  EXPECT_EQ(d.get("Environments"), Value(Array{"Office", "Walk"}));
  EXPECT_EQ(d.get("ReportingTags"), Value(Dictionary{{"area", "connectivity"}}));
  // Options are shown as stored: with no overrides in the preferences, "$gateway" stays.
  EXPECT_EQ(d.get("Options").asDictionary()->get("Host"), Value("$gateway"));
}

TEST_F(VorlundctlTest, ArchiveIsReadByAnotherKeyedArchiveReader) {
  std::string archive = dir_.file("case.archive");
  ASSERT_EQ(ctl({"encode", "--class", "VLTestCaseObject", kSample, archive}).exitStatus, 0);
  // Python's plistlib reads the binary property list and its UIDs; walk the standard layout.
  std::string script =
      "import plistlib,sys\n"
      "a=plistlib.load(open(sys.argv[1],'rb'))\n"
      "o=a['$objects']\n"
      "assert a['$archiver']=='NSKeyedArchiver' and a['$version']==100000 and o[0]=='$null'\n"
      "root=o[a['$top']['root'].data]\n"
      "cls=o[root['$class'].data]\n"
      "assert cls['$classname']=='VLTestCaseObject', cls\n"
      "assert cls['$classes'][-1]=='NSObject', cls\n"
      "print(o[root['Name'].data])\n";
  test::writeFile(dir_.file("read.py"), script);
  auto result = test::runChild({"python3", dir_.file("read.py"), archive});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.out, "WiFi Ping Gateway\n");
}

TEST_F(VorlundctlTest, PlainValuesInEveryFormat) {
  test::writeFile(dir_.file("in.json"), R"({"b": [1, 2.5, true], "a": "text"})");
  for (std::string format : {"archive", "xml", "binary", "json"}) {
    std::string out = dir_.file("out." + format);
    auto encoded = ctl({"encode", "--class", "NSDictionary", "--format", format, dir_.file("in.json"), out});
    ASSERT_EQ(encoded.exitStatus, 0) << format << ": " << encoded.err;
    auto decoded = ctl({"decode", out});
    ASSERT_EQ(decoded.exitStatus, 0) << format << ": " << decoded.err;
    EXPECT_EQ(json::parse(decoded.out), json::parse(R"({"b": [1, 2.5, true], "a": "text"})")) << format;
  }
}

TEST_F(VorlundctlTest, BadInputGivesOneLineAndNoOutputFile) {
  std::string out = dir_.file("out.archive");
  struct Case {
    std::vector<std::string> args;
    std::string expectedText;
  };
  test::writeFile(dir_.file("bad.json"), "{\"Name\": ");
  test::writeFile(dir_.file("array.json"), "[1, 2]");
  test::writeFile(dir_.file("typed.json"), R"({"Name": 5})");
  test::writeFile(dir_.file("garbage.bin"), std::string("\x01\x02garbage\xff", 11));
  std::vector<Case> cases = {
      {{"decode", dir_.file("missing.plist")}, "cannot read"},
      {{"decode", dir_.file("garbage.bin")}, "not a property list, keyed archive or JSON file"},
      {{"encode", "--class", "VLTestCaseObject", dir_.file("missing.json"), out}, "cannot read"},
      {{"encode", "--class", "VLTestCaseObject", dir_.file("bad.json"), out}, "bad.json"},
      {{"encode", "--class", "NSTask", kSample, out}, "not one of the allowed classes"},
      {{"encode", "--class", "VLTestCaseObject", dir_.file("array.json"), out}, "JSON object"},
      {{"encode", "--class", "VLTestCaseObject", dir_.file("typed.json"), out}, "Name"},
      {{"encode", "--class", "NSArray", kSample, out}, "JSON array"},
  };
  for (const Case& c : cases) {
    auto result = ctl(c.args);
    EXPECT_EQ(result.exitStatus, 1) << c.args[1];
    EXPECT_NE(result.err.find(c.expectedText), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_TRUE(result.out.empty()) << result.out;
    EXPECT_FALSE(test::fileExists(out)) << c.args[1];
  }
}

TEST_F(VorlundctlTest, DecodeRefusesArchiveNamingAClassOutsideTheAllowedSet) {
  std::string archives = std::string(VORLUND_TESTDATA_DIR) + "/archives/";
  auto refused = ctl({"decode", archives + "foreign_refused.plist"});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_NE(refused.err.find("class"), std::string::npos) << refused.err;
  EXPECT_TRUE(refused.out.empty());

  // An archive another tool wrote, with the mutable class names such tools use, decodes.
  auto accepted = ctl({"decode", archives + "foreign_dictionary.plist"});
  EXPECT_EQ(accepted.exitStatus, 0) << accepted.err;
  EXPECT_TRUE(json::parse(accepted.out).has_value()) << accepted.out;
}

}  // namespace
}  // namespace vl
