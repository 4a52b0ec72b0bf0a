// The framed socket transport over real loopback connections: frames of every size, damaged
// streams, the reader's time-out, retries of client and server through the time scale, the ways the
// server loop ends, and where the gateway port comes from.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <future>
#include <optional>
#include <thread>
#include <tuple>
#include <utility>

#include "support/test_support.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/hostlink/gateway.h"
#include "vorlund/hostlink/socket_server.h"
#include "vorlund/logging/log_capture.h"

namespace {

using Clock = std::chrono::steady_clock;
using vl::FrameReadStatus;

struct ScopedFd {
  explicit ScopedFd(int descriptor = -1) : fd(descriptor) {}
  ScopedFd(ScopedFd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  ~ScopedFd() { reset(); }
  void reset() {
    if (fd >= 0) ::close(std::exchange(fd, -1));
  }
  int fd;
};

// Sends each connection one frame and hangs up.
void greet(int fd) {
  VLWriteDataToSocket(vl::Data::fromString("hello"), fd);
  ::close(fd);
}

// A port that nothing listens on: one a server had and has given up.
int freePort() { return vl::ServerThread(0, false, greet).port(); }

struct ConnectedPair {
  ScopedFd client, server;
};

// A client descriptor and the descriptor the server loop accepted for it.
ConnectedPair connectedPair() {
  std::promise<int> accepted;
  std::future<int> acceptedFd = accepted.get_future();
  vl::ServerThread server(0, false, [&](int fd) { accepted.set_value(fd); });
  ScopedFd client(VLGetClientForServer("127.0.0.1", server.port(), 1));
  const bool ready = acceptedFd.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  return {std::move(client), ScopedFd(ready ? acceptedFd.get() : -1)};
}

bool waitFor(const std::function<bool()>& condition) {
  for (auto deadline = Clock::now() + std::chrono::seconds(10); !condition();) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// What is left in the stream up to the peer's close.
std::string rest(int fd) {
  std::string bytes(8192, '\0');
  bytes.resize(std::max<ssize_t>(0, ::recv(fd, bytes.data(), bytes.size(), MSG_WAITALL)));
  return bytes;
}

TEST(FramedSocket, FramesOfEverySizeRoundTripOnOneConnection) {
  vl::test::Sandbox sandbox;
  vl::LogCapture logs;
  ConnectedPair pair = connectedPair();
  for (size_t size : {0, 1, 1999, 2000, 2001, 100000}) {
    SCOPED_TRACE(size);
    logs.clear();
    vl::Data sent;
    for (size_t i = 0; i < size; ++i) sent.bytes.push_back(static_cast<uint8_t>(i * 7 + i / 251));
    const std::string header = vl::format("%08ld", static_cast<long>(size));
    EXPECT_EQ(VLPrependDataWithLength(sent).view(), header + std::string(sent.view()));
    ssize_t written = 0;
    // The largest frame is more than loopback holds unread, so the writer has a thread of its own.
    std::thread writer([&] { written = VLWriteDataToSocket(sent, pair.client.fd); });
    std::optional<vl::Data> received = VLReadDataFromSocket(pair.server.fd, 5);
    writer.join();
    EXPECT_EQ(written, static_cast<ssize_t>(size + 8));
    EXPECT_TRUE(received && *received == sent);
    EXPECT_TRUE(logs.contains(VLLogLevelNotice, "Framework", "Sending Data of length " + header));
    EXPECT_TRUE(logs.contains(VLLogLevelDebug, "Default", vl::format("Expecting %zd bytes", size)));
    EXPECT_TRUE(
        logs.contains(VLLogLevelInfo, "Framework", vl::format("Read data of length %ld", size)));
    EXPECT_EQ(logs.count("Adding 2000 bytes"), size / vl::kFrameReadChunk);
  }
  // The relay logs the expected length as a notice.
  vl::process::ScopedName bridge("VorlundBridge");
  VLWriteDataToSocket(vl::Data::fromString("abc"), pair.client.fd);
  EXPECT_TRUE(VLReadDataFromSocket(pair.server.fd, 5));
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
  const DamagedStream cases[] = {
      {"one byte over the limit", "00100001" + std::string(4500, 'x'), std::nullopt,
       FrameReadStatus::Excessive, true, "", VLLogLevelError, "Framework",
       "Got expected length of 100001 which is a bit excessive; we're going "
       "down and trying again"},
      {"header of no digits", "garbage!tail", "", FrameReadStatus::Complete, false, "tail",
       VLLogLevelDebug, "Default", "Expecting 0 bytes"},
      {"digits then garbage", "0000002xabcd", "ab", FrameReadStatus::Complete, false, "cd",
       VLLogLevelDebug, "Default", "Expecting 2 bytes"},
      {"negative length", "-0000005xyz", "", FrameReadStatus::Complete, false, "xyz",
       VLLogLevelInfo, "Framework", "Read data of length 0"},
      {"peer closes inside the header", "0001", std::nullopt, FrameReadStatus::ShortHeader, false,
       "", VLLogLevelError, "Framework",
       "Unable to get the first 8 bytes to know the size of expected data"},
      {"peer closes inside the payload", "00000010abc", "abc", FrameReadStatus::Truncated, true, "",
       VLLogLevelInfo, "Framework", "Read data of length 3"},
  };
  for (const DamagedStream& c : cases) {
    SCOPED_TRACE(c.name);
    vl::LogCapture logs;
    ConnectedPair pair = connectedPair();
    ASSERT_EQ(::write(pair.client.fd, c.bytes.data(), c.bytes.size()),
              static_cast<ssize_t>(c.bytes.size()));
    pair.client.reset();
    vl::FrameReadReport report;
    std::optional<vl::Data> received = VLReadDataFromSocket(pair.server.fd, 5, &report);
    EXPECT_EQ(received ? std::optional<std::string>(received->view()) : std::nullopt, c.payload);
    EXPECT_EQ(report.status, c.status);
    EXPECT_EQ(report.wellFormedHeader, c.wellFormed);
    EXPECT_TRUE(logs.contains(c.level, c.category, c.message));
    // An over-limit frame is drained to the peer's close, which the last read of 0 bytes shows.
    EXPECT_EQ(rest(pair.server.fd), c.left);
    EXPECT_EQ(logs.contains(VLLogLevelNotice, "Framework", "Read in 0 bytes while clearing buffer"),
              c.status == FrameReadStatus::Excessive);
  }
}

TEST(FramedSocket, TheTimeOutGuardsOnlyTheHeader) {
  vl::test::Sandbox sandbox;
  vl::time::ScopedScale fast(0.2);  // the time-out of 1 second lasts 200 ms
  // Nominal seconds from the start of the read to the header and from the header to the payload: a
  // header just before the time-out, a payload long after a header in time, a header just after.
  const std::pair<double, double> arrivals[] = {{0.5, 0}, {0.2, 1.5}, {1.6, 0}};
  for (const auto& [headerAfter, payloadAfter] : arrivals) {
    SCOPED_TRACE(headerAfter);
    vl::LogCapture logs;
    ConnectedPair pair = connectedPair();
    std::thread peer([&, client = pair.client.fd] {
      vl::time::sleepFor(headerAfter);
      ::send(client, "00000005", 8, MSG_NOSIGNAL);
      vl::time::sleepFor(payloadAfter);
      ::send(client, "hello", 5, MSG_NOSIGNAL);
    });
    vl::FrameReadReport report;
    const int server = pair.server.fd;
    std::optional<vl::Data> received = VLReadDataFromSocket(server, 1, &report);
    peer.join();
    if (headerAfter < 1) {
      EXPECT_TRUE(received && received->view() == "hello");
      continue;
    }
    EXPECT_FALSE(received);
    EXPECT_EQ(report.status, FrameReadStatus::TimedOut);
    EXPECT_TRUE(
        logs.contains(VLLogLevelError, "Framework",
                      vl::format("Did not receive data in 1 seconds.  Closing socket %d", server)));
    EXPECT_EQ(::fcntl(std::exchange(pair.server.fd, -1), F_GETFD), -1)
        << "the reader closes on a time-out";
  }
}

TEST(FramedSocket, HeaderLengthIsReadTheForgivingWay) {
  const std::pair<std::string, long> cases[] = {
      {"00100000", 100000}, {"  42 abc", 42},    {"+0000007", 7}, {"-0000005", -5},
      {"garbage!", 0},      {"0012\xff\xfe", 0}, {"", 0},
  };
  for (const auto& [header, length] : cases)
    EXPECT_EQ(vl::frameHeaderLength(header), length) << header;
}

TEST(SocketClient, RetriesWithAPauseUntilALateServerListens) {
  vl::test::Sandbox sandbox;
  vl::time::ScopedScale fast(0.05);
  vl::LogCapture logs;
  const int port = freePort();
  auto started = Clock::now();
  EXPECT_EQ(VLGetClientForServer("127.0.0.1", port, 3), -1);
  EXPECT_GE(Clock::now() - started, vl::time::scaled(3));
  EXPECT_EQ(logs.count(vl::format("Error connecting to port %d at 127.0.0.1 (111)", port)), 3u);
  std::optional<vl::ServerThread> server;
  std::thread starter([&] {
    vl::time::sleepFor(2.5);
    server.emplace(port, false, greet);
  });
  ScopedFd client(VLGetClientForServer("localhost", port, 40));
  starter.join();
  EXPECT_GE(logs.count(vl::format("Error connecting to port %d at localhost (111)", port)), 1u);
  EXPECT_TRUE(logs.contains(VLLogLevelNotice, "Framework", "IP address is 127.0.0.1"));
  // The socket whose earlier attempts were refused carries frames now.
  std::optional<vl::Data> greeting = VLReadDataFromSocket(client.fd, 5);
  EXPECT_TRUE(greeting && greeting->view() == "hello");
}

TEST(SocketServer, StopEndsTheBindPauseAndBindIsRetriedUntilThePortFrees) {
  vl::test::Sandbox sandbox;
  vl::LogCapture logs;
  std::optional<vl::ServerThread> first(std::in_place, 0, false, greet);
  const int port = first->port();
  ASSERT_GT(port, 0);
  const std::string busy = vl::format("Unable to bind to %d.  Trying again in 10 seconds", port);
  auto started = Clock::now();
  {
    // At full scale the server pauses 10 seconds; stopping it ends the pause.
    vl::ServerThread waiting(port, false, greet);
    ASSERT_TRUE(waitFor([&] { return logs.count(busy) == 1; }));
  }
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(5));
  vl::time::ScopedScale fast(0.01);
  vl::ServerThread second(port, false, greet);
  ASSERT_TRUE(waitFor([&] { return logs.count(busy) >= 3; }));
  first.reset();
  EXPECT_EQ(second.port(), port);
  EXPECT_TRUE(logs.contains(VLLogLevelError, "Framework", busy));
}

// The listening socket's local address and backlog, as ss(8) reports them.
std::string listeningSocket(int port) {
  char backlog[16] = "", local[64] = "";
  if (FILE* pipe = ::popen(vl::format("ss -ltnH 'sport = :%d'", port).c_str(), "r")) {
    (void)!std::fscanf(pipe, "%*s %*s %15s %63s", backlog, local);
    ::pclose(pipe);
  }
  return std::string(local) + " backlog " + backlog;
}

TEST(SocketServer, ListensOnLoopbackUnlessAskedForAllInterfaces) {
  vl::test::Sandbox sandbox;
  for (auto [allInterfaces, processName, address, backlog] :
       {std::tuple{false, "vorlund_tests", "127.0.0.1", 50},
        {true, "VorlundBridge", "0.0.0.0", 200}}) {
    vl::process::ScopedName name(processName);
    vl::ServerThread server(0, allInterfaces, greet);
    const int port = server.port();
    EXPECT_EQ(listeningSocket(port), vl::format("%s:%d backlog %d", address, port, backlog));
  }
}

TEST(SocketServer, AnAcceptedDescriptorZeroEndsTheLoop) {
  vl::test::Sandbox sandbox;
  vl::ServerThread server(0, false, [](int) { ADD_FAILURE() << "descriptor 0 is handed on"; });
  const int port = server.port();
  ASSERT_GT(port, 0);
  // With standard input closed, the next connection is accepted as descriptor 0.
  ScopedFd standardInput(::dup(0));
  ScopedFd client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ::close(0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::connect(client.fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  bool ended = waitFor([&] { return server.port(0) < 0; });
  standardInput.fd >= 0 ? ::dup2(standardInput.fd, 0) : ::close(0);
  EXPECT_TRUE(ended);
  vl::time::ScopedScale fast(0.01);
  EXPECT_EQ(VLGetClientForServer("127.0.0.1", port, 1), -1) << "the listening socket is closed";
}

TEST(Gateway, PortComesFromThePreferenceThenTheEnvironment) {
  const std::tuple<vl::Value, std::optional<std::string>, int> cases[] = {
      {vl::Value(), std::nullopt, 3001},       {vl::Value(4000), "5000", 4000},
      {vl::Value("4001"), std::nullopt, 4001}, {vl::Value(), "5000", 5000},
      {vl::Value("30o1"), "5000", 5000},       {vl::Value(70000), "0", 3001},
      {vl::Value(-2), "99999", 3001},
  };
  for (const auto& [preference, environment, port] : cases) {
    SCOPED_TRACE(preference.description() + " / " + environment.value_or("unset"));
    vl::test::Sandbox sandbox;
    vl::test::ScopedEnv scopedEnvironment("VORLUND_GATEWAY_PORT", environment);
    if (!preference.isNone()) VLSavePreference(preference, "GatewayPort");
    EXPECT_EQ(vl::gatewayPort(), port);
  }
}

}  // namespace
