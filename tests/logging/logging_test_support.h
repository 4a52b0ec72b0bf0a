// Helpers of the logging tests: running one test of this binary in a fresh process (below a parent
// of a chosen name), and an activity stream that the test feeds by hand.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vorlund/logging/activity_stream.h"

namespace vl::test {

// Set in the environment of a child run; tests named ChildProcess* run only there.
inline constexpr const char* kLogChildVariable = "VORLUND_LOG_CHILD";
bool isLogChild();

struct ChildRun {
  int exitCode = -1;   // 128 + signal when the child was killed
  std::string output;  // standard output and error
};

// Runs the test "Suite.Name" of this binary in a new process whose parent process is named
// parentName, with the current environment plus VORLUND_LOG_CHILD=1. Waits for it to end.
ChildRun runChildTest(const std::string& testName, const std::string& parentName);

// An activity stream fed by the test: deliver() hands events to the delegate on the test's thread.
class FakeActivityStream : public ActivityStream {
 public:
  void setFilterProcesses(std::vector<std::string> p) override { processes = std::move(p); }
  void setOptions(uint32_t o) override { options = o; }
  void setDelegate(ActivityStreamDelegate* d) override { delegate = d; }
  void start() override { started = true; }
  void stop() override { stopped = true; }
  bool deliver(const std::vector<ActivityEvent>& events) {
    return delegate->activityStream(*this, events);
  }

  std::vector<std::string> processes;
  uint32_t options = 0;
  ActivityStreamDelegate* delegate = nullptr;
  bool started = false;
  bool stopped = false;
};

// A factory that makes fake streams and keeps them for the test to inspect.
struct FakeStreams {
  std::vector<std::shared_ptr<FakeActivityStream>> made;
  ActivityStreamFactory factory() {
    return [this] {
      made.push_back(std::make_shared<FakeActivityStream>());
      return made.back();
    };
  }
};

}  // namespace vl::test
