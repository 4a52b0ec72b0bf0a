#include "vorlund/foundation/process.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>

#include "vorlund/foundation/paths.h"

namespace vl::process {

namespace {

std::mutex overrideMutex;
std::optional<std::vector<std::string>> argumentsOverride;

std::string firstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

}  // namespace

std::string name() {
  if (const char* n = std::getenv("VORLUND_PROCESS_NAME"); n && *n) return n;
  return program_invocation_short_name ? program_invocation_short_name : "";
}

std::vector<std::string> arguments() {
  {
    std::lock_guard lock(overrideMutex);
    if (argumentsOverride) return *argumentsOverride;
  }
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  std::vector<std::string> result;
  std::string argument;
  while (std::getline(in, argument, '\0')) result.push_back(argument);
  return result;
}

std::string userName() {
  if (const passwd* pw = getpwuid(geteuid()); pw && pw->pw_name) return pw->pw_name;
  return "";
}

int parentId() { return static_cast<int>(getppid()); }

std::string parentName() { return firstLine("/proc/" + std::to_string(getppid()) + "/comm"); }

ScopedName::ScopedName(std::string name) {
  const char* old = std::getenv("VORLUND_PROCESS_NAME");
  hadPrevious_ = old != nullptr;
  if (old) previous_ = old;
  setenv("VORLUND_PROCESS_NAME", name.c_str(), 1);
}

ScopedName::~ScopedName() {
  if (hadPrevious_) {
    setenv("VORLUND_PROCESS_NAME", previous_.c_str(), 1);
  } else {
    unsetenv("VORLUND_PROCESS_NAME");
  }
}

ScopedArguments::ScopedArguments(std::vector<std::string> arguments) {
  std::lock_guard lock(overrideMutex);
  hadPrevious_ = argumentsOverride.has_value();
  if (hadPrevious_) previous_ = *argumentsOverride;
  argumentsOverride = std::move(arguments);
}

ScopedArguments::~ScopedArguments() {
  std::lock_guard lock(overrideMutex);
  if (hadPrevious_) {
    argumentsOverride = previous_;
  } else {
    argumentsOverride.reset();
  }
}

}  // namespace vl::process
