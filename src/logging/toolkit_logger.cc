#include "vorlund/logging/toolkit_logger.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/details/os.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>

namespace vl {

namespace {

// Lines the queue holds before a caller waits for the writer rather than drop a line.
constexpr size_t kQueueSize = 8192;
constexpr const char* kLoggerName = "vorlund";
// How long the woken writer lets lines gather before it takes them. Not scaled: it is no timing
// rule of the system, only how far the files may lag behind the asynchronous lines.
constexpr std::chrono::milliseconds kBatchGathering{2};

void reportSinkError(const char* message) {
  static std::atomic<bool> reported{false};
  if (!reported.exchange(true)) {
    std::fprintf(stderr, "vorlund: a log sink failed (later failures are not reported): %s\n",
                 message);
  }
}

}  // namespace

spdlog::level::level_enum spdlogLevelForFlag(int flag) {
  switch (flag) {
    case kToolkitFlagError:
      return spdlog::level::err;
    case kToolkitFlagWarning:
      return spdlog::level::warn;
    case kToolkitFlagDebug:
      return spdlog::level::debug;
    case kToolkitFlagVerbose:
      return spdlog::level::trace;
    default:
      return spdlog::level::info;
  }
}

int flagForSpdlogLevel(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::critical:
    case spdlog::level::err:
      return kToolkitFlagError;
    case spdlog::level::warn:
      return kToolkitFlagWarning;
    case spdlog::level::debug:
      return kToolkitFlagDebug;
    case spdlog::level::trace:
      return kToolkitFlagVerbose;
    default:
      return kToolkitFlagInfo;
  }
}

ToolkitLogger::ToolkitLogger() : writerProcess_(::getpid()) {
  writer_ = std::thread([this] { writerLoop(); });
}

ToolkitLogger::~ToolkitLogger() { shutdown(); }

void ToolkitLogger::addSink(std::shared_ptr<spdlog::sinks::sink> sink, int mask) {
  try {
    std::lock_guard write(writeMutex_);
    sinks_.push_back({std::move(sink), mask});
    wantedFlags_.fetch_or(mask, std::memory_order_relaxed);
  } catch (const std::exception& e) {
    reportSinkError(e.what());
  }
}

void ToolkitLogger::log(bool asynchronous, int flag, std::string line) {
  // Queuing a line that every sink then drops costs more than the work that logged it (a debug
  // line per frame of the host link).
  if (!wants(flag)) return;
  try {
    QueuedLine queued{spdlog::log_clock::now(), spdlog::details::os::thread_id(),
                      spdlogLevelForFlag(flag), std::move(line)};
    if (asynchronous) {
      std::unique_lock lock(queueMutex_);
      while (!stopping_ && queue_.size() >= kQueueSize) {
        ++callersWaiting_;
        linesQueued_.notify_one();
        queueChanged_.wait(lock);
        --callersWaiting_;
      }
      if (!stopping_) {
        queue_.push_back(std::move(queued));
        ++queuedCount_;
        // A busy writer finds the line when it looks at the queue again; only an idle one is
        // woken, once, however many lines come before it runs.
        if (writerIdle_) {
          writerIdle_ = false;
          lock.unlock();
          linesQueued_.notify_one();
        }
        return;
      }
    }
    std::lock_guard write(writeMutex_);
    std::vector<QueuedLine> earlier;
    // A forked child does not write its parent's queued lines: the parent writes them.
    if (::getpid() == writerProcess_) {
      std::lock_guard lock(queueMutex_);
      takeQueue(earlier);
    }
    for (const QueuedLine& e : earlier) writeToSinks(e);
    writeToSinks(queued);
    flushSinks();
    if (!earlier.empty()) markWritten(earlier.size());
  } catch (const std::exception& e) {
    reportSinkError(e.what());
  }
}

void ToolkitLogger::writerLoop() {
  std::vector<QueuedLine> batch;
  for (;;) {
    {
      std::unique_lock lock(queueMutex_);
      while (queue_.empty() && !stopping_) {
        writerIdle_ = true;
        linesQueued_.wait(lock);
      }
      writerIdle_ = false;
      if (queue_.empty()) return;
      // Lines that follow within the gathering time join this batch instead of waking the writer
      // once each: a wake-up costs the caller a system call and a thread switch, far more than
      // queuing a line. Whoever waits for the writer (a full queue, drain, shutdown) cuts it short.
      linesQueued_.wait_for(lock, kBatchGathering,
                            [this] { return stopping_ || callersWaiting_ > 0; });
    }
    std::lock_guard write(writeMutex_);
    {
      std::lock_guard lock(queueMutex_);
      takeQueue(batch);
    }
    // Empty when a synchronous caller took the lines first.
    if (batch.empty()) continue;
    for (const QueuedLine& line : batch) writeToSinks(line);
    flushSinks();
    markWritten(batch.size());
    batch.clear();
  }
}

void ToolkitLogger::takeQueue(std::vector<QueuedLine>& batch) {
  batch.swap(queue_);
  if (callersWaiting_ > 0) queueChanged_.notify_all();
}

void ToolkitLogger::markWritten(size_t count) {
  std::lock_guard lock(queueMutex_);
  writtenCount_ += count;
  if (callersWaiting_ > 0) queueChanged_.notify_all();
}

void ToolkitLogger::writeToSinks(const QueuedLine& line) {
  spdlog::details::log_msg msg(line.time, spdlog::source_loc{}, kLoggerName, line.level, line.text);
  msg.thread_id = line.threadId;
  const int flag = flagForSpdlogLevel(line.level);
  // A failing sink does not keep the line from the sinks after it.
  for (const MaskedSink& masked : sinks_) {
    if (!(masked.mask & flag)) continue;
    try {
      masked.sink->log(msg);
    } catch (const std::exception& e) {
      reportSinkError(e.what());
    } catch (...) {
      reportSinkError("unknown exception");
    }
  }
}

void ToolkitLogger::flushSinks() {
  for (const MaskedSink& masked : sinks_) {
    try {
      masked.sink->flush();
    } catch (const std::exception& e) {
      reportSinkError(e.what());
    } catch (...) {
      reportSinkError("unknown exception");
    }
  }
}

void ToolkitLogger::drain() {
  // A forked child has no writer to wait for.
  if (::getpid() != writerProcess_) return;
  std::unique_lock lock(queueMutex_);
  const uint64_t target = queuedCount_;
  ++callersWaiting_;
  linesQueued_.notify_one();
  queueChanged_.wait(lock, [&] { return writtenCount_ >= target; });
  --callersWaiting_;
}

void ToolkitLogger::shutdown() {
  {
    std::lock_guard lock(queueMutex_);
    stopping_ = true;
  }
  linesQueued_.notify_one();
  if (writer_.joinable()) {
    // The writer thread exists only in the process that started it.
    if (::getpid() != writerProcess_) {
      writer_.detach();
    } else if (writer_.get_id() != std::this_thread::get_id()) {
      writer_.join();
    }
  }
  std::lock_guard write(writeMutex_);
  flushSinks();
}

}  // namespace vl
