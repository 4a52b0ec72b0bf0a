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

  Dictionary d{{"Double", 0.5},
               {"Int64", int64_t{-9}},
               {"Uint64", UINT64_MAX},
               {"Bool", true},
               {"Date", Date{1700000000.123456789}},
               {"Data", Data::fromString("bytes")},
               {"String", "\u00e9t\u00e9"},
               {"Handle", reader},
               {"Array", Array{1.5, Array{"x"}}},
               {"Dictionary", Dictionary{{"Inner", false}}}};
  IpmValue ipm = VLNSDictionaryToIPMDictionary(d);
  const IpmDictionary& entries = *ipm.asDictionary();
  EXPECT_EQ(entries.find("Date")->asDate()->nanosecondsSince1970, 1700000000123456768);
  int ipmFd = (*entries.find("Handle")->asFileHandle())->fileDescriptor();
  EXPECT_EQ(inodeOf(ipmFd), inodeOf(reader->fileDescriptor()));

  auto back = VLIPMDictionaryToNSDictionary(ipm);
  ASSERT_TRUE(back);
  Dictionary plain = *back;
  for (const char* key : {"Date", "Handle"}) plain.erase(key), d.erase(key);
  EXPECT_EQ(plain, d);
  std::string codes;
  for (const char* key : {"Double", "Int64", "Uint64", "Bool"}) {
    codes += back->get(key).asNumber()->typeCode();
  }
  EXPECT_EQ(codes, "dqQB");
  EXPECT_NEAR(back->get("Date").asDate()->secondsSince1970, 1700000000.123456789, 1e-6);
  const int handleFd = back->get("Handle").record<FileHandle>()->fileDescriptor();
  EXPECT_EQ(inodeOf(handleFd), inodeOf(reader->fileDescriptor()));

  // Each side owns its duplicate: dropping one closes only that one.
  back.reset();
  EXPECT_FALSE(isOpen(handleFd));
  EXPECT_TRUE(isOpen(ipmFd));
  ipm = IpmValue();
  EXPECT_FALSE(isOpen(ipmFd));
}

TEST(IpmConversionTest, NumbersMapByTypeCodeAndUnsupportedTypesAreLeftOutAndLogged) {
  LogCapture capture;
  Dictionary d{{"Float", 1.5f},
               {"Set", Uuid()},
               {"Kept", "yes"},
               {"Int32", int32_t{-1}},
               {"Char", Number::withChar(2)},
               {"Short", Number::withShort(3)},
               {"Nothing", Value()}};
  IpmValue ipm = VLNSDictionaryToIPMDictionary(d);
  EXPECT_FALSE(ipm.asDictionary()->find("Float"));
  // A 32-bit signed number travels as unsigned, a char as a bool.
  EXPECT_EQ(VLIPMDictionaryToNSDictionary(ipm),
            (Dictionary{{"Kept", "yes"}, {"Int32", UINT64_MAX}, {"Char", true}}));

  for (const char* message :
       {"Key is 'Kept', and object is of class 'NSString'", "Object description is 'yes'"}) {
    EXPECT_TRUE(capture.contains(VLLogLevelDebug, "Framework", message)) << message;
  }

  EXPECT_EQ(
      VLIPMArrayToNSArray(VLNSArrayToIPMArray(Array{"a", 1.5f, Number::withLong(4), int64_t{7}})),
      (Array{"a", int64_t{7}}));

  // Unsupported types on the other side are skipped too.
  IpmDictionary entries;
  entries.set("Error", IpmValue::ofError("Connection interrupted"));
  entries.set("Uuid", IpmValue::ofUuid(Uuid()));
  entries.set("Null", IpmValue());
  entries.set("Kept", IpmValue::ofInt64(1));
  EXPECT_EQ(VLIPMDictionaryToNSDictionary(IpmValue::ofDictionary(entries)),
            (Dictionary{{"Kept", int64_t{1}}}));
  EXPECT_EQ(VLIPMArrayToNSArray(IpmValue::ofArray({IpmValue::ofBool(false), IpmValue()})),
            (Array{false}));
  EXPECT_FALSE(VLIPMArrayToNSArray(IpmValue::ofString("x")));

  EXPECT_EQ(VLIPMObjectToNSObject(IpmValue::ofString("s")), Value("s"));
  EXPECT_TRUE(VLIPMObjectToNSObject(IpmValue::ofError("boom")).isNone());
  EXPECT_TRUE(VLIPMObjectToNSObject(nullptr).isNone());
  for (const char* message : {"Unsupported NSNumber objCType f", "Unsupported NSNumber objCType s",
                              "Unsupported NS class NSUUID", "Unsupported NS class NSNull",
                              "Unsupported ipm type <error: Connection interrupted>",
                              "Unsupported ipm type <null>", "Unsupported ipm type <string: \"x\">",
                              "VLIPMObjectToNSObject:Unsupported ipm type <error: boom>",
                              "nil ipm object received (null)"}) {
    EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework", message)) << message;
  }
}

}  // namespace
}  // namespace vl
