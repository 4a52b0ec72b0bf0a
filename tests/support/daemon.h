// The stress service program as a child process of a test, on the test's private bus
// (the test binary runs under dbus-run-session).
#pragma once

#include <sys/types.h>

#include <string>

namespace vl::test {

// Starts the program at path with the current environment; kills and reaps it if the test ends
// before it does.
class Daemon {
 public:
  explicit Daemon(const std::string& path);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  // Waits until the daemon answers on the bus (it refuses an unknown message type); false after 20
  // seconds or when it answers otherwise.
  bool waitUntilServing();

  // Sends signal and returns the exit status, or -1 when the daemon did not exit normally.
  int stop(int signal);

 private:
  pid_t pid_ = -1;
};

}  // namespace vl::test
