// The logging toolkit under VLLog: a hub that hands each line to its sinks, asynchronously (a
// background thread writes it) or synchronously (written and flushed before the call returns), with
// a level mask per sink. The sinks are ordinary spdlog sinks; the queue and its one writer thread
// are our own, so that a caller only stamps and queues a line: the writer is woken only when the
// queue goes from empty to not empty, lets lines gather for a couple of milliseconds, then takes
// everything queued at once and flushes once per batch. Asynchronous lines therefore reach the
// files a few milliseconds late; drain(), a synchronous line and shutdown() never wait for that.
#pragma once

#include <spdlog/common.h>
#include <spdlog/sinks/sink.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

  // Adds a sink that receives the lines whose flag is in mask. Safe while logging; a line reaches
  // the new sink only when it is written after the sink was added.
  void addSink(std::shared_ptr<spdlog::sinks::sink> sink, int mask);

  // Logs one line with a level flag. Asynchronous lines are stamped and queued for the background
  // thread (the call blocks only while the queue is full, so nothing is dropped); synchronous lines
  // are written, after every line queued before them, and every sink is flushed before the call
  // returns. Never throws: sink failures go to the error handler, which reports the first one on
  // standard error. In a child made by fork() without exec there is no writer: asynchronous lines
  // stay queued (the parent's queued lines are not written twice), synchronous ones go out alone.
  void log(bool asynchronous, int flag, std::string line);

  // True when some sink takes lines of this flag. A line no sink takes is dropped by log() before
  // it is queued, so callers may skip formatting it at all.
  bool wants(int flag) const { return (wantedFlags_.load(std::memory_order_relaxed) & flag) != 0; }

  // Waits until every asynchronous line logged before the call has reached the sinks and they have
  // been flushed. Returns at once in a forked child.
  void drain();
  // Writes out the queue, then stops the background thread; later lines are written
  // synchronously. Called when the process exits, so that no line is lost with the thread.
  void shutdown();

 private:
  struct QueuedLine {
    spdlog::log_clock::time_point time;
    size_t threadId;
    spdlog::level::level_enum level;
    std::string text;
  };
  struct MaskedSink {
    std::shared_ptr<spdlog::sinks::sink> sink;
    int mask;
  };

  void writerLoop();
  // Both with writeMutex_ held.
  void writeToSinks(const QueuedLine& line);
  void flushSinks();
  // Moves the queue into batch and lets waiting callers go on. With queueMutex_ held.
  void takeQueue(std::vector<QueuedLine>& batch);
  // Counts lines as written and wakes drain(). Takes queueMutex_.
  void markWritten(size_t count);

  // Held while lines go to the sinks, by the writer for a whole batch and by a synchronous caller,
  // so that lines reach the sinks in the order they were logged. Taken before queueMutex_.
  std::mutex writeMutex_;
  std::vector<MaskedSink> sinks_;

  std::mutex queueMutex_;
  std::condition_variable linesQueued_;   // the writer waits here for lines or the stop
  std::condition_variable queueChanged_;  // full-queue callers and drain() wait here
  std::vector<QueuedLine> queue_;
  size_t callersWaiting_ = 0;
  uint64_t queuedCount_ = 0;
  uint64_t writtenCount_ = 0;
  bool writerIdle_ = false;
  bool stopping_ = false;
  std::thread writer_;
  // The process that runs the writer: a child made by fork() has none and never writes queued
  // lines.
  pid_t writerProcess_;

  // The union of the sinks' masks.
  std::atomic<int> wantedFlags_{0};
};

}  // namespace vl
