#include "vorlund/foundation/property_list.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdint>
#include <limits>

#include "support/test_support.h"

namespace vl {
namespace {

class Opaque : public Record {
 public:
  std::string className() const override { return "Opaque"; }
};

// Every kind a property list holds, nested, with keys out of alphabetical order.
Dictionary everyKind() {
  Dictionary inner{{"zeta", Value(true)}, {"alpha", Value(false)}, {"mid", Value(int64_t{-5})}};
  return Dictionary{
      {"Name", Value("Grüße aus 東京 🌍")},
      {"Negative", Value(int64_t{-9000000000})},
      {"Smallest", Value(std::numeric_limits<int64_t>::min())},
      {"Largest Unsigned", Value(std::numeric_limits<uint64_t>::max())},
      {"Int32", Value(int32_t{7})},
      {"Real", Value(-2.5)},
      {"Whole Real", Value(2.0)},
      {"Date", Value(Date{1700000000.25})},
      {"Data", Value(Data(std::vector<uint8_t>{0, 1, 2, 0xff, 0}))},
      {"Empty Data", Value(Data())},
      {"List", Value(Array{Value("a"), Value(Array{Value(int64_t{1}), Value(Dictionary())}),
                           Value(Array())})},
      {"Inner", Value(inner)},
      {"", Value("empty key")},
  };
}

void expectTypes(const Dictionary& d) {
  EXPECT_EQ(d.get("Negative").asNumber()->typeCode(), 'q');
  EXPECT_EQ(d.get("Negative").asNumber()->int64Value(), -9000000000);
  EXPECT_EQ(d.get("Smallest").asNumber()->typeCode(), 'q');
  EXPECT_EQ(d.get("Largest Unsigned").asNumber()->typeCode(), 'Q');
  EXPECT_EQ(d.get("Largest Unsigned").asNumber()->uint64Value(),
            std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(d.get("Real").asNumber()->typeCode(), 'd');
  EXPECT_EQ(d.get("Whole Real").asNumber()->typeCode(), 'd');
  const Dictionary& inner = *d.get("Inner").asDictionary();
  EXPECT_EQ(inner.get("zeta").asNumber()->typeCode(), 'B');
  EXPECT_EQ(inner.keys(), (std::vector<std::string>{"zeta", "alpha", "mid"}));
}

TEST(PropertyListTest, BinaryRoundTripKeepsEveryKindOrderAndType) {
  const Value original(everyKind());
  Error error;
  std::optional<std::string> bytes = plist::serialize(original, plist::Format::Binary, &error);
  ASSERT_TRUE(bytes) << error.description();
  EXPECT_TRUE(bytes->starts_with("bplist00"));
  std::optional<Value> back = plist::parse(*bytes, &error);
  ASSERT_TRUE(back) << error.description();
  EXPECT_EQ(*back, original);
  EXPECT_EQ(back->asDictionary()->keys(), original.asDictionary()->keys());
  expectTypes(*back->asDictionary());
  // Binary dates keep fractions of a second.
  EXPECT_DOUBLE_EQ(back->asDictionary()->get("Date").asDate()->secondsSince1970, 1700000000.25);
}

TEST(PropertyListTest, XmlRoundTripKeepsEveryKindAndWholeSecondDates) {
  Dictionary d = everyKind();
  std::optional<std::string> xml = plist::serialize(Value(d), plist::Format::Xml);
  ASSERT_TRUE(xml);
  EXPECT_NE(xml->find("<key>Name</key>"), std::string::npos);
  EXPECT_NE(xml->find("<integer>-9000000000</integer>"), std::string::npos);
  EXPECT_NE(xml->find("<integer>18446744073709551615</integer>"), std::string::npos);
  std::optional<Value> back = plist::parse(*xml);
  ASSERT_TRUE(back);
  expectTypes(*back->asDictionary());
  // XML dates have whole seconds only.
  EXPECT_EQ(back->asDictionary()->get("Date"), Value(Date{1700000000}));
  d.set("Date", Value(Date{1700000000}));
  EXPECT_EQ(*back, Value(d));
  EXPECT_EQ(back->asDictionary()->keys(), d.keys());
}

TEST(PropertyListTest, DatesBeforeTheReferenceDateKeepTheirSign) {
  for (double offset : {-4.75, -0.5, -86400.125, 0.0, 3.5}) {
    const Value date(Date::fromReferenceDate(offset));
    std::optional<std::string> bytes = plist::serialize(Value(Array{date}), plist::Format::Binary);
    ASSERT_TRUE(bytes);
    std::optional<Value> back = plist::parse(*bytes);
    ASSERT_TRUE(back);
    // -0.5 cannot be told from +0.5 through libplist 2.2: only the magnitude is checked there.
    const double seconds = (*back->asArray())[0].asDate()->secondsSinceReferenceDate();
    if (offset > -1 && offset < 0) {
      EXPECT_DOUBLE_EQ(std::abs(seconds), -offset);
    } else {
      EXPECT_DOUBLE_EQ(seconds, offset) << offset;
    }
  }
  Error error;
  EXPECT_FALSE(plist::serialize(Value(Array{Value(Date{1e12})}), plist::Format::Binary, &error));
  EXPECT_NE(error.localizedDescription().find("outside the property-list range"),
            std::string::npos);
}

TEST(PropertyListTest, UidsReadAsCfUidDictionariesAndWriteBack) {
  const Value withUid(Dictionary{{"$top", Value(Dictionary{{"CF$UID", Value(int64_t{3})}})}});
  for (auto format : {plist::Format::Binary, plist::Format::Xml}) {
    std::optional<std::string> bytes = plist::serialize(withUid, format);
    ASSERT_TRUE(bytes);
    std::optional<Value> back = plist::parse(*bytes);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, withUid);
  }
  // In binary form the reference is a real UID object (marker 0x80), not a dictionary.
  std::string binary = *plist::serialize(withUid, plist::Format::Binary);
  EXPECT_NE(binary.find(std::string("\x80\x03", 2)), std::string::npos);
}

TEST(PropertyListTest, UuidsAreWrittenAsStrings) {
  const Uuid uuid = Uuid::random();
  std::optional<Value> back =
      plist::parse(*plist::serialize(Value(Array{Value(uuid)}), plist::Format::Xml));
  ASSERT_TRUE(back);
  EXPECT_EQ((*back->asArray())[0], Value(uuid.string()));
}

TEST(PropertyListTest, ValuesAPropertyListCannotHoldAreRefused) {
  struct Case {
    const char* what;
    Value value;
    const char* reason;
  };
  const Case cases[] = {
      {"record", Value(Array{Value(std::make_shared<Opaque>())}), "record of class Opaque"},
      {"none in array", Value(Array{Value(int32_t{1}), Value()}), "none value"},
      {"top-level none", Value(), "none value"},
      {"NUL in string", Value(std::string("a\0b", 3)), "NUL"},
      {"invalid UTF-8", Value(std::string("\xc3\x28")), "UTF-8"},
      {"invalid UTF-8 key", Value(Dictionary{{std::string("\xff"), Value(int32_t{1})}}), "key"},
  };
  for (const Case& c : cases) {
    for (auto format : {plist::Format::Binary, plist::Format::Xml}) {
      Error error;
      EXPECT_FALSE(plist::serialize(c.value, format, &error)) << c.what;
      EXPECT_EQ(error.domain, "VLPropertyListErrorDomain") << c.what;
      EXPECT_NE(error.localizedDescription().find(c.reason), std::string::npos)
          << c.what << ": " << error.localizedDescription();
    }
  }
}

std::string binaryPlist(const std::string& objects, const std::vector<uint8_t>& offsets,
                        uint64_t root = 0) {
  std::string out = "bplist00" + objects;
  const uint64_t tableOffset = out.size();
  for (uint8_t o : offsets) out += static_cast<char>(o);
  std::string trailer(32, '\0');
  trailer[6] = 1;  // offset size
  trailer[7] = 1;  // reference size
  auto put = [&](size_t at, uint64_t v) {
    for (int i = 7; i >= 0; --i, v >>= 8) trailer[at + i] = static_cast<char>(v & 0xff);
  };
  put(8, offsets.size());
  put(16, root);
  put(24, tableOffset);
  return out + trailer;
}

TEST(PropertyListTest, MalformedAndHostileInputGivesErrors) {
  std::string valid = *plist::serialize(Value(everyKind()), plist::Format::Binary);
  std::string xml = *plist::serialize(Value(everyKind()), plist::Format::Xml);

  // An array whose one element is the array itself.
  std::string cycle = binaryPlist("\xA1\x00", {8});
  // Forty arrays that each refer twice to the next: 2^40 objects once expanded.
  std::string widening;
  std::vector<uint8_t> offsets;
  for (int i = 0; i < 40; ++i) {
    offsets.push_back(static_cast<uint8_t>(8 + widening.size()));
    widening += '\xA2';
    widening += static_cast<char>(i + 1);
    widening += static_cast<char>(i + 1);
  }
  offsets.push_back(static_cast<uint8_t>(8 + widening.size()));
  widening += '\x09';  // true
  std::string expanding = binaryPlist(widening, offsets);
  // {"a\0b": true}: libplist itself would abort on that key.
  std::string nulKey = binaryPlist(std::string("\xD1\x01\x02\123a\0b\x09", 8), {8, 11, 15});
  std::string deepXml = "<plist version=\"1.0\">";
  for (int i = 0; i < 200000; ++i) deepXml += "<array>";
  for (int i = 0; i < 200000; ++i) deepXml += "</array>";
  deepXml += "</plist>";

  const std::pair<const char*, std::string> cases[] = {
      {"empty", ""},
      {"text", "hello, world"},
      {"truncated binary", valid.substr(0, valid.size() / 2)},
      {"binary header only", "bplist00"},
      {"damaged trailer", valid.substr(0, valid.size() - 9) + std::string(9, '\xff')},
      {"unclosed XML", xml.substr(0, xml.size() - 20)},
      {"mismatched XML", "<plist version=\"1.0\"><dict><key>a</key></array></plist>"},
      {"cycle", cycle},
      {"expanding", expanding},
      {"NUL in a key", nulKey},
      {"string not UTF-8", binaryPlist(std::string("\xA1\x01\122a\xff", 6), {8, 10})},
      {"recorded: XML not UTF-8",
       test::readFile(std::string(VORLUND_TESTDATA_DIR) +
                      "/fuzz-findings/plist_reader_non_utf8_definition.plist")},
      {"recorded: archive not UTF-8",
       test::readFile(std::string(VORLUND_TESTDATA_DIR) +
                      "/fuzz-findings/plist_reader_non_utf8_archive.plist")},
      {"recorded: NUL in a string",
       test::readFile(std::string(VORLUND_TESTDATA_DIR) +
                      "/fuzz-findings/plist_reader_nul_in_string.plist")},
      {"deep XML", deepXml},
  };
  for (const auto& [what, bytes] : cases) {
    Error error;
    EXPECT_FALSE(plist::parse(bytes, &error)) << what;
    EXPECT_EQ(error.domain, "VLPropertyListErrorDomain") << what;
    EXPECT_FALSE(error.localizedDescription().empty()) << what;
  }
  // A NUL inside a binary string value reads as the text before it (libplist keeps that much).
  std::optional<Value> nulValue =
      plist::parse(binaryPlist(std::string("\xA1\x01\123a\0b", 7), {8, 10}));
  ASSERT_TRUE(nulValue);
  EXPECT_EQ((*nulValue->asArray())[0], Value("a"));
  // Every truncation of a valid binary list fails cleanly or reads; none crashes.
  for (size_t n = 0; n < valid.size(); n += 7) plist::parse(valid.substr(0, n));
}

TEST(PropertyListTest, FilesAreWrittenAtomicallyAndReadBack) {
  test::TempDir dir;
  const std::string path = dir.file("Settings.plist");
  Dictionary settings{{"StressType", Value("WiFi")}, {"Count", Value(int64_t{3})}};
  Error error;
  ASSERT_TRUE(plist::writeFile(Value(settings), path, plist::Format::Xml, &error))
      << error.description();
  EXPECT_NE(test::readFile(path).find("<?xml"), std::string::npos);
  std::optional<Dictionary> read = plist::readDictionary(path, &error);
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, settings);

  ASSERT_TRUE(
      plist::writeFile(Value(Array{Value("x")}), dir.file("list.plist"), plist::Format::Binary));
  EXPECT_TRUE(plist::readFile(dir.file("list.plist")));
  EXPECT_FALSE(plist::readDictionary(dir.file("list.plist"), &error));
  EXPECT_NE(error.localizedDescription().find("does not hold a dictionary"), std::string::npos);
  EXPECT_FALSE(plist::readFile(dir.file("missing.plist"), &error));
  EXPECT_NE(error.localizedDescription().find("missing.plist"), std::string::npos);
  test::writeFile(dir.file("junk.plist"), "not a plist");
  EXPECT_FALSE(plist::readFile(dir.file("junk.plist"), &error));
}

TEST(PropertyListTest, FailedWritesLeaveTheOldFileWhole) {
  test::TempDir dir;
  const std::string path = dir.file("Settings.plist");
  ASSERT_TRUE(plist::writeFile(Value(Dictionary{{"Old", Value(true)}}), path));
  const std::string before = test::readFile(path);

  Error error;
  // A value that cannot be written.
  EXPECT_FALSE(plist::writeFile(Value(Array{Value(std::make_shared<Opaque>())}), path,
                                plist::Format::Xml, &error));
  EXPECT_EQ(test::readFile(path), before);

  // A write that fails half-way (the file-size limit stops it even for root).
  Dictionary big;
  big.set("Blob", Value(Data(std::vector<uint8_t>(100000, 7))));
  {
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    auto previousHandler = signal(SIGXFSZ, SIG_IGN);
    rlimit small = saved;
    small.rlim_cur = 4096;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const bool written = plist::writeFile(Value(big), path, plist::Format::Binary, &error);
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, previousHandler);
    EXPECT_FALSE(written);
  }
  EXPECT_EQ(error.domain, "VLPropertyListErrorDomain");
  EXPECT_EQ(test::readFile(path), before);
}

}  // namespace
}  // namespace vl
