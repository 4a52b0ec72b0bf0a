// Host ("king") requests answered by a program of the operator's: for each request the program
// given with --king-handler runs with {"request", "command", "RequestingDevice"} as JSON on its
// standard input. Exit status 0 means the request succeeded; otherwise its standard error says
// why. Each run has a thread of its own, so a slow handler holds up no other traffic, and a
// process group of its own, killed whole at the deadline or when the manager stops.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "vorlund/foundation/value.h"

namespace vl {
class Task;
}

namespace manager {

// How long one handler run may take by default (nominal seconds, scaled).
inline constexpr double kDefaultKingDeadlineSeconds = 60;

// The outcome of one run: the answer's "succeeded" and "error".
struct KingOutcome {
  bool succeeded = false;
  std::string error;
};

class KingHandler {
 public:
  using Reply = std::function<void(const KingOutcome&)>;

  // program is run directly (not through a shell), with no arguments.
  KingHandler(std::string program, double deadlineSeconds);
  // stop().
  ~KingHandler();
  KingHandler(const KingHandler&) = delete;
  KingHandler& operator=(const KingHandler&) = delete;

  // Starts the program for one request and returns at once; reply is called on the run's thread
  // with the outcome: succeeded for exit status 0; otherwise the error is the program's standard
  // error with surrounding white space trimmed, or, when that is empty, a text saying how it ended
  // (exit status, signal, the deadline passing, or why it could not be started).
  void run(int64_t request, const vl::Value& command, const std::string& requestingDevice,
           Reply reply);

  // Kills every running handler's process group and waits for the runs to end (their replies are
  // still called). Later run() calls answer at once that the manager is stopping.
  void stop();

 private:
  struct Run {
    std::thread thread;
    std::shared_ptr<vl::Task> task;
    bool done = false;
  };
  KingOutcome execute(Run& run, const std::string& input);
  // With mutex_ held: joins the threads of runs that have ended.
  void reapLocked();

  const std::string program_;
  const double deadlineSeconds_;
  std::mutex mutex_;
  std::list<Run> runs_;
  bool stopping_ = false;
};

}  // namespace manager
