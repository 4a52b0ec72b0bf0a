// vorlund-manager: the reference manager of a stress run on the host. Bridges of the devices
// connect to it; it keeps their characteristics and attributes, answers their manager commands,
// routes test cases between them and hands host requests to the operator's king handler.
// `vorlund-manager --status` asks a running manager for its devices instead.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <optional>
#include <string>

#include "manager.h"
#include "manager_log.h"
#include "server.h"
#include "status_client.h"

int main(int argc, char** argv) {
  CLI::App app{"vorlund-manager: the manager that the devices' bridges connect to"};
  int port = manager::kDefaultManagerPort;
  std::string listenAddress = "127.0.0.1";
  std::string token;
  std::string kingHandler;
  double kingDeadline = manager::kDefaultKingDeadlineSeconds;
  bool status = false;
  std::string managerAddress;
  bool verbose = false;
  app.add_option("--port", port, "Port to listen on (0: any free port, logged)")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  app.add_option("--listen", listenAddress,
                 "IPv4 address to listen on; 0.0.0.0 for every interface")
      ->capture_default_str();
  app.add_option("--token", token, "Refuse bridges whose hello does not carry this token");
  app.add_option("--king-handler", kingHandler,
                 "Program that answers host requests (the request as JSON on its standard input)");
  app.add_option("--king-timeout", kingDeadline,
                 "Seconds a king handler may run before it is killed")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_flag("--status", status, "Print the devices of a running manager and exit");
  app.add_option("--manager", managerAddress,
                 "With --status: the manager as HOST:PORT (default 127.0.0.1 and --port)");
  app.add_flag("--verbose", verbose, "Also print debug lines on standard error");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  manager::setVerbose(verbose);

  if (status) {
    return manager::printStatus(managerAddress.empty() ? "127.0.0.1:" + std::to_string(port)
                                                       : managerAddress);
  }

  // Blocked in every thread (they inherit the mask) and read from a signalfd by the network loop,
  // so that a signal stops the manager between two accepts rather than inside a handler.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  int stopDescriptor = signalfd(-1, &stopSignals, SFD_CLOEXEC);
  if (stopDescriptor < 0) {
    std::perror("vorlund-manager: signalfd");
    return 1;
  }

  auto unlessEmpty = [](const std::string& text) {
    return text.empty() ? std::nullopt : std::optional(text);
  };
  manager::Manager hub(
      manager::ManagerSettings{unlessEmpty(token), unlessEmpty(kingHandler), kingDeadline});
  int exitStatus = 0;
  {
    manager::Server server(hub);
    if (server.listen(listenAddress, port)) {
      server.run(stopDescriptor);
      manager::log(VLLogLevelInfo, "Stopping");
    } else {
      exitStatus = 1;
    }
  }
  hub.stop();
  close(stopDescriptor);
  return exitStatus;
}
