// Keyed archives exchanged with another implementation: samples written by
// tests/testdata/archives/make_archives.py in a foreign archiver's layout, and our own archives
// read back by Python's plistlib in a child process.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "conversion/sample_record.h"
#include "support/child_process.h"
#include "support/test_support.h"
#include "vorlund/conversion/keyed_archive.h"

namespace vl {
namespace {

using test::sampleClasses;
using test::SampleRecord;

std::string sample(const std::string& name) {
  return test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/archives/" + name);
}

void expectForeignDictionary(const std::string& file) {
  Error error;
  auto value = unarchive(sample(file), plainValueClasses(), &error);
  ASSERT_TRUE(value) << file << ": " << error.description();
  ASSERT_TRUE(value->isDictionary());
  const Dictionary& d = *value->asDictionary();
  EXPECT_EQ(d.get("Name"), Value("Ping"));
  EXPECT_EQ(d.get("Count").asNumber()->typeCode(), 'q');
  EXPECT_EQ(d.get("Count").int64Or(0), 42);
  EXPECT_EQ(d.get("Negative").int64Or(0), -7);
  EXPECT_EQ(d.get("Huge").asNumber()->typeCode(), 'Q');
  EXPECT_EQ(d.get("Huge").asNumber()->uint64Value(), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(d.get("Ratio"), Value(0.25));
  EXPECT_EQ(d.get("Enabled").asNumber()->typeCode(), 'B');
  // 2023-01-01 00:00:00.5 UTC
  EXPECT_EQ(*d.get("Start").asDate(), (Date{1672531200.5}));
  EXPECT_EQ(d.get("Payload"), Value(Data(std::vector<uint8_t>{0, 1, 2, 0xff})));
  EXPECT_EQ(d.get("Blob"), Value(Data::fromString("blob")));
  EXPECT_EQ(d.get("Identifier").asUuid()->string(), "6E1B2C3D-4A5B-4C6D-8E7F-90A1B2C3D4E5");
  EXPECT_EQ(d.get("Tags"), Value(Array{"alpha", "beta", "gamma"}));
  EXPECT_EQ(d.get("Nested"), Value(Dictionary{{"Inner", Array{1, 2}}, {"Label", "alpha"}}));
  EXPECT_EQ(d.get("Title"), Value("Wi-Fi \u00e9t\u00e9 \u2603"));
  EXPECT_EQ(d.keys().front(), "Name");
}

TEST(ArchiveInteropTest, ReadsForeignArchivesWithMutableClassesInBothFormats) {
  expectForeignDictionary("foreign_dictionary.plist");
  expectForeignDictionary("foreign_dictionary_xml.plist");
}

TEST(ArchiveInteropTest, ReadsForeignRecordsSharedByReference) {
  Error error;
  auto value = unarchive(sample("foreign_record.plist"), sampleClasses(), &error);
  ASSERT_TRUE(value) << error.description();
  const Array& items = *value->asArray();
  ASSERT_EQ(items.size(), 2u);
  auto record = items[0].record<SampleRecord>();
  ASSERT_TRUE(record);
  EXPECT_EQ(record, items[1].record<SampleRecord>());
  EXPECT_EQ(record->name, "Throughput");
  EXPECT_EQ(record->count, 12);
  EXPECT_EQ(record->ratio, 0.75);
  EXPECT_TRUE(record->flag);
  EXPECT_EQ(record->options, (Dictionary{{"Retries", 3}, {"Hosts", Array{"h1"}}}));
  EXPECT_TRUE(record->tags.empty());
}

TEST(ArchiveInteropTest, RefusesForeignClassesOutsideTheAllowedSet) {
  // The last two claim an allowed class (NSDictionary, VLSampleRecord) as their superclass.
  for (const char* file : {"foreign_refused.plist", "foreign_disguised_dictionary.plist",
                           "foreign_disguised_record.plist"}) {
    Error error;
    EXPECT_FALSE(unarchive(sample(file), sampleClasses(), &error)) << file;
    EXPECT_EQ(error.code, kKeyedArchiveReadCorruptError) << file;
    EXPECT_NE(error.localizedDescription().find("'WLRemoteCommand'"), std::string::npos)
        << file << ": " << error.description();
  }
}

constexpr const char* kReader = R"PY(
import plistlib, sys, uuid
p = plistlib.load(open(sys.argv[1], "rb"))
assert p["$archiver"] == "NSKeyedArchiver", p["$archiver"]
assert p["$version"] == 100000
objects = p["$objects"]
assert objects[0] == "$null"
def resolve(ref):
    assert isinstance(ref, plistlib.UID), ref
    return objects[ref.data]
def classname(o):
    return resolve(o["$class"])["$classname"]
def decode(ref):
    o = resolve(ref)
    if not isinstance(o, dict):
        return o
    name = classname(o)
    if name == "NSDictionary":
        return {decode(k): decode(v) for k, v in zip(o["NS.keys"], o["NS.objects"])}
    if name == "NSArray":
        return [decode(v) for v in o["NS.objects"]]
    if name == "NSDate":
        return ("date", o["NS.time"])
    if name == "NSUUID":
        return str(uuid.UUID(bytes=o["NS.uuidbytes"])).upper()
    return (name, {k: v for k, v in o.items() if k != "$class"})
root = decode(p["$top"]["root"])
assert root["Name"] == "Ping", root
assert root["Count"] == -42 and root["Huge"] == 2**64 - 1 and root["On"] is True
assert root["Ratio"] == 0.5
assert root["Start"] == ("date", 0.5), root["Start"]
assert root["Payload"] == b"\x00\x01"
assert root["Id"] == "6E1B2C3D-4A5B-4C6D-8E7F-90A1B2C3D4E5"
assert root["List"] == ["a", ["b"], {"k": "v"}]
name, fields = root["Record"]
assert name == "VLSampleRecord" and fields["Count"] == 3 and fields["Flag"] is True
assert resolve(fields["Name"]) == "rec"
classes = [o["$classname"] for o in objects if isinstance(o, dict) and "$classname" in o]
assert len(classes) == len(set(classes)), classes
print("layout ok")
)PY";

TEST(ArchiveInteropTest, PythonReadsOurArchivesInTheStandardLayout) {
  auto record = std::make_shared<SampleRecord>();
  record->name = "rec";
  record->count = 3;
  record->flag = true;
  Value root = Dictionary{
      {"Name", "Ping"},
      {"Count", int64_t{-42}},
      {"Huge", std::numeric_limits<uint64_t>::max()},
      {"On", true},
      {"Ratio", 0.5},
      {"Start", Date::fromReferenceDate(0.5)},
      {"Payload", Data(std::vector<uint8_t>{0, 1})},
      {"Id", *Uuid::fromString("6E1B2C3D-4A5B-4C6D-8E7F-90A1B2C3D4E5")},
      {"List", Array{"a", Array{"b"}, Dictionary{{"k", "v"}}}},
      {"Record", record},
  };
  Error error;
  auto bytes = archive(root, &error);
  ASSERT_TRUE(bytes) << error.description();
  test::TempDir dir;
  test::writeFile(dir.file("ours.archive"), *bytes);
  test::ChildResult python = test::runChild({"python3", "-c", kReader, dir.file("ours.archive")});
  EXPECT_EQ(python.exitStatus, 0) << python.err;
  EXPECT_EQ(python.out, "layout ok\n");
}

}  // namespace
}  // namespace vl
