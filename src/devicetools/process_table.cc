#include "vorlund/devicetools/process_table.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <vector>

#include "devicetools/memory_table.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/regex.h"
#include "vorlund/foundation/value.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kCategory = "Framework";
constexpr const char* kMemoryTableCommand = "culler_rank";
constexpr double kMemoryTableTimeout = 10.0;
constexpr const char* kMemoryLinePattern =
    "([0-9]+\\.?[0-9]*)MB[ ]*[0-9]+\\.?[0-9]*MB[ ]*[0-9]+\\.?[0-9]*MB[NY0-9 -]*%@\n";

std::optional<std::string> readSmallFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  char buffer[256];
  ssize_t n = ::read(fd, buffer, sizeof buffer);
  ::close(fd);
  if (n < 0) return std::nullopt;
  return std::string(buffer, static_cast<size_t>(n));
}

}  // namespace

int64_t VLGetNumberOfCoresOnHost() {
  long count = ::sysconf(_SC_NPROCESSORS_ONLN);
  return count > 0 ? static_cast<int64_t>(count) : 1;
}

std::vector<int32_t> vl::processIdentifiers() {
  std::vector<int32_t> pids;
  DIR* proc = ::opendir("/proc");
  if (!proc) return pids;
  while (dirent* entry = ::readdir(proc)) {
    char* end = nullptr;
    long pid = std::strtol(entry->d_name, &end, 10);
    if (end && *end == '\0' && pid > 0) pids.push_back(static_cast<int32_t>(pid));
  }
  ::closedir(proc);
  std::sort(pids.begin(), pids.end());
  return pids;
}

int32_t VLGetPIDForProcess(const std::string& name) {
  for (int32_t pid : vl::processIdentifiers()) {
    // A process that ended meanwhile has no comm any more; it simply does not match.
    std::optional<std::string> comm = readSmallFile(vl::format("/proc/%d/comm", pid));
    if (!comm) continue;
    if (!comm->empty() && comm->back() == '\n') comm->pop_back();
    if (*comm == name) return pid;
  }
  return -1;
}

std::optional<double> vl::megabytesOnMemoryTableLine(std::string_view output,
                                                     const char* linePattern,
                                                     const std::string& name, std::string* matched,
                                                     Error* error) {
  std::optional<Regex> pattern = Regex::compile(format(linePattern, name), {}, error);
  if (!pattern) return std::nullopt;
  std::optional<RegexMatch> match = pattern->firstMatch(output);
  if (!match || !match->group(1)) return std::nullopt;
  if (matched) *matched = match->text();
  return std::strtod(match->group(1)->c_str(), nullptr);
}

std::optional<double> vl::memoryFromMemoryTable(std::string_view output, const std::string& name,
                                                std::string* matched, Error* error) {
  return megabytesOnMemoryTableLine(output, kMemoryLinePattern, name, matched, error);
}

double VLGetMemoryForProcess(const std::string& name) {
  std::string output = VLExecuteShellCommand(kMemoryTableCommand, {}, true, kMemoryTableTimeout);
  vl::Error error;
  std::string matched;
  std::optional<double> megabytes = vl::memoryFromMemoryTable(output, name, &matched, &error);
  if (!megabytes) {
    VLLog(VLLogLevelNotice, kCategory, "Unable to find match for process %@. Match: %@, Error: %@",
          name, vl::Value(), error.domain.empty() ? vl::Value() : vl::Value(error.description()));
    return 0.0;
  }
  return *megabytes;
}
