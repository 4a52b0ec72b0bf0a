#include "vorlund/ipm/message_codec.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <limits>

#include "vorlund/ipm/bus.h"

namespace vl::ipm {
namespace {

// A connected bus, so that messages may carry descriptors.
ScopedBus connectedBus() {
  Error error;
  ScopedBus bus = openBus(&error);
  EXPECT_TRUE(bus) << error.description() << " (run the tests under dbus-run-session)";
  return bus;
}

ScopedMessage newCall(sd_bus* bus) {
  sd_bus_message* m = nullptr;
  EXPECT_GE(sd_bus_message_new_method_call(bus, &m, kServiceName, kObjectPath, kInterfaceName,
                                           kMethodName),
            0);
  return ScopedMessage(m);
}

// Seals the message and rewinds it, as a receiver gets it.
void sealForReading(sd_bus_message* m) {
  ASSERT_GE(sd_bus_message_seal(m, 1, 0), 0);
  ASSERT_GE(sd_bus_message_rewind(m, true), 0);
}

// Descriptions print every value in full but data (its length) and descriptors (their number).
void expectSame(const IpmValue& expected, const IpmValue& actual) {
  IpmDictionary e = *expected.asDictionary(), a = *actual.asDictionary();
  for (IpmDictionary* d : {&e, &a}) d->set("FileDescriptor", IpmValue());  // numbers differ
  EXPECT_EQ(IpmValue::ofDictionary(e).description(), IpmValue::ofDictionary(a).description());
  EXPECT_EQ(e.find("Data")->asData()->bytes, a.find("Data")->asData()->bytes);
}

IpmValue everyType(int fd) {
  IpmDictionary inner;
  inner.set("Depth", IpmValue::ofInt64(2));
  inner.set("Empty", IpmValue::ofArray({}));
  IpmDictionary d;
  d.set("Double", IpmValue::ofDouble(-2.5e-300));
  d.set("Int64", IpmValue::ofInt64(std::numeric_limits<int64_t>::min()));
  d.set("Uint64", IpmValue::ofUint64(std::numeric_limits<uint64_t>::max()));
  d.set("True", IpmValue::ofBool(true));
  d.set("False", IpmValue::ofBool(false));
  d.set("Date", IpmValue::ofDate(1700000000123456789));
  d.set("Before1970", IpmValue::ofDate(-86400000000000));
  d.set("Data", IpmValue::ofData({0, 1, 2, 0xff}));
  d.set("NoData", IpmValue::ofData({}));
  d.set("String", IpmValue::ofString("Grüße, 世界"));
  d.set("", IpmValue::ofString(""));
  d.set("FileDescriptor", IpmValue::ofFileHandle(FileHandle::duplicating(fd)));
  d.set("Array", IpmValue::ofArray({IpmValue::ofInt64(1), IpmValue::ofString("two"),
                                    IpmValue::ofArray({IpmValue::ofBool(true)}),
                                    IpmValue::ofDictionary(inner)}));
  d.set("Dictionary", IpmValue::ofDictionary(inner));
  return IpmValue::ofDictionary(std::move(d));
}

TEST(MessageCodecTest, RoundTripsEveryMappedType) {
  ScopedBus bus = connectedBus();
  ASSERT_TRUE(bus);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  IpmValue message = everyType(fds[1]);

  ScopedMessage m = newCall(bus.get());
  Error error;
  ASSERT_TRUE(appendDictionary(m.get(), message, &error)) << error.description();
  EXPECT_STREQ(sd_bus_message_get_signature(m.get(), true), "a{sv}");
  sealForReading(m.get());
  auto read = readDictionary(m.get(), &error);
  ASSERT_TRUE(read) << error.description();
  expectSame(message, *read);

  // The received descriptor is a working one: bytes written through it come out of the pipe.
  auto fdIn = [](const IpmValue& v) {
    return (*v.asDictionary()->find("FileDescriptor")->asFileHandle())->fileDescriptor();
  };
  int received = fdIn(*read);
  EXPECT_NE(received, fdIn(message)) << "the received value owns a descriptor of its own";
  m.reset();
  ASSERT_EQ(write(received, "ok", 2), 2);
  char buffer[2];
  ASSERT_EQ(::read(fds[0], buffer, sizeof buffer), 2);
  EXPECT_EQ(std::string(buffer, 2), "ok");
  close(fds[0]);
  close(fds[1]);
}

TEST(MessageCodecTest, RefusesValuesWithoutDbusForm) {
  ScopedBus bus = connectedBus();
  ASSERT_TRUE(bus);
  struct Case {
    const char* name;
    IpmValue value;
  } cases[] = {
      {"null", IpmValue()},
      {"error", IpmValue::ofError("broken")},
      {"uuid", IpmValue::ofUuid(Uuid())},
      {"NUL in a string", IpmValue::ofString(std::string("a\0b", 3))},
      {"invalid UTF-8", IpmValue::ofString("\xff\xfe")},
      {"nested null", IpmValue::ofArray({IpmValue::ofInt64(1), IpmValue()})},
  };
  for (const Case& c : cases) {
    ScopedMessage m = newCall(bus.get());
    IpmDictionary d;
    d.set("Key", c.value);
    Error error;
    EXPECT_FALSE(appendDictionary(m.get(), IpmValue::ofDictionary(d), &error)) << c.name;
    EXPECT_EQ(error.domain, kIpmErrorDomain) << c.name;
    EXPECT_EQ(error.code, static_cast<int64_t>(IpmErrorCode::kInvalidMessage)) << c.name;
  }
  ScopedMessage m = newCall(bus.get());
  Error error;
  EXPECT_FALSE(appendDictionary(m.get(), IpmValue::ofArray({}), &error));
  EXPECT_EQ(error.localizedDescription(), "A message must be a dictionary, not array");
}

TEST(MessageCodecTest, RefusesDbusTypesOutsideTheMapping) {
  ScopedBus bus = connectedBus();
  ASSERT_TRUE(bus);
  struct Case {
    const char* name;
    std::function<int(sd_bus_message*)> build;
    const char* description;
  } cases[] = {
      {"int32 in a variant",
       [](sd_bus_message* m) { return sd_bus_message_append(m, "a{sv}", 1, "Key", "i", 7); },
       "The D-Bus type i has no IPM form"},
      {"two-field struct",
       [](sd_bus_message* m) {
         return sd_bus_message_append(m, "a{sv}", 1, "Key", "(xx)", int64_t{1}, int64_t{2});
       },
       "The D-Bus type (xx) has no IPM form"},
      {"string array",
       [](sd_bus_message* m) { return sd_bus_message_append(m, "a{sv}", 1, "Key", "as", 1, "x"); },
       "The D-Bus type as has no IPM form"},
      {"not a dictionary", [](sd_bus_message* m) { return sd_bus_message_append(m, "s", "hello"); },
       "A message must be one a{sv} dictionary"},
      {"empty message", [](sd_bus_message*) { return 0; },
       "A message must be one a{sv} dictionary"},
  };
  for (const Case& c : cases) {
    ScopedMessage m = newCall(bus.get());
    ASSERT_GE(c.build(m.get()), 0) << c.name;
    sealForReading(m.get());
    Error error;
    EXPECT_FALSE(readDictionary(m.get(), &error)) << c.name;
    EXPECT_EQ(error.code, static_cast<int64_t>(IpmErrorCode::kInvalidMessage)) << c.name;
    EXPECT_EQ(error.localizedDescription(), c.description) << c.name;
  }
}

}  // namespace
}  // namespace vl::ipm
