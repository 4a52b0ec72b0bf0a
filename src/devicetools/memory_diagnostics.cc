#include "vorlund/devicetools/memory_diagnostics.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "devicetools/memory_fallbacks.h"
#include "devicetools/memory_table.h"
#include "vorlund/deviceinfo/device_identity.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/devicetools/process_table.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kCategory = "Framework";
constexpr double kToolTimeout = 10.0;
constexpr const char* kPerfPathFormat =
    "/var/root/Library/Logs/Vorlund/RingPerfTest/%@/%@/%@/%@-SpawnID-%@/%@";
// "yyyyMMdd.hhmmss": hh is the 12-hour clock and there is no AM/PM marker, on purpose.
constexpr const char* kPerfStartTimePattern = "%Y%m%d.%I%M%S";
constexpr const char* kBaseTimePattern = "%Y%m%d-%H-%M-%S";
constexpr const char* kHeapObjectsCommand =
    "/usr/bin/heap -guessNonObjects -sumObjectFields -addresses=all -noContent %@ > %@/%@_%@.log";
constexpr const char* kLeaksCommand = "/usr/bin/leaks -fullContent -outputGraph %@ %@";
constexpr const char* kMemoryTableTool = "culler_rank";
constexpr const char* kMemoryLimitPattern = "([0-9]+\\.?[0-9]*)MB[NY0-9 -]*%@\n";
constexpr const char* kArenaTool = "arenalist";
constexpr const char* kDirtyPagesCommand =
    R"(arenalist %@ | grep 'MALLOC_SMALL (empty)' | tail -1 | perl -ne 'print ($3."\n") if /MALLOC_SMALL \(empty\)\s*([0-9]*.?[0-9]*?[M,K])\s*([0-9]*.?[0-9]*?[M,K])\s*([0-9]*.?[0-9]*?[M,K])\s*([0-9]*.?[0-9]*?[M,K])\s*([0-9]*.?[0-9]*?[M,K])\s*([0-9]*.?[0-9]*?[M,K])\s*([0-9]*.?[0-9]*?[M,K])\s*([0-9]*)/')";

// One tool run of a set: the command as written, the file it leaves, and what writes that file
// when the tool is missing.
struct ToolRun {
  std::string command;
  std::string file;
  std::function<void(const std::string& file)> fallback;
};

struct StartTimeSource {
  std::mutex mutex;
  std::function<vl::Date()> source;
  std::optional<vl::Date> firstAsked;
};

StartTimeSource& startTimeSource() {
  static StartTimeSource* instance = new StartTimeSource();  // lives for the process
  return *instance;
}

vl::Date runStartTime() {
  std::function<vl::Date()> source;
  {
    std::lock_guard lock(startTimeSource().mutex);
    source = startTimeSource().source;
    if (!source) {
      if (!startTimeSource().firstAsked) startTimeSource().firstAsked = vl::Date::now();
      return *startTimeSource().firstAsked;
    }
  }
  return source();
}

// The device's words as one plain path component: the commands take the paths unquoted, and a
// model name such as "ThinkPad X13" would split them.
std::string plainComponent(std::string text) {
  for (char& c : text) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '.' || c == '_' || c == ',' || c == '+' || c == '-';
    if (!plain) c = '_';
  }
  return text;
}

// The command with its tool's folder dropped when the tool is found by name on PATH rather than
// at the path written; none when the tool is nowhere.
std::optional<std::string> runnableCommand(const std::string& command) {
  size_t start = command.find_first_not_of(' ');
  if (start == std::string::npos) return std::nullopt;
  size_t end = command.find(' ', start);
  std::string tool = command.substr(start, end == std::string::npos ? end : end - start);
  if (vl::memory::findTool(tool)) return command;
  std::string name = vl::paths::lastComponent(tool);
  if (name == tool || !vl::memory::findTool(name)) return std::nullopt;
  return command.substr(0, start) + name + command.substr(start + tool.size());
}

std::vector<std::string> run(const std::vector<ToolRun>& runs) {
  std::vector<std::string> files;
  for (const ToolRun& tool : runs) {
    if (std::optional<std::string> command = runnableCommand(tool.command)) {
      VLExecuteShellCommand(*command, {}, true, kToolTimeout);
    } else {
      tool.fallback(tool.file);
    }
    files.push_back(tool.file);
  }
  return files;
}

std::string testCaseFolder(const std::string& testCase, const std::string& process,
                           int environment) {
  std::string folder =
      vl::format("%@/%02d_%@", VLGetPerfPathForProcess(process), environment, testCase);
  if (!vl::paths::createDirectories(folder)) {
    VLLog(VLLogLevelInfo, kCategory, "Error creating directory at %@: %@", folder,
          std::strerror(errno));
  }
  return folder;
}

ToolRun heapObjects(const std::string& folder, const std::string& process, const char* stage) {
  std::string name = vl::format("heap_object_%s", stage);
  return {vl::format(kHeapObjectsCommand, process, folder, name, process),
          vl::format("%@/%@_%@.log", folder, name, process), [process](const std::string& file) {
            vl::memory::writeHeapSummary(file, VLGetPIDForProcess(process), process);
          }};
}

ToolRun memoryGraph(const std::string& file, const std::string& process) {
  return {vl::format(kLeaksCommand, file, process), file, [process](const std::string& to) {
            vl::memory::writeMemoryImage(to, VLGetPIDForProcess(process), process);
          }};
}

// A process given by its identifier in digits, else by name.
int32_t processIdentifierOf(const std::string& process) {
  if (!process.empty() && process.find_first_not_of("0123456789") == std::string::npos) {
    return static_cast<int32_t>(std::strtol(process.c_str(), nullptr, 10));
  }
  return VLGetPIDForProcess(process);
}

}  // namespace

std::string VLGetPerfPathForProcess(const std::string& process) {
  std::string start = vl::formatLocalTime(runStartTime(), kPerfStartTimePattern);
  return vl::paths::resolve(vl::format(
      kPerfPathFormat, start, process, plainComponent(vl::deviceHardwareModel()),
      plainComponent(vl::deviceBuildVersion()), start, plainComponent(vl::deviceSerialNumber())));
}

std::vector<std::string> VLDumpInitialLogSetForMemoryPerfForEnv(const std::string& testCase,
                                                                const std::string& process,
                                                                int environment) {
  std::string folder = testCaseFolder(testCase, process, environment);
  return run({heapObjects(folder, process, "start")});
}

std::vector<std::string> VLDumpLogsForMemoryPerfForTestCaseForFolder(const std::string& testCase,
                                                                     int iteration,
                                                                     const std::string& process,
                                                                     int environment) {
  using namespace vl::memory;
  std::string folder = testCaseFolder(testCase, process, environment);
  std::string base = vl::format("%@/%02d_%@_%@_%@", folder, iteration, testCase,
                                plainComponent(vl::deviceBuildVersion()),
                                vl::formatLocalTime(vl::Date::now(), kBaseTimePattern));
  int32_t pid = VLGetPIDForProcess(process);
  auto forProcess = [pid,
                     process](void (*writer)(const std::string&, int32_t, const std::string&)) {
    return [writer, pid, process](const std::string& file) { writer(file, pid, process); };
  };
  const std::vector<ToolRun> runs = {
      {vl::format("/usr/local/bin/NimbusDebug > %@_nimbusdebug.log", base),
       vl::format("%@_nimbusdebug.log", base), writeMemoryPressure},
      {vl::format("/usr/local/bin/culler_rank -ek > %@_culler_rank.log", base),
       vl::format("%@_culler_rank.log", base), writeOomRanking},
      {vl::format("/usr/bin/vm_stat > %@_vm_stat.log", base), vl::format("%@_vm_stat.log", base),
       writeVmStatistics},
      // The leading blank is part of the command as it has always been written.
      {vl::format(" /usr/bin/kmemtally > %@_kmemtally.log", base),
       vl::format("%@_kmemtally.log", base), writeKernelMemory},
      {vl::format("/usr/bin/heap -guessNonObjects -sumObjectFields -showSizes %@ > %@_heap_%@.log",
                  process, base, process),
       vl::format("%@_heap_%@.log", base, process), forProcess(writeHeapSummary)},
      {vl::format(" /usr/bin/arenalist -v -stacks %@ > %@_arenalist_%@.log", process, base,
                  process),
       vl::format("%@_arenalist_%@.log", base, process), forProcess(writeMappings)},
      {vl::format(kLeaksCommand, vl::format("%@_memory_graph_%@.memgraph", base, process), process),
       vl::format("%@_memory_graph_%@.memgraph", base, process), forProcess(writeMemoryImage)},
      {vl::format("/usr/bin/portscope -p %d > %@_portscope_%@.log", pid, base, process),
       vl::format("%@_portscope_%@.log", base, process), forProcess(writeDescriptors)},
  };
  return run(runs);
}

std::vector<std::string> VLDumpFinalLogSetForMemoryPerf(const std::string& testCase,
                                                        const std::string& process,
                                                        int environment) {
  std::string folder = testCaseFolder(testCase, process, environment);
  return run(
      {heapObjects(folder, process, "end"),
       memoryGraph(vl::format("%@/memory_graph_end_%@.memgraph", folder, process), process)});
}

double VLGetCurrentMemoryLimitForProcess(const std::string& process) {
  std::optional<double> megabytes;
  vl::Error error;
  if (vl::memory::findTool(kMemoryTableTool)) {
    std::string output = VLExecuteShellCommand(kMemoryTableTool, {}, true, kToolTimeout);
    megabytes = vl::memoryLimitFromMemoryTable(output, process, nullptr, &error);
  } else if (int32_t pid = VLGetPIDForProcess(process); pid > 0) {
    megabytes = vl::memory::cgroupLimitMegabytes(pid);
  }
  if (!megabytes) {
    VLLog(VLLogLevelNotice, kCategory, "Unable to find match for process %@. Match: %@, Error: %@",
          process, vl::Value(),
          error.domain.empty() ? vl::Value() : vl::Value(error.description()));
    return 0.0;
  }
  return *megabytes;
}

double VLGetCurrentyDirtyPageSize(const std::string& process) {
  if (!vl::memory::findTool(kArenaTool)) {
    int32_t pid = processIdentifierOf(process);
    std::optional<std::string> smaps =
        pid > 0 ? vl::paths::readFile(vl::format("/proc/%d/smaps", pid)) : std::nullopt;
    if (!smaps) {
      VLLog(VLLogLevelError, kCategory, "arenalist returned an empty result for %@", process);
      return 0.0;
    }
    return vl::dirtyAnonymousKilobytesFromSmaps(*smaps);
  }
  std::string text =
      VLExecuteShellCommand(vl::format(kDirtyPagesCommand, process), {}, true, kToolTimeout);
  double kilobytes = 0.0;
  switch (vl::dirtyPageSizeFromText(text, &kilobytes)) {
    case vl::DirtyPageText::kSize:
      return kilobytes;
    case vl::DirtyPageText::kEmpty:
      VLLog(VLLogLevelError, kCategory, "arenalist returned an empty result for %@", process);
      return 0.0;
    case vl::DirtyPageText::kInvalid:
      VLLog(VLLogLevelError, kCategory, "arenalist returned invalid result for %@", process);
      return 0.0;
  }
  return 0.0;
}

void vl::devicetools::setRunStartTimeSource(std::function<Date()> source) {
  std::lock_guard lock(startTimeSource().mutex);
  startTimeSource().source = std::move(source);
}

std::optional<double> vl::memoryLimitFromMemoryTable(std::string_view output,
                                                     const std::string& name, std::string* matched,
                                                     Error* error) {
  return megabytesOnMemoryTableLine(output, kMemoryLimitPattern, name, matched, error);
}
