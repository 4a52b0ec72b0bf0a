// Scanning a Faultbin folder of 10,000 reports (most without a crashed thread, the crashed-thread
// line deep in those that have one, a few simulated crashes, kill reports and memory dumps), beside
// the raw baseline of grep listing the files that hold a crashed-thread line in the same folder.
// Issues go to a counting recorder, so the figure is the scan's own. Rates are files per second.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench_sandbox.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/devicetools/crash_scanner.h"
#include "vorlund/logging/log.h"
#include "vorlund/logging/toolkit_logger.h"

namespace {

constexpr int kFiles = 10000;
constexpr const char* kUser = "mobile";

std::string threadBlock(int thread, bool crashed) {
  std::string block = "Thread " + std::to_string(thread) + (crashed ? " Crashed:\n" : ":\n");
  for (int frame = 0; frame < 12; ++frame) {
    block += std::to_string(frame) + "   libglib-2.0.so.0     0x00007f3a1c4" +
             std::to_string(100000 + frame * 7919 + thread) + " g_main_context_iterate + " +
             std::to_string(40 + frame) + "\n";
  }
  return block + "\n";
}

std::string report(const std::string& process, bool crashed, bool simulated) {
  std::string text =
      "Incident Identifier: 6F1C0A2B-77D2-4A1E-9C3B-0D1E2F3A4B5C\nProcess:             " + process +
      " [812]\nPath:                /usr/sbin/" + process +
      "\nCode Type:           X86-64 (Native)\nDate/Time:           2023-05-01 "
      "12:34:56.120 +0200\nOS Version:          Debian GNU/Linux 12\n\n";
  text += crashed ? "Exception Type:  EXC_CRASH (SIGSEGV)\n" : "Exception Type:  EXC_RESOURCE\n";
  if (simulated) text += "Exception Note:  SIMULATED (this is NOT a crash)\n";
  text += "\n";
  // The crashed thread, when there is one, is the last: its line stands deep in the file.
  for (int thread = 0; thread < 8; ++thread) text += threadBlock(thread, crashed && thread == 7);
  return text + "Binary Images:\n0x55d4c2a00000 - 0x55d4c2bfffff " + process + " x86_64\n";
}

// The folder of the run, written once.
const std::string& reportFolder() {
  static const std::string folder = [] {
    vl::bench::sandbox();
    // A run has its preferences; without them every classified crash would log their absence.
    VLSavePreference(vl::Value(vl::Array{vl::Value("gpsd")}),
                     kVLIncludeSimulatedCrashesForPreference);
    std::string path = vl::faultbinFoldersForUser(kUser).front();
    std::filesystem::create_directories(path);
    const char* processes[] = {"wpa_supplicant", "bluetoothd", "ModemManager", "iwd", "gpsd"};
    for (int i = 0; i < kFiles; ++i) {
      const std::string process = processes[i % 5];
      char date[64];
      std::snprintf(date, sizeof date, "2023-05-%02d-%02d%02d%02d", 1 + i % 28, i / 3600 % 24,
                    i / 60 % 60, i % 60);
      const int kind = i % 100;
      std::string name;
      std::string text;
      if (kind < 2) {
        name = "CullerEvent_" + std::string(date) + ".ips";
        text = "culler event report\n{\"processes\": [{\"name\": \"" + process +
               "\", \"pid\": 812, \"reason\": \"oom-kill: constraint CONSTRAINT_MEMCG\"},"
               " {\"name\": \"gpsd\", \"pid\": 901}]}\n";
      } else if (kind < 3) {
        name = process + "_" + date + ".memorydump";
        text = "memory dump\n";
      } else {
        const bool crashed = kind >= 85;
        name = process + "_" + date + (crashed ? "" : ".ExceededMemoryLimit") + ".ips";
        text = report(process, crashed, kind >= 97);
      }
      std::ofstream(path + name) << text;
    }
    return path;
  }();
  return folder;
}

void BM_FaultbinGrepBaseline(benchmark::State& state) {
  const std::string command = "grep -l '^Thread .*Crashed' -r '" + reportFolder() + "' > /dev/null";
  for (auto _ : state) {
    if (std::system(command.c_str()) == -1) state.SkipWithError("grep could not be run");
  }
  state.SetItemsProcessed(state.iterations() * kFiles);
}
BENCHMARK(BM_FaultbinGrepBaseline)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FaultbinScan(benchmark::State& state) {
  reportFolder();
  std::atomic<size_t> issues{0};
  vl::setFaultbinIssueRecorder([&](const vl::FaultbinIssue&) { ++issues; });
  for (auto _ : state) {
    benchmark::DoNotOptimize(_VLProcessCrashesInFaultbinFolder(kUser).size());
  }
  VLGetSharedZEPLogger().drain();
  vl::setFaultbinIssueRecorder(nullptr);
  state.SetItemsProcessed(state.iterations() * kFiles);
  state.counters["issues_per_scan"] =
      static_cast<double>(issues.load()) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_FaultbinScan)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
