// vorlundctl decode and encode, run as the user runs them.
#include <gtest/gtest.h>

#include "tools/ctl.h"

namespace vl {
namespace {

using test::ctl;

const std::string kSample = std::string(VORLUND_SOURCE_DIR) + "/samples/test_case.json";

class VorlundctlTest : public ::testing::Test {
 protected:
  test::Sandbox sandbox_;
  test::TempDir dir_;
};

TEST_F(VorlundctlTest, EncodedTestCaseDecodesBackAndReadsInAnotherArchiveReader) {
  std::string archive = dir_.file("case.archive");
  auto encoded = ctl({"encode", "--class", "VLTestCaseObject", kSample, archive});
  ASSERT_EQ(encoded.exitStatus, 0) << encoded.err;
  EXPECT_EQ(test::readFile(archive).substr(0, 8), "bplist00");

  auto decoded = ctl({"decode", archive});
  ASSERT_EQ(decoded.exitStatus, 0) << decoded.err;
  std::optional<Value> json = json::parse(decoded.out);
  ASSERT_TRUE(json && json->isDictionary()) << decoded.out;
  // Every field comes back, options as stored: without overrides "$gateway" stays.
  Dictionary expected = *json::parse(test::readFile(kSample))->asDictionary();
  expected.set("$class", "VLTestCaseObject");
  EXPECT_EQ(*json->asDictionary(), expected);

  // Python's plistlib reads the binary property list and its UIDs; the layout itself is checked
  // with the archiver, this is the record's class chain as another reader sees it.
  const char* script = R"PY(
import plistlib,sys
a=plistlib.load(open(sys.argv[1],'rb'))
o=a['$objects']
root=o[a['$top']['root'].data]
cls=o[root['$class'].data]
assert cls['$classname']=='VLTestCaseObject' and cls['$classes'][-1]=='NSObject', cls
print(o[root['Name'].data])
)PY";
  auto result = test::runChild({"python3", "-c", script, archive});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.out, "WiFi Ping Gateway\n");
}

TEST_F(VorlundctlTest, PlainValuesInEveryFormat) {
  test::writeFile(dir_.file("in.json"), R"({"b": [1, 2.5, true], "a": "text"})");
  for (std::string format : {"archive", "xml", "binary", "json"}) {
    std::string out = dir_.file("out." + format);
    auto encoded =
        ctl({"encode", "--class", "NSDictionary", "--format", format, dir_.file("in.json"), out});
    ASSERT_EQ(encoded.exitStatus, 0) << format << ": " << encoded.err;
    auto decoded = ctl({"decode", out});
    ASSERT_EQ(decoded.exitStatus, 0) << format << ": " << decoded.err;
    EXPECT_EQ(json::parse(decoded.out), json::parse(R"({"b": [1, 2.5, true], "a": "text"})"))
        << format;
  }
  // An archive another tool wrote, with the mutable class names such tools use, decodes.
  auto foreign =
      ctl({"decode", std::string(VORLUND_TESTDATA_DIR) + "/archives/foreign_dictionary.plist"});
  EXPECT_EQ(foreign.exitStatus, 0) << foreign.err;
  EXPECT_TRUE(json::parse(foreign.out).has_value()) << foreign.out;
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
      {{"decode", std::string(VORLUND_TESTDATA_DIR) + "/archives/foreign_refused.plist"}, "class"},
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

}  // namespace
}  // namespace vl
