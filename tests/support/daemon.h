// A long-running program as a child process of a test: the stress service on the test's private
// bus (the test binary runs under dbus-run-session), or a bus of the test's own.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "support/test_support.h"

namespace vl::test {

// Starts argv (argv[0] is the program's path) with the current environment; kills and reaps it if
// the test ends before it does.
class Daemon {
 public:
  explicit Daemon(const std::vector<std::string>& argv);
  explicit Daemon(const std::string& path) : Daemon(std::vector<std::string>{path}) {}
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  // For the stress service: waits until it answers on the bus (it routes a message of a type it
  // has no handler for and replies with an empty dictionary); false after 20 seconds or when it
  // answers with an error.
  bool waitUntilServing();

  // Sends signal and returns the exit status, or -1 when the daemon did not exit normally.
  int stop(int signal);
  // Waits up to 20 seconds for the daemon to exit by itself and returns its exit status; -1 when
  // it did not exit normally or in time (then it is killed).
  int waitForExit();

 private:
  pid_t pid_ = -1;
};

// A session bus of the test's own: a dbus-daemon listening on dir/bus-socket, named by
// DBUS_SESSION_BUS_ADDRESS while it lives. With serviceDir, the bus starts services on demand from
// the activation files there.
class PrivateBus {
 public:
  explicit PrivateBus(const std::string& dir, const std::string& serviceDir = "");
  // True once the bus listens.
  bool started() const { return started_; }
  // Kills the bus; its clients lose their connections.
  void stop() { daemon_.stop(SIGKILL); }

 private:
  static std::vector<std::string> commandFor(const std::string& dir, const std::string& serviceDir);
  Daemon daemon_;
  ScopedEnv address_;
  bool started_ = false;
};

}  // namespace vl::test
