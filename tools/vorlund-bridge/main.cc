// VorlundBridge, the gateway of one device: device-side processes send their frames for the run's
// manager to the gateway port on loopback; the bridge relays each to the manager unchanged over its
// one connection, and hands every message of the manager to the stress service, sending the
// service's replies back. SIGTERM and SIGINT end it (status 0) once its connections are closed.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bridge_log.h"
#include "manager_link.h"
#include "relays.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/conversion/file_handle.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/gateway.h"

namespace {

constexpr size_t kDefaultQueueFrames = 256;
// How long the manager's messages still in the stress service may go on after a stop signal, so
// that their replies can still be sent (nominal seconds, scaled).
constexpr double kStopWaitSeconds = 5;

int blockTerminationSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) return -1;
  return signalfd(-1, &signals, SFD_CLOEXEC);
}

int waitForSignal(int signalFd) {
  signalfd_siginfo info{};
  ssize_t n;
  do {
    n = read(signalFd, &info, sizeof info);
  } while (n < 0 && errno == EINTR);
  return n == static_cast<ssize_t>(sizeof info) ? static_cast<int>(info.ssi_signo) : 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "VorlundBridge: the gateway between this device's Vorlund processes and the run's manager.\n"
      "It listens on the gateway port on loopback (the preference \"GatewayPort\", else\n"
      "$VORLUND_GATEWAY_PORT, else 3001) and relays every frame it receives there to the manager;\n"
      "it hands every message of the manager to the stress service and sends back its replies.\n"
      "Its first frame on each connection to the manager is a hello naming this device. When the\n"
      "manager cannot be reached it tries again with a pause of 1 second doubling up to 30;\n"
      "frames that arrive meanwhile wait in a bounded queue (--queue) and are sent after the next\n"
      "hello. When the queue is full its oldest frame is dropped; drops are counted and logged."};
  std::string managerText;
  size_t queueFrames = kDefaultQueueFrames;
  app.add_option("--manager", managerText,
                 "the manager as HOST:PORT (default: the preference \"ManagerAddress\")");
  app.add_option("--queue", queueFrames,
                 "how many frames wait while the manager is unreachable (default 256)")
      ->check(CLI::PositiveNumber);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  if (managerText.empty()) {
    managerText = VLGetPreferences().get(vl::bridge::kManagerAddressPreference).stringOr("");
  }
  if (managerText.empty()) {
    std::fprintf(stderr,
                 "VorlundBridge: no manager to relay to: give --manager HOST:PORT or set the "
                 "preference \"ManagerAddress\"\nRun with --help for more information.\n");
    return 2;
  }
  std::string reason;
  std::optional<vl::bridge::ManagerAddress> address =
      vl::bridge::parseManagerAddress(managerText, &reason);
  if (!address) {
    std::fprintf(stderr, "VorlundBridge: %s\n", reason.c_str());
    return 2;
  }

  // Before any thread starts, so that every thread inherits the mask.
  auto signalFd = vl::FileHandle::adopt(blockTerminationSignals());
  if (!signalFd) {
    vl::bridge::note(VLLogLevelFatal, "Unable to watch for termination signals: %s",
                     std::strerror(errno));
    return 1;
  }
  signal(SIGPIPE, SIG_IGN);

  std::unique_ptr<vl::bridge::ManagerLink> link;
  vl::bridge::ServiceRelay service([&link](vl::Data reply) { link->send(std::move(reply)); });
  link = std::make_unique<vl::bridge::ManagerLink>(
      *address, queueFrames,
      [&service](vl::Dictionary message) { service.deliver(std::move(message)); });
  vl::bridge::DeviceGateway gateway([&link](vl::Data frame) { link->send(std::move(frame)); });

  const int port = vl::gatewayPort();
  vl::bridge::note(VLLogLevelInfo, "Relaying the gateway at port %d to the manager at %@:%d", port,
                   address->host, address->port);
  link->start();
  gateway.start(port);

  int received = waitForSignal(signalFd->fileDescriptor());
  vl::bridge::note(VLLogLevelInfo, "Received %s, stopping",
                   received ? strsignal(received) : "an unreadable signal");
  gateway.stop();
  bool answered = service.stop(vl::time::scaled(kStopWaitSeconds));
  link->stop();
  if (!answered) {
    vl::bridge::note(VLLogLevelError,
                     "%zu message(s) of the manager still in the stress service; leaving them",
                     service.pending());
    // Their workers still use the relay: end without running destructors that would wait on them.
    std::_Exit(0);
  }
  return 0;
}
