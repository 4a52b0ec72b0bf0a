#include "devicetools/memory_fallbacks.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <vector>

#include "devicetools/shell_quote.h"
#include "vorlund/devicetools/memory_diagnostics.h"
#include "vorlund/devicetools/process_table.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/paths.h"

namespace vl::memory {
namespace {

constexpr double kToolTimeout = 10.0;
// The shell runner adds this folder to PATH, so a tool found there runs too.
constexpr const char* kRunnerPathSuffix = "/usr/local/bin";
constexpr const char* kMeminfoKernelKeys[] = {
    "Slab:", "SReclaimable:", "SUnreclaim:", "KernelStack:", "PageTables:", "VmallocUsed:"};

std::string procFile(int32_t pid, const char* name) { return format("/proc/%d/%s", pid, name); }

std::string fileOrNote(const std::string& path) {
  std::optional<std::string> text = paths::readFile(path);
  return text ? *text : format("%@: not readable\n", path);
}

void write(const std::string& file, const std::string& text) {
  paths::writeFileAtomically(file, text);
}

// One line in place of a per-process file, as a tool writes when the process is not there.
bool notRunning(const std::string& file, int32_t pid, const std::string& process) {
  if (pid > 0) return false;
  write(file, format("No process named %@ is running\n", process));
  return true;
}

// The number after "Key:" in a /proc status text, or -1.
long long statusField(const std::string& status, std::string_view key) {
  size_t at = status.find(key);
  if (at == std::string::npos) return -1;
  return std::strtoll(status.c_str() + at + key.size(), nullptr, 10);
}

std::string trimmedLine(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

}  // namespace

void writeMemoryPressure(const std::string& file) {
  write(file, "/proc/pressure/memory\n" + fileOrNote("/proc/pressure/memory"));
}

void writeOomRanking(const std::string& file) {
  struct Row {
    long long score;
    int32_t pid;
    std::string name;
    long long residentKilobytes;
    std::optional<double> limit;
  };
  std::vector<Row> rows;
  for (int32_t pid : vl::processIdentifiers()) {
    std::optional<std::string> score = paths::readFile(procFile(pid, "oom_score"));
    std::optional<std::string> status = paths::readFile(procFile(pid, "status"));
    std::optional<std::string> comm = paths::readFile(procFile(pid, "comm"));
    if (!score || !status || !comm) continue;  // ended meanwhile
    rows.push_back({std::strtoll(score->c_str(), nullptr, 10), pid, trimmedLine(*comm),
                    std::max(0LL, statusField(*status, "VmRSS:")), cgroupLimitMegabytes(pid)});
  }
  std::stable_sort(rows.begin(), rows.end(),
                   [](const Row& a, const Row& b) { return a.score > b.score; });
  std::string text =
      format("%9s %8s %12s %12s  %s\n", "OOM_SCORE", "PID", "RESIDENT_MB", "LIMIT_MB", "PROCESS");
  for (const Row& row : rows) {
    std::string limit = row.limit ? format("%.1f", *row.limit) : std::string("-");
    text += format("%9lld %8d %12.1f %12s  %@\n", row.score, row.pid,
                   static_cast<double>(row.residentKilobytes) / 1024.0, limit, row.name);
  }
  write(file, text);
}

void writeVmStatistics(const std::string& file) {
  write(file, "/proc/vmstat\n" + fileOrNote("/proc/vmstat") + "\n/proc/meminfo\n" +
                  fileOrNote("/proc/meminfo"));
}

void writeKernelMemory(const std::string& file) {
  // slabinfo is readable by root only; the slab lines of meminfo are the summary everyone gets.
  if (std::optional<std::string> slabs = paths::readFile("/proc/slabinfo")) {
    write(file, "/proc/slabinfo\n" + *slabs);
    return;
  }
  std::string text = "/proc/meminfo (slab and kernel lines)\n";
  std::istringstream lines(paths::readFile("/proc/meminfo").value_or(""));
  std::string line;
  while (std::getline(lines, line)) {
    for (const char* key : kMeminfoKernelKeys) {
      if (line.rfind(key, 0) == 0) text += line + "\n";
    }
  }
  write(file, text);
}

void writeHeapSummary(const std::string& file, int32_t pid, const std::string& process) {
  if (notRunning(file, pid, process)) return;
  write(file, procFile(pid, "smaps_rollup") + "\n" + fileOrNote(procFile(pid, "smaps_rollup")) +
                  "\n" + procFile(pid, "status") + "\n" + fileOrNote(procFile(pid, "status")));
}

void writeMappings(const std::string& file, int32_t pid, const std::string& process) {
  if (notRunning(file, pid, process)) return;
  write(file, fileOrNote(procFile(pid, "smaps")));
}

void writeMemoryImage(const std::string& file, int32_t pid, const std::string& process) {
  if (notRunning(file, pid, process)) return;
  if (std::optional<std::string> gcore = findTool("gcore")) {
    // gcore appends the identifier to the name it is given.
    const std::string prefix = file + ".core";
    VLExecuteShellCommand(format("%@ -o %@ %d", devicetools::shellQuoted(*gcore),
                                 devicetools::shellQuoted(prefix), pid),
                          {}, true, kToolTimeout);
    std::error_code error;
    std::filesystem::rename(format("%@.%d", prefix, pid), file, error);
    if (!error) return;
  }
  write(file, fileOrNote(procFile(pid, "maps")));
}

void writeDescriptors(const std::string& file, int32_t pid, const std::string& process) {
  if (notRunning(file, pid, process)) return;
  const std::string folder = procFile(pid, "fd");
  std::vector<std::pair<long, std::string>> descriptors;
  std::error_code error;
  std::filesystem::directory_iterator it(folder, error);
  for (; !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    std::error_code linkError;
    std::filesystem::path target = std::filesystem::read_symlink(it->path(), linkError);
    descriptors.emplace_back(std::strtol(it->path().filename().c_str(), nullptr, 10),
                             linkError ? "?" : target.string());
  }
  std::sort(descriptors.begin(), descriptors.end());
  std::string text = format("%@ (%d): %zd open descriptors\n", process, pid,
                            static_cast<ssize_t>(descriptors.size()));
  for (const auto& [fd, target] : descriptors) text += format("%6ld -> %@\n", fd, target);
  write(file, text);
}

std::optional<double> cgroupLimitMegabytes(int32_t pid) {
  std::optional<std::string> cgroup = paths::readFile(procFile(pid, "cgroup"));
  if (!cgroup) return std::nullopt;
  for (const std::string& limitFile : cgroupMemoryLimitFiles(*cgroup)) {
    std::optional<std::string> text = paths::readFile(paths::resolve(limitFile));
    if (!text) continue;
    if (std::optional<double> megabytes = vl::cgroupLimitMegabytes(*text)) return megabytes;
  }
  return std::nullopt;
}

std::optional<std::string> findTool(const std::string& tool) {
  if (tool.find('/') != std::string::npos) {
    if (::access(tool.c_str(), X_OK) == 0) return tool;
    return std::nullopt;
  }
  const char* path = std::getenv("PATH");
  std::istringstream folders(std::string(path ? path : "") + ":" + kRunnerPathSuffix);
  std::string folder;
  while (std::getline(folders, folder, ':')) {
    if (folder.empty()) continue;
    std::string candidate = paths::join(folder, tool);
    std::error_code error;
    if (::access(candidate.c_str(), X_OK) == 0 &&
        !std::filesystem::is_directory(candidate, error)) {
      return candidate;
    }
  }
  return std::nullopt;
}

}  // namespace vl::memory
