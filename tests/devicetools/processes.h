// Finding and ending the processes a test's commands leave behind, by their exact command line, so
// that a test can check that none survived and clean up after a failure; and waiting, bounded, for
// what a child or a timer does.
#pragma once

#include <dirent.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace vl::test {

// Processes that are alive (zombies excluded) and run exactly argv.
inline std::vector<int> liveProcesses(const std::vector<std::string>& argv) {
  std::string wanted;
  for (const std::string& arg : argv) wanted += arg + '\0';
  std::vector<int> found;
  DIR* proc = opendir("/proc");
  while (dirent* entry = proc ? readdir(proc) : nullptr) {
    int pid = std::atoi(entry->d_name);
    if (pid <= 0) continue;
    std::string base = "/proc/" + std::to_string(pid);
    if (readFile(base + "/cmdline") != wanted) continue;
    std::string stat = readFile(base + "/stat");
    size_t close = stat.rfind(')');
    if (close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z') {
      found.push_back(pid);
    }
  }
  if (proc) closedir(proc);
  return found;
}

// Whether condition holds within seconds, tried every two milliseconds.
inline bool eventually(const std::function<bool()>& condition, double seconds = 20) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return condition();
}

// Waits up to seconds for every process running argv to end; whatever is left is killed so that
// a failed test leaves nothing behind. Returns whether none was left.
inline bool endedWithin(const std::vector<std::string>& argv, double seconds) {
  eventually([&] { return liveProcesses(argv).empty(); }, seconds);
  std::vector<int> left = liveProcesses(argv);
  for (int pid : left) ::kill(pid, SIGKILL);
  return left.empty();
}

}  // namespace vl::test
