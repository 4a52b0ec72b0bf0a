// Runs a program to completion for a test and returns its exit status and output.
#pragma once

#include <string>
#include <vector>

namespace vl::test {

struct ChildResult {
  int exitStatus = -1;  // the exit code, or 128 + signal when killed by a signal
  std::string out;
  std::string err;
};

// Runs argv (argv[0] is looked up in PATH) with the current environment and stdin from /dev/null.
ChildResult runChild(const std::vector<std::string>& argv);

}  // namespace vl::test
