// The server loop and the client over real loopback sockets: retries on both sides through the time
// scale, the listening address and backlog, and the ways the loop ends.
#include "vorlund/hostlink/socket_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <optional>
#include <sstream>
#include <thread>

#include "hostlink/loopback.h"
#include "support/test_support.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_capture.h"

namespace {

using Clock = std::chrono::steady_clock;
using vl::test::ScopedFd;

// Replies to each frame with the same payload until the peer closes.
void echo(int fd) {
  while (std::optional<vl::Data> frame = VLReadDataFromSocket(fd, 5)) {
    if (frame->size() == 0) break;
    VLWriteDataToSocket(*frame, fd);
  }
  ::close(fd);
}

bool waitFor(const std::function<bool()>& condition) {
  auto deadline = Clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

TEST(SocketClient, RetriesUntilALateServerListens) {
  vl::test::Sandbox sandbox;
  vl::time::ScopedScale fast(0.05);
  vl::LogCapture logs;
  const int port = vl::test::freePort();
  std::optional<vl::ServerThread> server;
  std::thread starter([&] {
    vl::time::sleepFor(2.5);
    server.emplace(port, false, echo);
  });
  ScopedFd client(VLGetClientForServer("localhost", port, 40));
  starter.join();
  ASSERT_GE(client.get(), 0);
  const std::string refused = vl::format("Error connecting to port %d at localhost (111)", port);
  EXPECT_GE(logs.count(refused), 1u);
  EXPECT_LT(logs.count(refused), 40u);
  EXPECT_TRUE(logs.contains(VLLogLevelNotice, "Framework", "IP address is 127.0.0.1"));
  // The socket that was refused before carries frames now.
  VLWriteDataToSocket(vl::Data::fromString("ping"), client.get());
  std::optional<vl::Data> reply = VLReadDataFromSocket(client.get(), 5);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->view(), "ping");
}

TEST(SocketClient, EveryFailedAttemptIsLoggedAndPaused) {
  vl::test::Sandbox sandbox;
  vl::time::ScopedScale fast(0.02);
  const int port = vl::test::freePort();
  for (int attempts : {3, 0}) {
    vl::LogCapture logs;
    auto started = Clock::now();
    EXPECT_EQ(VLGetClientForServer("127.0.0.1", port, attempts), -1);
    EXPECT_GE(Clock::now() - started, vl::time::scaled(attempts));
    EXPECT_EQ(logs.count(vl::format("Error connecting to port %d at 127.0.0.1 (111)", port)),
              static_cast<size_t>(attempts));
  }
}

TEST(SocketServer, BindIsRetriedUntilThePortFreesAndStopEndsTheWait) {
  vl::test::Sandbox sandbox;
  vl::LogCapture logs;
  std::optional<vl::ServerThread> first(std::in_place, 0, false, echo);
  const int port = first->port();
  ASSERT_GT(port, 0);
  const std::string busy = vl::format("Unable to bind to %d.  Trying again in 10 seconds", port);
  {
    vl::time::ScopedScale fast(0.01);
    vl::ServerThread second(port, false, echo);
    ASSERT_TRUE(waitFor([&] { return logs.count(busy) >= 2; }));
    first.reset();
    EXPECT_EQ(second.port(), port);
    EXPECT_TRUE(logs.contains(VLLogLevelError, "Framework", busy));
  }
  // At full scale the server would pause 10 seconds; stopping it ends the pause.
  vl::ServerThread holder(port, false, echo);
  ASSERT_EQ(holder.port(), port);
  auto started = Clock::now();
  {
    vl::ServerThread waiting(port, false, echo);
    ASSERT_TRUE(waitFor([&] { return logs.count(busy) >= 3; }));
  }
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(5));
}

// The listening socket's local address and backlog, as ss(8) reports them.
std::string listeningSocket(int port) {
  std::string command = vl::format("ss -ltnH 'sport = :%d'", port);
  std::string output;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe)) output += buffer;
    ::pclose(pipe);
  }
  std::istringstream fields(output);
  std::string state, received, backlog, local;
  fields >> state >> received >> backlog >> local;
  return local + " backlog " + backlog;
}

TEST(SocketServer, ListensOnLoopbackUnlessAskedForAllInterfaces) {
  vl::test::Sandbox sandbox;
  struct Case {
    bool allInterfaces;
    const char* processName;
    const char* address;
    int backlog;
  };
  for (const Case& c : {Case{false, "vorlund_tests", "127.0.0.1", 50},
                        Case{true, "VorlundBridge", "0.0.0.0", 200}}) {
    vl::process::ScopedName name(c.processName);
    vl::ServerThread server(0, c.allInterfaces, echo);
    const int port = server.port();
    ASSERT_GT(port, 0);
    EXPECT_EQ(listeningSocket(port), vl::format("%s:%d backlog %d", c.address, port, c.backlog));
    ScopedFd client(VLGetClientForServer("127.0.0.1", port, 1));
    EXPECT_GE(client.get(), 0);
  }
}

TEST(SocketServer, AnAcceptedDescriptorZeroEndsTheLoop) {
  vl::test::Sandbox sandbox;
  std::atomic<int> handled{0};
  vl::ServerThread server(0, false, [&](int fd) {
    ++handled;
    ::close(fd);
  });
  const int port = server.port();
  ASSERT_GT(port, 0);
  ScopedFd first(VLGetClientForServer("127.0.0.1", port, 1));
  ASSERT_TRUE(waitFor([&] { return handled == 1; }));
  // With standard input closed, the next connection is accepted as descriptor 0.
  ScopedFd standardInput(::dup(0));
  ScopedFd second(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ::close(0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::connect(second.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
  bool ended = waitFor([&] { return server.port(0) < 0; });
  if (standardInput.get() >= 0) {
    ::dup2(standardInput.get(), 0);
  } else {
    ::close(0);
  }
  EXPECT_TRUE(ended);
  vl::time::ScopedScale fast(0.01);
  EXPECT_EQ(VLGetClientForServer("127.0.0.1", port, 1), -1) << "the listening socket is closed";
  EXPECT_EQ(handled, 1);
}

}  // namespace
