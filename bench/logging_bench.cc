// Lines through VLLog (level 0, written by the background thread into the rolling log file and to
// the OS log), beside the raw baseline of spdlog's own asynchronous logger writing the same lines,
// with the same line pattern, through its basic file sink. Each run ends when every line is in the
// file, so rates are measured in real time.
#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/details/thread_pool.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <memory>
#include <string>

#include "bench_sandbox.h"
#include "vorlund/logging/log.h"
#include "vorlund/logging/toolkit_logger.h"

namespace {

using vl::bench::sandbox;

// The toolkit's queue size and line pattern, so that both sides do the same work.
constexpr size_t kQueueSize = 8192;
constexpr const char* kLinePattern = "%Y-%m-%d %H:%M:%S.%f [%P:%t] %v";
const std::string kCommand = "ping -c 1 -W 1 192.168.1.1";

void BM_LogRawSpdlogAsyncBaseline(benchmark::State& state) {
  auto pool = std::make_shared<spdlog::details::thread_pool>(kQueueSize, 1);
  auto sink =
      std::make_shared<spdlog::sinks::basic_file_sink_mt>(sandbox().freshPath("raw.log"), true);
  auto logger = std::make_shared<spdlog::async_logger>("raw", sink, pool,
                                                       spdlog::async_overflow_policy::block);
  logger->set_pattern(kLinePattern);
  int status = 0;
  for (auto _ : state) {
    logger->info("[Framework] Exit status of {} was {}", kCommand, ++status);
  }
  // The pool's destructor writes out its queue before its thread ends.
  logger.reset();
  pool.reset();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogRawSpdlogAsyncBaseline)->UseRealTime();

void BM_LogVLLog(benchmark::State& state) {
  sandbox();
  VLLog(VLLogLevelInfo, "Framework", "opens the log file outside the measurement");
  VLGetSharedZEPLogger().drain();
  int status = 0;
  for (auto _ : state) {
    VLLog(VLLogLevelInfo, "Framework", "Exit status of %@ was %d", kCommand, ++status);
  }
  VLGetSharedZEPLogger().drain();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogVLLog)->UseRealTime();

}  // namespace
