#include "support/daemon.h"

#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "vorlund/foundation/time_scale.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/client.h"
#include "vorlund/results/execution.h"

extern char** environ;

namespace vl::test {

Daemon::Daemon(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  if (posix_spawn(&pid_, args[0], nullptr, nullptr, args.data(), environ) != 0) pid_ = -1;
}

Daemon::~Daemon() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

bool Daemon::waitUntilServing() {
  IpmDictionary ping;
  ping.set(kVLMessageKeyType, IpmValue::ofString("Ping"));
  for (int i = 0; i < 400; ++i) {
    Error error;
    auto reply = ipm::sendMessage(IpmValue::ofDictionary(ping), std::chrono::seconds(5), &error);
    if (error.code != static_cast<int64_t>(ipm::IpmErrorCode::kNotRunning))
      return reply.has_value();
    vl::time::sleepFor(0.05);
  }
  return false;
}

int Daemon::stop(int signal) {
  kill(pid_, signal);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Daemon::waitForExit() {
  int status = 0;
  for (int i = 0; i < 800; ++i) {
    pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  return -1;  // the destructor kills it
}

std::vector<std::string> PrivateBus::commandFor(const std::string& dir,
                                                const std::string& serviceDir) {
  std::string config = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=)" +
                       dir + R"(/bus-socket</listen>
)" + (serviceDir.empty() ? "" : "  <servicedir>" + serviceDir + "</servicedir>\n") +
                       R"(  <policy context="default">
    <allow user="*"/>
    <allow send_destination="*"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
  writeFile(dir + "/bus.conf", config);
  return {"/usr/bin/dbus-daemon", "--nofork", "--nopidfile", "--config-file=" + dir + "/bus.conf"};
}

namespace {

bool acceptsConnections(const std::string& socketPath) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof(address.sun_path)) return false;
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  ::close(fd);
  return connected;
}

}  // namespace

PrivateBus::PrivateBus(const std::string& dir, const std::string& serviceDir)
    : daemon_(commandFor(dir, serviceDir)),
      address_("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + dir + "/bus-socket") {
  // The socket file appears before the bus listens on it: the bus has started once a client can
  // connect, not once the file is there.
  for (int i = 0; daemon_.started() && i < 800; ++i) {
    if (acceptsConnections(dir + "/bus-socket")) {
      started_ = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
}

}  // namespace vl::test
