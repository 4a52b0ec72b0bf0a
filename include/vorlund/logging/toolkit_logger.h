// The logging toolkit under VLLog: a hub that hands each line to its sinks, asynchronously (a
// background thread writes it) or synchronously (written and flushed before the call returns), with
// a level mask per sink. Built over spdlog; the sinks are ordinary spdlog sinks.
#pragma once

#include <spdlog/async_logger.h>
#include <spdlog/details/thread_pool.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/dist_sink.h>

#include <atomic>
#include <memory>
#include <shared_mutex>
#include <string_view>

namespace vl {

// The toolkit's level flags. A sink's level is a mask of these bits.
enum ToolkitFlag : int {
  kToolkitFlagError = 1,
  kToolkitFlagWarning = 2,
  kToolkitFlagInfo = 4,
  kToolkitFlagDebug = 8,
  kToolkitFlagVerbose = 16,
};
// Every level.
inline constexpr int kToolkitMaskAll = -1;
// Every level but Debug and Verbose.
inline constexpr int kToolkitMaskNoDebug = -25;

// The spdlog level that carries a toolkit flag, and back. An unknown flag maps to Info.
spdlog::level::level_enum spdlogLevelForFlag(int flag);
int flagForSpdlogLevel(spdlog::level::level_enum level);

class ToolkitLogger {
 public:
  ToolkitLogger();
  // Writes out every queued line, then stops the background thread.
  ~ToolkitLogger();
  ToolkitLogger(const ToolkitLogger&) = delete;
  ToolkitLogger& operator=(const ToolkitLogger&) = delete;

  // Adds a sink that receives the lines whose flag is in mask. Safe while logging.
  void addSink(std::shared_ptr<spdlog::sinks::sink> sink, int mask);

  // Logs one line with a level flag. Asynchronous lines are queued (the call blocks only while the
  // queue is full, so nothing is dropped); synchronous lines are written and flushed by every sink
  // before the call returns. Never throws: sink failures go to the error handler, which reports the
  // first one on standard error.
  void log(bool asynchronous, int flag, std::string_view line);

  // True when some sink takes lines of this flag. A line no sink takes is dropped by log() before
  // it is queued, so callers may skip formatting it at all.
  bool wants(int flag) const { return (wantedFlags_.load(std::memory_order_relaxed) & flag) != 0; }

  // Waits until every asynchronous line logged before the call has reached the sinks.
  void drain();
  // Drains, then writes every later line synchronously. Called when the process exits, so that no
  // line is lost with the background thread.
  void shutdown();

 private:
  void startPool();

  std::shared_ptr<spdlog::sinks::dist_sink_mt> sinks_;
  std::shared_ptr<spdlog::logger> sync_;
  // Guards the asynchronous logger and its thread pool, which drain() and shutdown() replace.
  std::shared_mutex asyncMutex_;
  std::shared_ptr<spdlog::details::thread_pool> pool_;
  std::shared_ptr<spdlog::async_logger> async_;
  bool shutDown_ = false;
  // The union of the sinks' masks.
  std::atomic<int> wantedFlags_{0};
};

}  // namespace vl
