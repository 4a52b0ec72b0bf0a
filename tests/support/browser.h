// Loads a page in headless Chromium (Debian's chromium package) for a test and returns the DOM its
// scripts left behind, so that a test can check what the page drew and which script errors it
// recorded. The browser is owned by the call: nothing of it runs after the call returns.
#pragma once

#include <chrono>
#include <string>

namespace vl::test {

inline constexpr const char* kChromiumPath = "/usr/bin/chromium";

// Whether kChromiumPath exists and can be run.
bool chromiumAvailable();

struct BrowserDump {
  // True when Chromium exited by itself before the deadline.
  bool finished = false;
  int exitStatus = -1;  // as ChildResult: the exit code, or 128 + signal
  std::string dom;      // what --dump-dom printed
  std::string log;      // Chromium's standard error, for a failure message
  // Processes of the browser that were still running after it was killed; always 0 unless the
  // clean-up itself failed.
  int survivors = 0;
};

// Loads the file at htmlPath headless with a fresh profile in profileDir (created; the caller
// removes it), without network extras (no QUIC, sync, component updates or background
// networking), and dumps the DOM once the page has loaded. Chromium and all of its helpers run in
// a process group of their own and carry a marker in their environment: at the deadline, and in
// any case once the browser exits, every process of the group or with the marker is killed and
// the browser reaped, so that none outlives the call.
BrowserDump dumpDom(const std::string& htmlPath, const std::string& profileDir,
                    std::chrono::milliseconds deadline);

}  // namespace vl::test
