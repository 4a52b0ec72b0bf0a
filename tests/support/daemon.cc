#include "support/daemon.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>

#include "vorlund/foundation/time_scale.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/client.h"
#include "vorlund/results/execution.h"

extern char** environ;

namespace vl::test {

Daemon::Daemon(const std::string& path) {
  char* argv[] = {const_cast<char*>(path.c_str()), nullptr};
  if (posix_spawn(&pid_, path.c_str(), nullptr, nullptr, argv, environ) != 0) pid_ = -1;
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
    ipm::sendMessage(IpmValue::ofDictionary(ping), std::chrono::seconds(5), &error);
    if (error.code != static_cast<int64_t>(ipm::IpmErrorCode::kNotRunning)) {
      return error.localizedDescription() == "Unsupported message type \"Ping\"";
    }
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

}  // namespace vl::test
