#include "vorlund/conversion/keyed_archive.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <functional>
#include <memory>
#include <string>

#include "conversion/sample_record.h"
#include "vorlund/foundation/property_list.h"

namespace vl {
namespace {

using test::SampleRecord;
using test::sampleClasses;

struct PlistFree {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

std::string archived(const Value& v) {
  Error error;
  auto bytes = archive(v, &error);
  EXPECT_TRUE(bytes) << error.description();
  return bytes.value_or("");
}

Value roundTrip(const Value& v, const ClassSet& allowed = sampleClasses()) {
  Error error;
  auto back = unarchive(archived(v), allowed, &error);
  EXPECT_TRUE(back) << error.description();
  return back.value_or(Value());
}

// Unarchives bytes expecting failure; returns the error's description.
std::string refusal(std::string_view bytes, const ClassSet& allowed = sampleClasses()) {
  Error error;
  auto back = unarchive(bytes, allowed, &error);
  EXPECT_FALSE(back) << back->description();
  EXPECT_EQ(error.domain, kKeyedArchiveErrorDomain);
  EXPECT_EQ(error.code, kKeyedArchiveReadCorruptError);
  return error.localizedDescription();
}

// Parses an archive, lets edit change its tree, and writes it back.
std::string edited(const std::string& bytes, const std::function<void(plist_t top)>& edit) {
  plist_t root = nullptr;
  plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  PlistPtr owned(root);
  EXPECT_NE(root, nullptr);
  if (!root) return "";
  edit(root);
  char* out = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &out, &length);
  std::string result(out, length);
  plist_to_bin_free(out);
  return result;
}

plist_t objectAt(plist_t top, uint32_t index) {
  return plist_array_get_item(plist_dict_get_item(top, "$objects"), index);
}

uint64_t rootIndex(plist_t top) {
  uint64_t uid = 0;
  plist_get_uid_val(plist_dict_get_item(plist_dict_get_item(top, "$top"), "root"), &uid);
  return uid;
}

std::shared_ptr<SampleRecord> sampleRecord() {
  auto r = std::make_shared<SampleRecord>();
  r->name = "Throughput";
  r->count = -12;
  r->ratio = 0.75;
  r->flag = true;
  r->started = Date{1700000000.25};
  r->options = Dictionary{{"Retries", 3}, {"Hosts", Array{"h1", "h2"}}};
  r->tags = Array{"wifi", "stress"};
  return r;
}

TEST(KeyedArchiveTest, RoundTripsEveryValueKindAndKeepsNumberTypes) {
  auto uuid = *Uuid::fromString("6E1B2C3D-4A5B-4C6D-8E7F-90A1B2C3D4E5");
  Dictionary original{
      {"String", "Wi-Fi \u00e9t\u00e9 \u2603"},
      {"Empty", ""},
      {"Negative", int64_t{-7}},
      {"Min", std::numeric_limits<int64_t>::min()},
      {"Huge", std::numeric_limits<uint64_t>::max()},
      {"Unsigned", uint64_t{1} << 63},
      {"True", true},
      {"False", false},
      {"Double", 0.1},
      {"Float", 1.5f},
      {"Int32", int32_t{-3}},
      {"Date", Date{1700000000.125}},
      {"OldDate", Date{-100000.5}},
      {"Data", Data(std::vector<uint8_t>{0, 1, 2, 255})},
      {"Uuid", uuid},
      {"Array", Array{1, "two", Array{}, Dictionary{}, Value()}},
      {"Nested", Dictionary{{"Inner", Dictionary{{"Deep", Array{Array{true}}}}}}},
  };
  Value back = roundTrip(original);
  ASSERT_TRUE(back.isDictionary());
  const Dictionary& d = *back.asDictionary();
  EXPECT_EQ(d, original);
  EXPECT_EQ(d.keys(), original.keys());
  auto type = [&](const char* key) { return d.get(key).asNumber()->typeCode(); };
  EXPECT_EQ(type("Negative"), 'q');
  EXPECT_EQ(d.get("Negative").int64Or(0), -7);
  EXPECT_EQ(type("Min"), 'q');
  EXPECT_EQ(type("Huge"), 'Q');
  EXPECT_EQ(d.get("Huge").asNumber()->uint64Value(), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(type("Unsigned"), 'Q');
  EXPECT_EQ(type("True"), 'B');
  EXPECT_EQ(type("False"), 'B');
  EXPECT_EQ(type("Double"), 'd');
  // The format has one integer and one real kind: these come back with the general type code.
  EXPECT_EQ(type("Float"), 'd');
  EXPECT_EQ(type("Int32"), 'q');
  EXPECT_EQ(d.get("Int32").int64Or(0), -3);
  EXPECT_EQ(*d.get("Date").asDate(), (Date{1700000000.125}));
  EXPECT_TRUE(d.get("Array").asArray()->at(4).isNone());
}

TEST(KeyedArchiveTest, RoundTripsPlainRootsAndNone) {
  EXPECT_EQ(roundTrip("just a string"), Value("just a string"));
  EXPECT_EQ(roundTrip(int64_t{-5}), Value(int64_t{-5}));
  EXPECT_EQ(roundTrip(Array{}), Value(Array{}));
  Error error;
  auto none = unarchive(archived(Value()), sampleClasses(), &error);
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->isNone());
}

TEST(KeyedArchiveTest, WritesTheStandardLayoutWithSharedClasses) {
  Value v = Dictionary{{"A", Dictionary{{"B", Date{0}}}}, {"C", Dictionary{{"D", Date{1}}}}};
  auto parsed = plist::parse(archived(v));
  ASSERT_TRUE(parsed && parsed->isDictionary());
  const Dictionary& top = *parsed->asDictionary();
  EXPECT_EQ(top.get("$archiver"), Value("NSKeyedArchiver"));
  EXPECT_EQ(top.get("$version").int64Or(0), 100000);
  EXPECT_TRUE(top.get("$top").asDictionary()->contains("root"));
  const Array& objects = *top.get("$objects").asArray();
  EXPECT_EQ(objects[0], Value("$null"));
  int dictionaryClasses = 0;
  int dateClasses = 0;
  for (const Value& o : objects) {
    auto* d = o.asDictionary();
    if (!d || !d->contains("$classname")) continue;
    if (d->get("$classname") == Value("NSDictionary")) {
      ++dictionaryClasses;
      EXPECT_EQ(d->get("$classes"), Value(Array{"NSDictionary", "NSObject"}));
    }
    if (d->get("$classname") == Value("NSDate")) ++dateClasses;
  }
  EXPECT_EQ(dictionaryClasses, 1);
  EXPECT_EQ(dateClasses, 1);
}

TEST(KeyedArchiveTest, RecordsRoundTripAndKeepTheirIdentity) {
  auto record = sampleRecord();
  record->child = std::make_shared<SampleRecord>();
  record->child->name = "child";
  Value back = roundTrip(Array{record, record, Dictionary{{"Again", record}}});
  ASSERT_TRUE(back.isArray());
  auto first = back.asArray()->at(0).record<SampleRecord>();
  ASSERT_TRUE(first);
  EXPECT_EQ(first, back.asArray()->at(1).record<SampleRecord>());
  EXPECT_EQ(first, back.asArray()->at(2).asDictionary()->get("Again").record<SampleRecord>());
  EXPECT_EQ(first->name, "Throughput");
  EXPECT_EQ(first->count, -12);
  EXPECT_EQ(first->ratio, 0.75);
  EXPECT_TRUE(first->flag);
  EXPECT_EQ(first->started, (Date{1700000000.25}));
  EXPECT_EQ(first->options, record->options);
  EXPECT_EQ(first->tags, record->tags);
  ASSERT_TRUE(first->child);
  EXPECT_EQ(first->child->name, "child");
  EXPECT_FALSE(first->child->started);
}

TEST(KeyedArchiveTest, RefusesClassesOutsideTheAllowedSet) {
  std::string bytes = archived(Array{"fine", sampleRecord()});
  std::string why = refusal(bytes, plainValueClasses());
  EXPECT_NE(why.find("'VLSampleRecord'"), std::string::npos) << why;
  // Narrowing the set below the plain classes refuses the collection itself.
  ClassSet onlyStrings{kClassString};
  EXPECT_NE(refusal(archived(Array{"a"}), onlyStrings).find("'NSArray'"), std::string::npos);
  EXPECT_NE(refusal(archived(Value(3)), onlyStrings).find("'NSNumber'"), std::string::npos);
}

TEST(KeyedArchiveTest, RefusesRecordsThatCannotBeCoded) {
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

  using Edit = std::function<void(plist_t top, plist_t root, uint64_t rootUid)>;
  const std::pair<const char*, Edit> cases[] = {
      {"outside", [](plist_t top, plist_t, uint64_t) {
         plist_dict_set_item(plist_dict_get_item(top, "$top"), "root", plist_new_uid(999));
       }},
      {"$top", [](plist_t top, plist_t, uint64_t) { plist_dict_remove_item(top, "$top"); }},
      {"root", [](plist_t top, plist_t, uint64_t) {
         plist_dict_set_item(plist_dict_get_item(top, "$top"), "root", plist_new_uint(1));
       }},
      {"", [](plist_t top, plist_t, uint64_t) {
         plist_dict_set_item(top, "$objects", plist_new_string("x"));
       }},
      {"", [](plist_t top, plist_t, uint64_t) { plist_dict_remove_item(top, "$archiver"); }},
      // An array that holds itself, and a dictionary whose key is a number.
      {"contains itself", [](plist_t, plist_t root, uint64_t uid) {
         plist_array_set_item(plist_dict_get_item(root, "NS.objects"), plist_new_uid(uid), 0);
       }},
      {"not a string", [](plist_t, plist_t root, uint64_t) {
         plist_t valueRef = plist_copy(plist_array_get_item(plist_dict_get_item(root, "NS.objects"), 0));
         plist_array_set_item(plist_dict_get_item(root, "NS.keys"), valueRef, 0);
       }},
      {"", [](plist_t, plist_t root, uint64_t) {
         plist_dict_set_item(root, "NS.objects", plist_new_uint(4));
       }},
      {"", [](plist_t, plist_t root, uint64_t) {
         plist_dict_set_item(root, "$class", plist_new_uid(0));
       }},
      {"", [](plist_t, plist_t root, uint64_t) { plist_dict_remove_item(root, "NS.keys"); }},
  };
  for (const auto& [expected, edit] : cases) {
    std::string bytes = edited(good, [&](plist_t top) {
      uint64_t uid = rootIndex(top);
      edit(top, objectAt(top, static_cast<uint32_t>(uid)), uid);
    });
    EXPECT_NE(refusal(bytes).find(expected), std::string::npos) << expected;
  }

  // Every truncation of a good archive is an error, never a crash.
  for (size_t n = 0; n < good.size(); ++n) {
    Error error;
    EXPECT_FALSE(unarchive(std::string_view(good).substr(0, n), sampleClasses(), &error)) << n;
  }
  refusal("not a property list at all");
}

TEST(KeyedArchiveTest, TypedReadersFailTheDecodeOnWrongTypes) {
  auto record = sampleRecord();
  const std::string good = archived(record);
  auto withRecord = [&](const std::function<void(plist_t top, plist_t record)>& edit) {
    return edited(good, [&](plist_t top) {
      edit(top, objectAt(top, static_cast<uint32_t>(rootIndex(top))));
    });
  };
  // "Name" refers to a number instead of a string.
  std::string why = refusal(withRecord([](plist_t top, plist_t r) {
    plist_array_append_item(plist_dict_get_item(top, "$objects"), plist_new_uint(5));
    uint32_t last = plist_array_get_size(plist_dict_get_item(top, "$objects")) - 1;
    plist_dict_set_item(r, "Name", plist_new_uid(last));
  }));
  EXPECT_NE(why.find("NSNumber"), std::string::npos) << why;
  // "Count" holds a string inline, "Options" refers to an array.
  refusal(withRecord([](plist_t, plist_t r) { plist_dict_set_item(r, "Count", plist_new_string("x")); }));
  refusal(withRecord([](plist_t top, plist_t r) {
    plist_dict_set_item(r, "Options", plist_copy(plist_dict_get_item(r, "Tags")));
    (void)top;
  }));
  refusal(withRecord([](plist_t, plist_t r) { plist_dict_set_item(r, "Tags", plist_new_bool(1)); }));
}

// A binary plist in which every array holds the previous one twice: a few hundred bytes that a
// naive reader expands into 2^levels copies.
std::string widening(int levels) {
  std::string body = "bplist00";
  std::vector<uint64_t> offsets;
  offsets.push_back(body.size());
  body += '\x10';
  body += '\x01';
  for (int i = 1; i <= levels; ++i) {
    offsets.push_back(body.size());
    body += '\xA2';
    body += static_cast<char>(i - 1);
    body += static_cast<char>(i - 1);
  }
  uint64_t table = body.size();
  for (uint64_t o : offsets) {
    body += static_cast<char>(o >> 8);
    body += static_cast<char>(o & 0xFF);
  }
  std::string trailer(32, '\0');
  trailer[6] = 2;  // offset size
  trailer[7] = 1;  // reference size
  auto put = [&](size_t at, uint64_t v) {
    for (int i = 7; i >= 0; --i, v >>= 8) trailer[at + i] = static_cast<char>(v & 0xFF);
  };
  put(8, offsets.size());
  put(16, offsets.size() - 1);
  put(24, table);
  return body + trailer;
}

TEST(KeyedArchiveTest, HostileStructuresAreRefusedNotExpanded) {
  EXPECT_TRUE(plist::parse(widening(4)));  // the builder itself makes a valid plist
  EXPECT_NE(refusal(widening(40)).find("size limit"), std::string::npos);

  auto nested = [](int levels) {
    Value v = Array{};
    for (int i = 0; i < levels; ++i) {
      Array outer;
      outer.push_back(std::move(v));
      v = Value(std::move(outer));
    }
    return v;
  };
  Error error;
  EXPECT_FALSE(archive(nested(600), &error));
  EXPECT_NE(error.localizedDescription().find("nested too deeply"), std::string::npos);
  Value fine = nested(400);
  EXPECT_EQ(roundTrip(fine), fine);
}

TEST(KeyedArchiveTest, RecognisesKeyedArchives) {
  EXPECT_TRUE(isKeyedArchive(archived(Array{1})));
  EXPECT_FALSE(isKeyedArchive(*plist::serialize(Dictionary{{"a", 1}}, plist::Format::Binary)));
  EXPECT_FALSE(isKeyedArchive("garbage"));
  EXPECT_FALSE(isKeyedArchive(""));
}

}  // namespace
}  // namespace vl
