#include "vorlund/conversion/ipm_conversion.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

ino_t inodeOf(int fd) {
  struct stat st {};
  ::fstat(fd, &st);
  return st.st_ino;
}

TEST(IpmConversionTest, MapsEveryTypeBothWays) {
  int pipeFds[2];
  ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
  auto reader = FileHandle::adopt(pipeFds[0]);
  auto writer = FileHandle::adopt(pipeFds[1]);

  Dictionary d{
      {"Double", 0.5},
      {"Int64", int64_t{-9}},
      {"Uint64", std::numeric_limits<uint64_t>::max()},
      {"Bool", true},
      {"Date", Date{1700000000.123456789}},
      {"Data", Data::fromString("bytes")},
      {"String", "\u00e9t\u00e9"},
      {"Handle", reader},
      {"Array", Array{1.5, Array{"x"}}},
      {"Dictionary", Dictionary{{"Inner", false}}},
  };
  IpmValue ipm = VLNSDictionaryToIPMDictionary(d);
  const IpmDictionary& entries = *ipm.asDictionary();
  ASSERT_EQ(entries.size(), d.size());
  EXPECT_EQ(*entries.find("Double")->asDouble(), 0.5);
  EXPECT_EQ(*entries.find("Int64")->asInt64(), -9);
  EXPECT_EQ(*entries.find("Uint64")->asUint64(), std::numeric_limits<uint64_t>::max());
  EXPECT_TRUE(*entries.find("Bool")->asBool());
  EXPECT_EQ(entries.find("Date")->asDate()->nanosecondsSince1970, 1700000000123456768);
  EXPECT_EQ(*entries.find("String")->asString(), "\u00e9t\u00e9");
  int ipmFd = (*entries.find("Handle")->asFileHandle())->fileDescriptor();
  EXPECT_NE(ipmFd, reader->fileDescriptor());
  EXPECT_EQ(inodeOf(ipmFd), inodeOf(reader->fileDescriptor()));
  EXPECT_EQ(entries.find("Array")->asArray()->size(), 2u);

  auto back = VLIPMDictionaryToNSDictionary(ipm);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->keys(), d.keys());
  for (const char* key : {"Double", "Int64", "Uint64", "Bool", "Data", "String", "Array",
                          "Dictionary"}) {
    EXPECT_EQ(back->get(key), d.get(key)) << key;
  }
  EXPECT_EQ(back->get("Int64").asNumber()->typeCode(), 'q');
  EXPECT_EQ(back->get("Uint64").asNumber()->typeCode(), 'Q');
  EXPECT_EQ(back->get("Bool").asNumber()->typeCode(), 'B');
  EXPECT_NEAR(back->get("Date").asDate()->secondsSince1970, 1700000000.123456789, 1e-6);
  auto handle = back->get("Handle").record<FileHandle>();
  ASSERT_TRUE(handle);
  EXPECT_NE(handle->fileDescriptor(), ipmFd);
  EXPECT_EQ(inodeOf(handle->fileDescriptor()), inodeOf(reader->fileDescriptor()));

  // Each side owns its duplicate: dropping one closes only that one.
  int handleFd = handle->fileDescriptor();
  back.reset();
  handle.reset();
  EXPECT_FALSE(isOpen(handleFd));
  EXPECT_TRUE(isOpen(ipmFd));
  ASSERT_EQ(::write(writer->fileDescriptor(), "!", 1), 1);
  char c = 0;
  ASSERT_EQ(::read(ipmFd, &c, 1), 1);
  EXPECT_EQ(c, '!');
  ipm = IpmValue();
  EXPECT_FALSE(isOpen(ipmFd));
  EXPECT_TRUE(isOpen(reader->fileDescriptor()));
}

TEST(IpmConversionTest, NumbersMapByTypeCodeAndTheRestIsLeftOut) {
  LogCapture capture;
  Dictionary d{
      {"Float", 1.5f},
      {"Set", Uuid()},
      {"Kept", "yes"},
      {"Int32", int32_t{-1}},
      {"Char", Number::withChar(2)},
      {"Short", Number::withShort(3)},
      {"Nothing", Value()},
  };
  IpmValue ipm = VLNSDictionaryToIPMDictionary(d);
  const IpmDictionary& entries = *ipm.asDictionary();
  EXPECT_EQ(entries.size(), 3u);
  EXPECT_EQ(*entries.find("Kept")->asString(), "yes");
  // A 32-bit signed number travels as unsigned.
  EXPECT_EQ(*entries.find("Int32")->asUint64(), std::numeric_limits<uint64_t>::max());
  EXPECT_TRUE(*entries.find("Char")->asBool());
  EXPECT_FALSE(entries.find("Float"));
  EXPECT_FALSE(entries.find("Set"));

  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", "Unsupported NSNumber objCType f"));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", "Unsupported NSNumber objCType s"));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", "Unsupported NS class NSUUID"));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", "Unsupported NS class NSNull"));
  EXPECT_TRUE(capture.contains(VLLogLevelDebug, "Framework",
                               "Key is 'Kept', and object is of class 'NSString'"));
  EXPECT_TRUE(capture.contains(VLLogLevelDebug, "Framework", "Object description is 'yes'"));
  EXPECT_TRUE(capture.contains(VLLogLevelDebug, "Framework",
                               "Key is 'Float', and object is of class 'NSNumber'"));

  IpmValue array = VLNSArrayToIPMArray(Array{"a", 1.5f, Number::withLong(4), int64_t{7}});
  ASSERT_EQ(array.asArray()->size(), 2u);
  EXPECT_EQ(*array.asArray()->at(1).asInt64(), 7);
}

TEST(IpmConversionTest, UnsupportedIpmTypesAreSkippedAndLogged) {
  LogCapture capture;
  IpmDictionary entries;
  entries.set("Error", IpmValue::ofError("Connection interrupted"));
  entries.set("Uuid", IpmValue::ofUuid(Uuid()));
  entries.set("Null", IpmValue());
  entries.set("Kept", IpmValue::ofInt64(1));
  auto d = VLIPMDictionaryToNSDictionary(IpmValue::ofDictionary(entries));
  ASSERT_TRUE(d);
  EXPECT_EQ(*d, (Dictionary{{"Kept", int64_t{1}}}));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "Unsupported ipm type <error: Connection interrupted>"));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", "Unsupported ipm type <null>"));

  auto array = VLIPMArrayToNSArray(IpmValue::ofArray({IpmValue::ofBool(false), IpmValue()}));
  ASSERT_TRUE(array);
  EXPECT_EQ(*array, (Array{false}));
  EXPECT_FALSE(VLIPMArrayToNSArray(IpmValue::ofString("x")));
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", "Unsupported ipm type <string: \"x\">"));

  EXPECT_EQ(VLIPMObjectToNSObject(IpmValue::ofString("s")), Value("s"));
  EXPECT_TRUE(VLIPMObjectToNSObject(IpmValue::ofError("boom")).isNone());
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                               "VLIPMObjectToNSObject:Unsupported ipm type <error: boom>"));
  EXPECT_TRUE(VLIPMObjectToNSObject(nullptr).isNone());
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", "nil ipm object received (null)"));
}

}  // namespace
}  // namespace vl
