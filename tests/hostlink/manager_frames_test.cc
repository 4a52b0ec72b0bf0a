// Frames between a bridge and its manager, recorded as real code sends them (the bridge's hello, a
// manager command result, a manager's test case request), received and decoded again.
#include "vorlund/hostlink/manager_frames.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "support/test_support.h"
#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"

namespace vl::bridge {
namespace {

// What a peer that sent bytes and closed leaves the receiver, frame after frame.
std::vector<Receipt> receiveAll(const std::string& bytes) {
  int ends[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  EXPECT_EQ(::write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  ::close(ends[1]);
  std::vector<Receipt> receipts;
  do {
    receipts.push_back(receiveFrame(ends[0]));
  } while (receipts.back().status == ReceiptStatus::Frame);
  ::close(ends[0]);
  return receipts;
}

TEST(ManagerFramesTest, RecordedFramesDecodeToTheirDictionaries) {
  const std::string dir = std::string(VORLUND_TESTDATA_DIR) + "/hostlink/manager_frames/";
  struct Case {
    const char* file;
    const char* type;
    std::vector<const char*> keys;
  } cases[] = {
      {"hello.frame", kHelloMessageType, {kRequestingDeviceKey, kUDIDKey, kHostnameKey}},
      {"manager_command_result.frame", "ManagerCommandResult", {"UUID", "ManagerCommandResult"}},
      {"test_case_request.frame", "TestCaseRequest", {"UUID", "TestCase", "RequestingDevice"}},
  };
  std::string stream;
  for (const Case& c : cases) {
    std::string bytes = test::readFile(dir + c.file);
    stream += bytes;
    std::vector<Receipt> receipts = receiveAll(bytes);
    ASSERT_EQ(receipts.size(), 2u) << c.file;
    EXPECT_EQ(receipts[1].status, ReceiptStatus::Closed) << c.file;
    std::string reason;
    std::optional<Dictionary> message = decodeManagerFrame(receipts[0].payload, &reason);
    ASSERT_TRUE(message) << c.file << ": " << reason;
    EXPECT_EQ(message->get("MessageType"), Value(c.type)) << c.file;
    for (const char* key : c.keys) EXPECT_TRUE(message->contains(key)) << c.file << " " << key;
  }
  // Back to back on one connection, as a manager sends them.
  std::vector<Receipt> receipts = receiveAll(stream);
  ASSERT_EQ(receipts.size(), 4u);
  std::string reason;
  auto request = decodeManagerFrame(receipts[2].payload, &reason);
  ASSERT_TRUE(request) << reason;
  auto object =
      VLConvertDataToObject(*request->get("TestCase").asData()).record<VLTestCaseObject>();
  ASSERT_TRUE(object) << "a manager's request names the test case and its options only";
  EXPECT_EQ(object->name(), "Sample Failure");
  EXPECT_FALSE(object->selector());

  // A stream cut inside the second frame gives the first and refuses the rest.
  receipts = receiveAll(stream.substr(0, stream.size() - 1));
  EXPECT_EQ(receipts.back().status, ReceiptStatus::Refused);
  EXPECT_NE(receipts.back().reason.find("cut short"), std::string::npos) << receipts.back().reason;
}

// A loopback TCP connection: {the receiving end, the sending end}.
std::pair<int, int> tcpConnection() {
  int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  EXPECT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(listener, 1), 0);
  EXPECT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
  int sender = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(::connect(sender, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  int receiver = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  ::close(listener);
  return {receiver, sender};
}

// A header that arrives in pieces is waited for, as long as it completes in time; one that stops
// half way is refused once the wait is over or the peer closes, and nothing after it is read.
TEST(ManagerFramesTest, WaitsForAHeaderSplitOverSeveralWritesButNotForEver) {
  time::ScopedScale fast(0.05);  // the header wait is half a second
  struct Case {
    const char* name;
    std::vector<std::string> pieces;  // written with a pause of 30 ms between them
    bool thenClose;
    ReceiptStatus status;
    std::string payloadOrFault;
  } cases[] = {
      {"split in two", {"0000", "0005hello"}, false, ReceiptStatus::Frame, "hello"},
      {"one byte at a time",
       {"0", "0", "0", "0", "0", "0", "0", "2ok"},
       false,
       ReceiptStatus::Frame,
       "ok"},
      {"never completes", {"0000"}, false, ReceiptStatus::Refused, "cut short"},
      {"closed inside", {"000"}, true, ReceiptStatus::Refused, "cut short"},
      {"split garbage", {"0000", "00x1"}, false, ReceiptStatus::Refused, "\"000000x1\""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto [receiver, sender] = tcpConnection();
    std::thread writer([&, sender = sender] {
      for (size_t i = 0; i < c.pieces.size(); ++i) {
        if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(30));
        ASSERT_EQ(::write(sender, c.pieces[i].data(), c.pieces[i].size()),
                  static_cast<ssize_t>(c.pieces[i].size()));
      }
      if (c.thenClose) ::shutdown(sender, SHUT_WR);
    });
    pollfd readable{receiver, POLLIN, 0};
    ASSERT_EQ(::poll(&readable, 1, 10000), 1);
    Receipt receipt = receiveFrame(receiver);
    writer.join();
    EXPECT_EQ(receipt.status, c.status) << receipt.reason;
    if (c.status == ReceiptStatus::Frame) {
      EXPECT_EQ(receipt.payload, Data::fromString(c.payloadOrFault));
    } else {
      EXPECT_NE(receipt.reason.find(c.payloadOrFault), std::string::npos) << receipt.reason;
    }
    ::close(receiver);
    ::close(sender);
  }
}

TEST(ManagerFramesTest, ManagerAddressesAreHostColonPort) {
  std::string reason;
  auto address = parseManagerAddress("lab-host.local:3002", &reason);
  ASSERT_TRUE(address) << reason;
  EXPECT_EQ(address->host, "lab-host.local");
  EXPECT_EQ(address->port, 3002);
  EXPECT_EQ(parseManagerAddress("10.0.0.7:65535", &reason)->port, 65535);
  for (const char* refused : {"lab-host", ":3002", "lab-host:", "lab-host:0", "lab-host:65536",
                              "lab-host:30o2", "fe80::1:3002", "lab-host:003002"}) {
    reason.clear();
    EXPECT_FALSE(parseManagerAddress(refused, &reason)) << refused;
    EXPECT_NE(reason.find("HOST:PORT"), std::string::npos) << refused;
  }
}

}  // namespace
}  // namespace vl::bridge
