#include "vorlund/conversion/keyed_archive.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "foundation/plist_bytes.h"
#include "support/test_support.h"
#include "vorlund/foundation/property_list.h"

namespace vl {
namespace {

// A small codable record for the conversion tests: inline scalars, objects by reference, nested
// collections and an optional child record of its own class.
class SampleRecord : public CodableRecord {
 public:
  static constexpr const char* kClassName = "VLSampleRecord";

  std::string name;
  int64_t count = 0;
  double ratio = 0;
  bool flag = false;
  std::optional<Date> started;
  Dictionary options;
  Array tags;
  std::shared_ptr<SampleRecord> child;

  explicit SampleRecord(std::string n = "", int64_t c = 0, double r = 0, bool f = false)
      : name(std::move(n)), count(c), ratio(r), flag(f) {}

  std::string className() const override { return kClassName; }

  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(name, "Name");
    coder.encodeInt64(count, "Count");
    coder.encodeDouble(ratio, "Ratio");
    coder.encodeBool(flag, "Flag");
    if (started) coder.encodeObject(*started, "Started");
    coder.encodeObject(options, "Options");
    coder.encodeObject(tags, "Tags");
    if (child) coder.encodeObject(Value(child), "Child");
  }

  static std::shared_ptr<CodableRecord> decode(KeyedUnarchiver& coder) {
    auto r = std::make_shared<SampleRecord>();
    r->name = coder.decodeString("Name").value_or("");
    r->count = coder.decodeInt64("Count");
    r->ratio = coder.decodeDouble("Ratio");
    r->flag = coder.decodeBool("Flag");
    r->started = coder.decodeDate("Started");
    r->options = coder.decodeDictionary("Options").value_or(Dictionary{});
    r->tags = coder.decodeArray("Tags").value_or(Array{});
    r->child = coder.decodeObject("Child", ClassSet{kClassName}).record<SampleRecord>();
    if (coder.failed()) return nullptr;
    return r;
  }
};

const bool kSampleRecordRegistered =
    registerCodableClass({SampleRecord::kClassName, {"NSObject"}, &SampleRecord::decode, nullptr});

// The allowed set of the keyed-archive tests: plain values and the sample record.
ClassSet sampleClasses() {
  ClassSet classes = plainValueClasses();
  classes.insert(SampleRecord::kClassName);
  return classes;
}

std::string archived(const Value& v) { return archive(v).value(); }

Value roundTrip(const Value& v) { return unarchive(archived(v), sampleClasses()).value(); }

// Unarchives bytes expecting failure; returns the error's description.
std::string refusal(std::string_view bytes, const ClassSet& allowed = sampleClasses()) {
  Error error;
  auto back = unarchive(bytes, allowed, &error);
  EXPECT_FALSE(back) << back->description();
  EXPECT_EQ(error.domain, kKeyedArchiveErrorDomain);
  EXPECT_EQ(error.code, kKeyedArchiveReadCorruptError);
  return error.localizedDescription();
}

// An archive's parsed tree: the top dictionary, the root object and the root's index.
struct Tree {
  plist_t top;
  plist_t root;
  uint32_t uid;
  plist_t objects() const { return plist_dict_get_item(top, "$objects"); }
};

// Parses an archive, lets edit change its tree, writes it back and returns why it is refused.
std::string refusalAfter(const std::string& bytes, const std::function<void(Tree&)>& edit) {
  plist_t top = nullptr;
  plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &top);
  std::unique_ptr<void, decltype(&plist_free)> owned(top, &plist_free);
  uint64_t uid = 0;
  plist_get_uid_val(plist_dict_get_item(plist_dict_get_item(top, "$top"), "root"), &uid);
  Tree tree{top, nullptr, static_cast<uint32_t>(uid)};
  tree.root = plist_array_get_item(tree.objects(), tree.uid);
  edit(tree);
  char* out = nullptr;
  uint32_t length = 0;
  plist_to_bin(top, &out, &length);
  std::string result(out, length);
  plist_to_bin_free(out);
  return refusal(result);
}

std::shared_ptr<SampleRecord> sampleRecord() {
  auto r = std::make_shared<SampleRecord>("Throughput", -12, 0.75, true);
  r->started = Date{1700000000.25};
  r->options = Dictionary{{"Retries", 3}, {"Hosts", Array{"h1", "h2"}}};
  r->tags = Array{"wifi", "stress"};
  return r;
}

TEST(KeyedArchiveTest, RoundTripsEveryValueKindKeepsNumberTypesAndRecordIdentity) {
  // Every kind a property list holds, and the kinds only an archive holds.
  Dictionary original = test::everyKind();
  original.set("True", true);
  original.set("Float", 1.5f);
  original.set("Old Date", Date{-100000.5});
  original.set("Uuid", Uuid::random());
  original.set("Nulls", Array{Value(), Array{true}});
  Value back = roundTrip(original);
  ASSERT_TRUE(back.isDictionary());
  const Dictionary& d = *back.asDictionary();
  EXPECT_EQ(d, original);
  EXPECT_EQ(d.keys(), original.keys());
  // The format has one integer and one real kind: Float and Int32 come back with the general codes.
  std::string codes;
  for (const char* key :
       {"Negative", "Smallest", "Largest Unsigned", "True", "Real", "Float", "Int32"}) {
    codes += d.get(key).asNumber()->typeCode();
  }
  EXPECT_EQ(codes, "qqQBddq");
  EXPECT_EQ(d.get("Int32").int64Or(0), 7);

  // Records come back whole, once however often they are referred to.
  auto record = sampleRecord();
  record->child = std::make_shared<SampleRecord>("child");
  const Value records = roundTrip(Array{record, Dictionary{{"Again", record}}});
  auto first = records.asArray()->at(0).record<SampleRecord>();
  ASSERT_TRUE(first && first->child);
  EXPECT_EQ(first, records.asArray()->at(1).asDictionary()->get("Again").record<SampleRecord>());
  EXPECT_EQ(archived(first), archived(record));  // every field, the child's too

  for (const Value& plain : {Value("just a string"), Value(int64_t{-5}), Value(Array{}), Value()}) {
    EXPECT_EQ(roundTrip(plain), plain);
  }
}

TEST(KeyedArchiveTest, RefusesClassesOutsideTheAllowedSetAndRecordsThatCannotBeCoded) {
  std::string bytes = archived(Array{"fine", sampleRecord()});
  std::string why = refusal(bytes, plainValueClasses());
  EXPECT_NE(why.find("'VLSampleRecord'"), std::string::npos) << why;
  // Narrowing the set below the plain classes refuses the collection itself.
  ClassSet onlyStrings{kClassString};
  EXPECT_NE(refusal(archived(Array{"a"}), onlyStrings).find("'NSArray'"), std::string::npos);
  EXPECT_NE(refusal(archived(Value(3)), onlyStrings).find("'NSNumber'"), std::string::npos);

  struct Plain : Record {
    std::string className() const override { return "VLPlainRecord"; }
  };
  Error error;
  EXPECT_FALSE(archive(Array{std::make_shared<Plain>()}, &error));
  EXPECT_EQ(error.code, kKeyedArchiveWriteError);
  EXPECT_NE(error.localizedDescription().find("VLPlainRecord"), std::string::npos);
  // A string a binary property list cannot hold is refused rather than cut short.
  EXPECT_FALSE(archive(Value(std::string("a\0b", 3)), &error));
  EXPECT_FALSE(archive(Value(std::string("\xff\xfe")), &error));
}

TEST(KeyedArchiveTest, MalformedArchivesGiveErrors) {
  const std::string good = archived(Dictionary{{"List", Array{1, 2}}, {"Record", sampleRecord()}});
  ASSERT_TRUE(unarchive(good, sampleClasses()));

  auto setRoot = [](Tree& t, plist_t v) {
    plist_dict_set_item(plist_dict_get_item(t.top, "$top"), "root", v);
  };
  const std::pair<const char*, std::function<void(Tree&)>> cases[] = {
      {"outside", [&](Tree& t) { setRoot(t, plist_new_uid(999)); }},
      {"root", [&](Tree& t) { setRoot(t, plist_new_uint(1)); }},
      {"$top", [](Tree& t) { plist_dict_remove_item(t.top, "$top"); }},
      {"", [](Tree& t) { plist_dict_set_item(t.top, "$objects", plist_new_string("x")); }},
      {"", [](Tree& t) { plist_dict_remove_item(t.top, "$archiver"); }},
      // An array that holds itself, and a dictionary whose key is a number.
      {"contains itself",
       [](Tree& t) {
         plist_array_set_item(plist_dict_get_item(t.root, "NS.objects"), plist_new_uid(t.uid), 0);
       }},
      {"not a string",
       [](Tree& t) {
         plist_t valueRef = plist_array_get_item(plist_dict_get_item(t.root, "NS.objects"), 0);
         plist_array_set_item(plist_dict_get_item(t.root, "NS.keys"), plist_copy(valueRef), 0);
       }},
      {"", [](Tree& t) { plist_dict_set_item(t.root, "NS.objects", plist_new_uint(4)); }},
      {"", [](Tree& t) { plist_dict_set_item(t.root, "$class", plist_new_uid(0)); }},
      {"", [](Tree& t) { plist_dict_remove_item(t.root, "NS.keys"); }},
  };
  for (const auto& [expected, edit] : cases) {
    EXPECT_NE(refusalAfter(good, edit).find(expected), std::string::npos) << expected;
  }

  // Every truncation of a good archive is an error, never a crash.
  for (size_t n = 0; n < good.size(); ++n) {
    EXPECT_FALSE(unarchive(std::string_view(good).substr(0, n), sampleClasses())) << n;
  }
  refusal("not a property list at all");
  EXPECT_TRUE(isKeyedArchive(good));
  EXPECT_FALSE(isKeyedArchive(*plist::serialize(Dictionary{{"a", 1}}, plist::Format::Binary)));
  EXPECT_FALSE(isKeyedArchive("garbage"));
}

TEST(KeyedArchiveTest, TypedReadersFailTheDecodeOnWrongTypes) {
  const std::string good = archived(sampleRecord());
  // "Name" refers to a number instead of a string.
  std::string why = refusalAfter(good, [](Tree& t) {
    plist_array_append_item(t.objects(), plist_new_uint(5));
    plist_dict_set_item(t.root, "Name", plist_new_uid(plist_array_get_size(t.objects()) - 1));
  });
  EXPECT_NE(why.find("NSNumber"), std::string::npos) << why;
  // "Count" holds a string inline, "Options" refers to an array, "Tags" holds a bool inline.
  refusalAfter(good, [](Tree& t) { plist_dict_set_item(t.root, "Count", plist_new_string("x")); });
  refusalAfter(good, [](Tree& t) {
    plist_dict_set_item(t.root, "Options", plist_copy(plist_dict_get_item(t.root, "Tags")));
  });
  refusalAfter(good, [](Tree& t) { plist_dict_set_item(t.root, "Tags", plist_new_bool(1)); });
}

TEST(KeyedArchiveTest, HostileStructuresAreRefusedNotExpanded) {
  EXPECT_NE(refusal(test::widening(40)).find("size limit"), std::string::npos);

  auto nested = [](int levels) {
    Value v = Array{};
    for (int i = 0; i < levels; ++i) v = Array{v};
    return v;
  };
  Error error;
  EXPECT_FALSE(archive(nested(600), &error));
  EXPECT_NE(error.localizedDescription().find("nested too deeply"), std::string::npos);
  EXPECT_EQ(roundTrip(nested(400)), nested(400));

  // Inputs the fuzzers found: a key holding a NUL (the property-list library aborts when asked for
  // it) and strings that are not UTF-8.
  for (const char* finding : {"archive_nul_in_key.bin", "plist_reader_non_utf8_archive.plist"}) {
    std::string bytes =
        test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/fuzz-findings/" + finding);
    EXPECT_FALSE(unarchive(bytes, sampleClasses(), &error)) << finding;
  }
}

// Archives from another implementation, written by tests/testdata/archives/make_archives.py in a
// foreign archiver's layout.
std::string sample(const std::string& name) {
  return test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/archives/" + name);
}

TEST(ArchiveInteropTest, ReadsForeignArchivesInBothFormatsAndRefusesForeignClasses) {
  const Dictionary expected{
      {"Name", "Ping"},
      {"Count", 42},
      {"Negative", -7},
      {"Huge", UINT64_MAX},
      {"Ratio", 0.25},
      {"Enabled", true},
      {"Start", Date{1672531200.5}},  // 2023-01-01 00:00:00.5 UTC
      {"Payload", Data(std::vector<uint8_t>{0, 1, 2, 0xff})},
      {"Blob", Data::fromString("blob")},
      {"Identifier", *Uuid::fromString("6E1B2C3D-4A5B-4C6D-8E7F-90A1B2C3D4E5")},
      {"Tags", Array{"alpha", "beta", "gamma"}},
      {"Nested", Dictionary{{"Inner", Array{1, 2}}, {"Label", "alpha"}}},
      {"Title", "Wi-Fi \u00e9t\u00e9 \u2603"}};
  for (const char* file : {"foreign_dictionary.plist", "foreign_dictionary_xml.plist"}) {
    Error error;
    auto value = unarchive(sample(file), plainValueClasses(), &error);
    ASSERT_TRUE(value) << file << ": " << error.description();
    EXPECT_EQ(*value, Value(expected)) << file;
    const Dictionary& d = *value->asDictionary();
    std::string codes;
    for (const char* key : {"Count", "Huge", "Enabled"}) codes += d.get(key).asNumber()->typeCode();
    EXPECT_EQ(codes, "qQB") << file;
  }
  // The last two claim an allowed class (NSDictionary, VLSampleRecord) as their superclass.
  for (const char* file : {"foreign_refused.plist", "foreign_disguised_dictionary.plist",
                           "foreign_disguised_record.plist"}) {
    EXPECT_NE(refusal(sample(file)).find("'WLRemoteCommand'"), std::string::npos) << file;
  }
}

}  // namespace
}  // namespace vl
