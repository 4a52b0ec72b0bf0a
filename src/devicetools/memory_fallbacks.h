// The Linux equivalents of the memory tools that a device lacks: each writes the file its tool
// would have written, under the same name, from the real /proc (cgroup files under the device
// root). Failures are not reported, as the tools' are not: a missing file is the symptom.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vl::memory {

// The system-wide files; they do not depend on the process.
void writeMemoryPressure(const std::string& file);
void writeOomRanking(const std::string& file);
void writeVmStatistics(const std::string& file);
void writeKernelMemory(const std::string& file);

// The per-process files; pid -1 (the process is not running) writes one line saying so.
void writeHeapSummary(const std::string& file, int32_t pid, const std::string& process);
void writeMappings(const std::string& file, int32_t pid, const std::string& process);
void writeMemoryImage(const std::string& file, int32_t pid, const std::string& process);
void writeDescriptors(const std::string& file, int32_t pid, const std::string& process);

// The limit of the process's cgroup in megabytes; none when it has none or cannot be read.
std::optional<double> cgroupLimitMegabytes(int32_t pid);

// Where an external tool is: the executable at its absolute path, or the first executable of that
// name on PATH (the shell runner's, which ends in /usr/local/bin). None when there is none.
std::optional<std::string> findTool(const std::string& tool);

}  // namespace vl::memory
