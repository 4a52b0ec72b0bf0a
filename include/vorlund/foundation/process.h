// Identity of the running process: its name (which decides log-file names, host-process rules and
// more) and its arguments. VORLUND_PROCESS_NAME overrides the name; tests use the scoped overrides.
#pragma once

#include <string>
#include <vector>

namespace vl::process {

// VORLUND_PROCESS_NAME when set, else the program's name (the last component of argv[0]).
std::string name();
// The process arguments, program path first (from /proc/self/cmdline).
std::vector<std::string> arguments();
// The user name of the effective user, or "" when unknown.
std::string userName();
// Process identifier of the parent and its name (/proc/PPID/comm), "" when unknown.
int parentId();
std::string parentName();

// Sets the process name for the lifetime of the object (nestable; not thread-safe against readers
// that run while it is being set, as tests set it before starting work).
class ScopedName {
 public:
  explicit ScopedName(std::string name);
  ~ScopedName();
  ScopedName(const ScopedName&) = delete;
  ScopedName& operator=(const ScopedName&) = delete;

 private:
  std::string previous_;
  bool hadPrevious_;
};

// Replaces the process arguments for the lifetime of the object.
class ScopedArguments {
 public:
  explicit ScopedArguments(std::vector<std::string> arguments);
  ~ScopedArguments();
  ScopedArguments(const ScopedArguments&) = delete;
  ScopedArguments& operator=(const ScopedArguments&) = delete;

 private:
  std::vector<std::string> previous_;
  bool hadPrevious_;
};

}  // namespace vl::process
