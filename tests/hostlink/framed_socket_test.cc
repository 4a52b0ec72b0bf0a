// Frames over real loopback connections: every size class up to the limit, damaged streams, and
// the reader's time-out through the time scale.
#include "vorlund/hostlink/framed_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <thread>

#include "hostlink/loopback.h"
#include "support/test_support.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_capture.h"

namespace {

using vl::FrameReadStatus;
using vl::test::ScopedFd;

vl::Data patterned(size_t size) {
  vl::Data data;
  for (size_t i = 0; i < size; ++i) data.bytes.push_back(static_cast<uint8_t>(i * 7 + i / 251));
  return data;
}

// What is left in the stream up to the peer's close.
std::string rest(int fd) {
  std::string bytes;
  char buffer[4096];
  ssize_t count;
  while ((count = ::read(fd, buffer, sizeof buffer)) > 0) bytes.append(buffer, count);
  return bytes;
}

TEST(FramedSocket, FramesOfEverySizeRoundTripOnOneConnection) {
  vl::test::Sandbox sandbox;
  vl::LogCapture logs;
  vl::test::ConnectedPair pair = vl::test::connectedPair();
  for (size_t size : {0, 1, 1999, 2000, 2001, 100000}) {
    SCOPED_TRACE(size);
    logs.clear();
    const vl::Data sent = patterned(size);
    const std::string header = vl::format("%08ld", static_cast<long>(size));
    EXPECT_EQ(VLPrependDataWithLength(sent).view(), header + std::string(sent.view()));
    ssize_t written = 0;
    // The largest frame is more than loopback holds unread, so the writer has a thread of its own.
    std::thread writer([&] { written = VLWriteDataToSocket(sent, pair.client.get()); });
    vl::FrameReadReport report;
    std::optional<vl::Data> received = VLReadDataFromSocket(pair.server.get(), 5, &report);
    writer.join();
    EXPECT_EQ(written, static_cast<ssize_t>(size + 8));
    ASSERT_TRUE(received);
    EXPECT_TRUE(*received == sent);
    EXPECT_EQ(report.status, FrameReadStatus::Complete);
    EXPECT_TRUE(report.wellFormedHeader);
    EXPECT_TRUE(logs.contains(VLLogLevelNotice, "Framework", "Sending Data of length " + header));
    EXPECT_TRUE(logs.contains(VLLogLevelDebug, "Default", vl::format("Expecting %zd bytes", size)));
    EXPECT_TRUE(logs.contains(VLLogLevelInfo, "Framework", vl::format("Read data of length %ld", size)));
    size_t added = 0;
    for (const vl::CapturedLine& line : logs.lines()) {
      if (line.message.rfind("Adding ", 0) != 0) continue;
      size_t count = std::stoul(line.message.substr(7));
      EXPECT_LE(count, vl::kFrameReadChunk);
      added += count;
    }
    EXPECT_EQ(added, size);
  }
  // The relay logs the expected length as a notice.
  vl::process::ScopedName bridge("VorlundBridge");
  VLWriteDataToSocket(patterned(3), pair.client.get());
  EXPECT_TRUE(VLReadDataFromSocket(pair.server.get(), 5));
  EXPECT_TRUE(logs.contains(VLLogLevelNotice, "Default", "Expecting 3 bytes"));
}

struct DamagedStream {
  const char* name;
  std::string bytes;  // written raw, then the writer closes
  std::optional<std::string> payload;
  FrameReadStatus status;
  bool wellFormed;
  std::string left;  // what the reader leaves in the stream
  VLLogLevel level;
  const char* category;
  std::string message;
};

TEST(FramedSocket, DamagedStreamsEndTheReadCleanly) {
  vl::test::Sandbox sandbox;
  const std::string excessive =
      "Got expected length of 100001 which is a bit excessive; we're going down and trying again";
  const DamagedStream cases[] = {
      {"one byte over the limit", "00100001" + std::string(4500, 'x'), std::nullopt,
       FrameReadStatus::Excessive, true, "", VLLogLevelError, "Framework", excessive},
      {"header of no digits", "garbage!tail", "", FrameReadStatus::Complete, false, "tail",
       VLLogLevelDebug, "Default", "Expecting 0 bytes"},
      {"digits then garbage", "0000002x" "ab" "cd", "ab", FrameReadStatus::Complete, false, "cd",
       VLLogLevelDebug, "Default", "Expecting 2 bytes"},
      {"negative length", "-0000005xyz", "", FrameReadStatus::Complete, false, "xyz",
       VLLogLevelInfo, "Framework", "Read data of length 0"},
      {"peer closes inside the header", "0001", std::nullopt, FrameReadStatus::ShortHeader, false,
       "", VLLogLevelError, "Framework",
       "Unable to get the first 8 bytes to know the size of expected data"},
      {"peer closes inside the payload", "00000010abc", "abc", FrameReadStatus::Truncated, true,
       "", VLLogLevelInfo, "Framework", "Read data of length 3"},
  };
  for (const DamagedStream& c : cases) {
    SCOPED_TRACE(c.name);
    vl::LogCapture logs;
    vl::test::ConnectedPair pair = vl::test::connectedPair();
    ASSERT_EQ(::write(pair.client.get(), c.bytes.data(), c.bytes.size()),
              static_cast<ssize_t>(c.bytes.size()));
    pair.client.reset();
    vl::FrameReadReport report;
    std::optional<vl::Data> received = VLReadDataFromSocket(pair.server.get(), 5, &report);
    EXPECT_EQ(received ? std::optional<std::string>(received->view()) : std::nullopt, c.payload);
    EXPECT_EQ(report.status, c.status);
    EXPECT_EQ(report.wellFormedHeader, c.wellFormed);
    EXPECT_TRUE(logs.contains(c.level, c.category, c.message));
    EXPECT_EQ(rest(pair.server.get()), c.left);
    if (c.status == FrameReadStatus::Excessive) {
      size_t drained = 0;
      for (const vl::CapturedLine& line : logs.find("Read in 0 bytes while clearing buffer")) {
        EXPECT_EQ(line.level, VLLogLevelNotice);
      }
      for (const vl::CapturedLine& line : logs.lines()) {
        if (line.message.rfind("Read in ", 0) == 0) drained += std::stoul(line.message.substr(8));
      }
      EXPECT_EQ(drained, 4500u);
      EXPECT_EQ(logs.count("Read in 0 bytes while clearing buffer"), 1u);
    }
  }
}

struct Arrival {
  const char* name;
  double headerAfter;   // nominal seconds after the read starts
  double payloadAfter;  // nominal seconds after the header
  bool read;
};

TEST(FramedSocket, TheTimeOutGuardsOnlyTheHeader) {
  vl::test::Sandbox sandbox;
  vl::time::ScopedScale fast(0.2);  // the time-out of 1 second lasts 200 ms
  const Arrival cases[] = {
      {"header just before the time-out", 0.5, 0, true},
      {"header just after the time-out", 1.6, 0, false},
      {"payload long after a header in time", 0.2, 1.5, true},
  };
  for (const Arrival& c : cases) {
    SCOPED_TRACE(c.name);
    vl::LogCapture logs;
    vl::test::ConnectedPair pair = vl::test::connectedPair();
    int client = pair.client.get();
    std::thread peer([&] {
      vl::time::sleepFor(c.headerAfter);
      ::send(client, "00000005", 8, MSG_NOSIGNAL);
      vl::time::sleepFor(c.payloadAfter);
      ::send(client, "hello", 5, MSG_NOSIGNAL);
    });
    vl::FrameReadReport report;
    const int server = pair.server.get();
    std::optional<vl::Data> received = VLReadDataFromSocket(server, 1, &report);
    peer.join();
    if (c.read) {
      ASSERT_TRUE(received);
      EXPECT_EQ(received->view(), "hello");
      continue;
    }
    EXPECT_FALSE(received);
    EXPECT_EQ(report.status, FrameReadStatus::TimedOut);
    EXPECT_TRUE(logs.contains(VLLogLevelError, "Framework",
                              vl::format("Did not receive data in 1 seconds.  Closing socket %d", server)));
    EXPECT_TRUE(logs.contains(VLLogLevelError, "Framework",
                              "Unable to get the first 8 bytes to know the size of expected data"));
    EXPECT_EQ(::fcntl(pair.server.release(), F_GETFD), -1) << "the reader closes on a time-out";
  }
}

TEST(FramedSocket, HeaderLengthIsReadTheForgivingWay) {
  const std::pair<std::string, long> cases[] = {
      {"00100000", 100000}, {"  42 abc", 42}, {"+0000007", 7}, {"-0000005", -5},
      {"garbage!", 0},      {"\xff\xfe" "000012", 0}, {"", 0},
  };
  for (const auto& [header, length] : cases) EXPECT_EQ(vl::frameHeaderLength(header), length) << header;
}

}  // namespace
