// Refreshing the aggregate of a fleet of 100 devices, beside libplist alone parsing the same 100
// results files. Each device's file is written by the real VLResults: 40 test cases (averages with
// three metrics, pass/fail and histograms, failures in up to three buckets) and 20 issues, a few
// of them shared with other devices. A refresh reads every file back into a run, merges them in
// listing order and writes "Aggregated.plist"; the baseline reads each file and parses its XML,
// nothing more. Items are results files. CPU time is that of the whole process (the refresh runs
// on the folder's queue), real time is what the rates are made of.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <plist/plist.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "bench_sandbox.h"
#include "vorlund/results/config_result.h"
#include "vorlund/results/issue.h"
#include "vorlund/results/results.h"
#include "vorlund/results/test_case_statistic.h"

namespace {

using vl::bench::sandbox;

constexpr int kDevices = 100;
constexpr int kTestCases = 40;
constexpr int kIssues = 20;
const char* const kMetrics[] = {"Megabits", "Latency", "Jitter"};

std::shared_ptr<VLTestCaseStatistic> statistic(int device, int index) {
  auto s = VLTestCaseStatistic::make();
  s->setName("Test Case " + std::to_string(index));
  const uint64_t instances = 200 + static_cast<uint64_t>((device * 7 + index * 13) % 300);
  s->setInstances(instances);
  if (index % 8 == 7) {
    s->setType(std::string(kVLTestCaseResultTypeInstanceHistogram));
    s->setMetrics(vl::Dictionary{
        {"1ch", vl::Value(0.25)}, {"6ch", vl::Value(0.5)}, {"11ch", vl::Value(0.25)}});
    return s;
  }
  const bool average = index % 2 == 0;
  s->setType(std::string(average ? kVLTestCaseResultTypeAverage : kVLTestCaseResultTypePassFail));
  const double failed = double((device + index) % 9) / double(instances);
  s->setFailureRate(failed);
  if (failed > 0) {
    s->setFailures(
        vl::Dictionary{{"Request timed out", vl::Value(0.5)},
                       {"No route to host", vl::Value(0.25)},
                       {"Link lost on device " + std::to_string(device % 5), vl::Value(0.25)}});
  }
  if (average) {
    vl::Dictionary metrics;
    for (const char* metric : kMetrics) {
      const double mean = 100.0 + device % 17 + index;
      metrics.set(metric,
                  vl::Value(vl::Dictionary{{kVLTestCaseStatisticMetricMax, mean * 1.5},
                                           {kVLTestCaseStatisticMetricMin, mean * 0.5},
                                           {kVLTestCaseStatisticMetricMean, mean},
                                           {kVLTestCaseStatisticMetricStdDeviation, mean / 10}}));
    }
    s->setMetrics(std::move(metrics));
  }
  return s;
}

// One device's run, written with the real results-file writer.
void writeDevice(const std::string& path, int device) {
  auto run = std::make_shared<VLResults>();
  run->setTestType("wifi");
  run->setConfig("Bench Fleet");
  run->setHardwareInfo(vl::Dictionary{{"SerialNumber", "BENCH" + std::to_string(device)}});
  run->setStartTime(vl::Date{1767225600.0 + device});
  run->setRuntime(86400.0 + device * 60);
  vl::Dictionary statistics;
  for (int i = 0; i < kTestCases; ++i) {
    auto s = statistic(device, i);
    statistics.set(s->name(), vl::Value(s));
  }
  run->setTestCaseStatistics(statistics);
  std::vector<std::shared_ptr<VLIssue>> issues;
  for (int i = 0; i < kIssues; ++i) {
    auto issue = VLIssue::make();
    // Half of the reasons recur across the fleet, half are the device's own.
    issue->setReason(i % 2 ? "wpa_supplicant - SIGSEGV at frame " + std::to_string(i)
                           : "Device " + std::to_string(device) + " failure " + std::to_string(i));
    issue->setProcess(std::string(i % 2 ? "wpa_supplicant" : "Vorlund"));
    issue->setType(std::string(i % 2 ? "Crash" : "Failure"));
    issue->setTime(vl::Date{1767225600.0 + device + i * 600});
    issue->setInstances(1 + i % 3);
    issues.push_back(issue);
  }
  run->setIssueList(issues);
  run->setWirelessCrashes(
      vl::Dictionary{{"wifi", vl::Value(vl::Dictionary{{"Total", 10}, {"wpa_supplicant", 10}})},
                     {"overall", vl::Value(vl::Dictionary{{"Total", 10}})}});
  run->saveToFile(path);
}

// The fleet folder, made once per benchmark run.
const std::string& fleetRoot() {
  static const std::string root = [] {
    std::string path = sandbox().freshPath("fleet");
    std::filesystem::create_directories(path + "/Plists");
    for (int device = 0; device < kDevices; ++device) {
      writeDevice(path + "/Plists/VorlundResults_wifi_BENCH" + std::to_string(device) + ".plist",
                  device);
    }
    return path;
  }();
  return root;
}

// The refresh of a watched folder: one device's file changed since the last one (here its time
// is touched, so that it is read again), the other 99 are read as they were last time.
void BM_ConfigResultRefreshOneChanged(benchmark::State& state) {
  auto config = VLConfigResult::withPath(fleetRoot());
  if (!config || config->plistCount() != kDevices || !config->aggregated()) {
    state.SkipWithError("the fleet did not aggregate");
    return;
  }
  config->disableAutoUpdating();
  const std::vector<std::string> paths = config->getPlistPaths();
  size_t next = 0;
  for (auto _ : state) {
    utimensat(AT_FDCWD, paths[next++ % paths.size()].c_str(), nullptr, 0);
    config->refreshResults();
  }
  state.SetItemsProcessed(state.iterations() * kDevices);
}
BENCHMARK(BM_ConfigResultRefreshOneChanged)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

// The first refresh of a folder: every file read, merged and saved (withPath, sorting included).
void BM_ConfigResultFirstRefresh(benchmark::State& state) {
  for (auto _ : state) {
    auto config = VLConfigResult::withPath(fleetRoot());
    if (!config || config->plistCount() != kDevices) state.SkipWithError("no aggregate");
    state.PauseTiming();
    config.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kDevices);
}
BENCHMARK(BM_ConfigResultFirstRefresh)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

void BM_LibplistParseBaseline(benchmark::State& state) {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(fleetRoot() + "/Plists"))
    paths.push_back(entry.path().string());
  for (auto _ : state) {
    for (const std::string& path : paths) {
      std::ifstream in(path, std::ios::binary);
      std::stringstream bytes;
      bytes << in.rdbuf();
      const std::string xml = bytes.str();
      plist_t root = nullptr;
      plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
      if (!root) state.SkipWithError("libplist could not parse a results file");
      benchmark::DoNotOptimize(root);
      plist_free(root);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(paths.size()));
}
BENCHMARK(BM_LibplistParseBaseline)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

}  // namespace
