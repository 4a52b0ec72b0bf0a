#include "vorlund/foundation/property_list.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdint>
#include <limits>

#include "foundation/plist_bytes.h"
#include "support/test_support.h"

namespace vl {
namespace {

using test::binaryPlist;
using test::everyKind;
using test::widening;

class Opaque : public Record {
 public:
  std::string className() const override { return "Opaque"; }
};

TEST(PropertyListTest, RoundTripsKeepEveryKindOrderAndType) {
  for (auto format : {plist::Format::Binary, plist::Format::Xml}) {
    Dictionary d = everyKind();
    Error error;
    std::optional<Value> back = plist::parse(plist::serialize(Value(d), format).value(), &error);
    ASSERT_TRUE(back) << error.description();
    // Binary dates keep fractions of a second, XML dates whole seconds only.
    if (format == plist::Format::Xml) d.set("Date", Value(Date{1700000000}));
    EXPECT_EQ(*back, Value(d));
    const Dictionary& b = *back->asDictionary();
    EXPECT_EQ(b.keys(), d.keys());
    std::string codes;
    for (const char* key : {"Negative", "Smallest", "Largest Unsigned", "Real", "Whole Real"}) {
      codes += b.get(key).asNumber()->typeCode();
    }
    codes += b.get("Inner").asDictionary()->get("zeta").asNumber()->typeCode();
    EXPECT_EQ(codes, "qqQddB");
  }
  const Uuid uuid = Uuid::random();
  EXPECT_EQ(plist::parse(*plist::serialize(Value(Array{Value(uuid)}), plist::Format::Xml)),
            Value(Array{Value(uuid.string())}));
}

TEST(PropertyListTest, DatesBeforeTheReferenceDateKeepTheirSign) {
  for (double offset : {-4.75, -0.5, -86400.125, 3.5}) {
    std::optional<Value> back = plist::parse(*plist::serialize(
        Value(Array{Value(Date::fromReferenceDate(offset))}), plist::Format::Binary));
    ASSERT_TRUE(back);
    // -0.5 cannot be told from +0.5 through libplist 2.2: only the magnitude is checked there.
    const double seconds = (*back->asArray())[0].asDate()->secondsSinceReferenceDate();
    const bool signLost = offset > -1 && offset < 0;
    EXPECT_DOUBLE_EQ(signLost ? -std::abs(seconds) : seconds, offset) << offset;
  }
  Error error;
  EXPECT_FALSE(plist::serialize(Value(Array{Value(Date{1e12})}), plist::Format::Binary, &error));
  EXPECT_NE(error.localizedDescription().find("outside the property-list range"),
            std::string::npos);
}

TEST(PropertyListTest, UidsReadAsCfUidDictionariesAndWriteBack) {
  const Value withUid(Dictionary{{"$top", Value(Dictionary{{"CF$UID", Value(int64_t{3})}})}});
  for (auto format : {plist::Format::Binary, plist::Format::Xml}) {
    EXPECT_EQ(plist::parse(*plist::serialize(withUid, format)), withUid);
  }
  // In binary form the reference is a real UID object (marker 0x80), not a dictionary.
  std::string binary = *plist::serialize(withUid, plist::Format::Binary);
  EXPECT_NE(binary.find(std::string("\x80\x03", 2)), std::string::npos);
}

TEST(PropertyListTest, ValuesAPropertyListCannotHoldAreRefused) {
  const std::tuple<const char*, Value, const char*> cases[] = {
      {"record", Value(Array{Value(std::make_shared<Opaque>())}), "record of class Opaque"},
      {"none in array", Value(Array{Value(int32_t{1}), Value()}), "none value"},
      {"NUL in string", Value(std::string("a\0b", 3)), "NUL"},
      {"invalid UTF-8", Value(std::string("\xc3\x28")), "UTF-8"},
      {"invalid UTF-8 key", Value(Dictionary{{std::string("\xff"), Value(int32_t{1})}}), "key"},
  };
  for (const auto& [what, value, reason] : cases) {
    for (auto format : {plist::Format::Binary, plist::Format::Xml}) {
      Error error;
      EXPECT_FALSE(plist::serialize(value, format, &error)) << what;
      EXPECT_EQ(error.domain, "VLPropertyListErrorDomain") << what;
      EXPECT_NE(error.localizedDescription().find(reason), std::string::npos)
          << what << ": " << error.localizedDescription();
    }
  }
}

std::string finding(const std::string& name) {
  return test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/fuzz-findings/" + name + ".plist");
}

TEST(PropertyListTest, MalformedAndHostileInputGivesErrors) {
  std::string valid = *plist::serialize(Value(everyKind()), plist::Format::Binary);
  std::string xml = *plist::serialize(Value(everyKind()), plist::Format::Xml);
  ASSERT_TRUE(plist::parse(widening(4)));  // the builder itself makes valid lists

  std::string deepXml = "<plist version=\"1.0\">";
  for (int i = 0; i < 200000; ++i) deepXml += "<array>";
  for (int i = 0; i < 200000; ++i) deepXml += "</array>";
  deepXml += "</plist>";

  const std::pair<const char*, std::string> cases[] = {
      {"empty", ""},
      {"truncated binary", valid.substr(0, valid.size() / 2)},
      {"damaged trailer", valid.substr(0, valid.size() - 9) + std::string(9, '\xff')},
      {"mismatched XML", "<plist version=\"1.0\"><dict><key>a</key></array></plist>"},
      {"array holding itself", binaryPlist("\xA1\x00", {8})},
      {"expanding", widening(40)},
      // {"a\0b": true}: libplist itself would abort on that key.
      {"NUL in a key", binaryPlist(std::string("\xD1\x01\x02\123a\0b\x09", 8), {8, 11, 15})},
      {"string not UTF-8", binaryPlist(std::string("\xA1\x01\122a\xff", 6), {8, 10})},
      {"recorded: XML not UTF-8", finding("plist_reader_non_utf8_definition")},
      {"recorded: archive not UTF-8", finding("plist_reader_non_utf8_archive")},
      {"recorded: NUL in a string", finding("plist_reader_nul_in_string")},
      {"deep XML", deepXml},
  };
  for (const auto& [what, bytes] : cases) {
    Error error;
    EXPECT_FALSE(plist::parse(bytes, &error)) << what;
    EXPECT_EQ(error.domain, "VLPropertyListErrorDomain") << what;
  }
  // A NUL inside a binary string value reads as the text before it (libplist keeps that much).
  EXPECT_EQ(plist::parse(binaryPlist(std::string("\xA1\x01\123a\0b", 7), {8, 10})),
            Value(Array{Value("a")}));
  // Every truncation of a valid binary list fails cleanly or reads; none crashes.
  for (size_t n = 0; n < valid.size(); n += 7) plist::parse(valid.substr(0, n));
}

TEST(PropertyListTest, FailedWritesLeaveTheOldFileWhole) {
  test::TempDir dir;
  const std::string path = dir.file("Settings.plist");
  ASSERT_TRUE(plist::writeFile(Value(Dictionary{{"Old", Value(true)}}), path));
  const std::string before = test::readFile(path);

  Error error;
  EXPECT_FALSE(plist::writeFile(Value(Array{Value(std::make_shared<Opaque>())}), path,
                                plist::Format::Xml, &error));
  EXPECT_EQ(test::readFile(path), before);

  // A write that fails half-way (the file-size limit stops it even for root).
  rlimit saved{};
  getrlimit(RLIMIT_FSIZE, &saved);
  auto previousHandler = signal(SIGXFSZ, SIG_IGN);
  rlimit small = saved;
  small.rlim_cur = 4096;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const Value big(Dictionary{{"Blob", Value(Data(std::vector<uint8_t>(100000, 7)))}});
  const bool written = plist::writeFile(big, path, plist::Format::Binary, &error);
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, previousHandler);
  EXPECT_FALSE(written);
  EXPECT_EQ(error.domain, "VLPropertyListErrorDomain");
  EXPECT_EQ(test::readFile(path), before);
}

}  // namespace
}  // namespace vl
