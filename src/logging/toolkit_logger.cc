#include "vorlund/logging/toolkit_logger.h"

#include <atomic>
#include <cstdio>
#include <mutex>

namespace vl {

namespace {

// Queue of the background writer. A full queue makes the caller wait rather than drop lines.
constexpr size_t kQueueSize = 8192;
constexpr const char* kLoggerName = "vorlund";

void reportSinkError(const std::string& message);

// Passes a line on to the wrapped sink when its flag is in the mask. A failing sink does not keep
// the line from the sinks after it.
class MaskedSink final : public spdlog::sinks::sink {
 public:
  MaskedSink(std::shared_ptr<spdlog::sinks::sink> sink, int mask)
      : sink_(std::move(sink)), mask_(mask) {}

  void log(const spdlog::details::log_msg& msg) override {
    if (!(mask_ & flagForSpdlogLevel(msg.level))) return;
    try {
      sink_->log(msg);
    } catch (const std::exception& e) {
      reportSinkError(e.what());
    }
  }
  void flush() override {
    try {
      sink_->flush();
    } catch (const std::exception& e) {
      reportSinkError(e.what());
    }
  }
  void set_pattern(const std::string& pattern) override { sink_->set_pattern(pattern); }
  void set_formatter(std::unique_ptr<spdlog::formatter> formatter) override {
    sink_->set_formatter(std::move(formatter));
  }

 private:
  std::shared_ptr<spdlog::sinks::sink> sink_;
  int mask_;
};

// The sinks of the asynchronous logger: each line goes to all of them, and they are flushed once
// the writer has caught up with the queue. Under load lines are written in batches; when logging
// is quiet each line is written at once.
class FlushWhenIdleSink final : public spdlog::sinks::sink {
 public:
  FlushWhenIdleSink(std::shared_ptr<spdlog::sinks::sink> sinks, spdlog::details::thread_pool& pool)
      : sinks_(std::move(sinks)), pool_(pool) {}

  void log(const spdlog::details::log_msg& msg) override {
    sinks_->log(msg);
    if (pool_.queue_size() == 0) sinks_->flush();
  }
  void flush() override { sinks_->flush(); }
  void set_pattern(const std::string& pattern) override { sinks_->set_pattern(pattern); }
  void set_formatter(std::unique_ptr<spdlog::formatter> formatter) override {
    sinks_->set_formatter(std::move(formatter));
  }

 private:
  std::shared_ptr<spdlog::sinks::sink> sinks_;
  spdlog::details::thread_pool& pool_;
};

void reportSinkError(const std::string& message) {
  static std::atomic<bool> reported{false};
  if (!reported.exchange(true)) {
    std::fprintf(stderr, "vorlund: a log sink failed (later failures are not reported): %s\n",
                 message.c_str());
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

ToolkitLogger::ToolkitLogger() : sinks_(std::make_shared<spdlog::sinks::dist_sink_mt>()) {
  sinks_->set_level(spdlog::level::trace);
  sync_ = std::make_shared<spdlog::logger>(kLoggerName, sinks_);
  sync_->set_level(spdlog::level::trace);
  sync_->flush_on(spdlog::level::trace);
  sync_->set_error_handler(reportSinkError);
  startPool();
}

ToolkitLogger::~ToolkitLogger() { shutdown(); }

void ToolkitLogger::startPool() {
  pool_ = std::make_shared<spdlog::details::thread_pool>(kQueueSize, 1);
  // The pool outlives the logger: drain() lets go of the logger first.
  auto sinks = std::make_shared<FlushWhenIdleSink>(sinks_, *pool_);
  async_ = std::make_shared<spdlog::async_logger>(kLoggerName, std::move(sinks), pool_,
                                                  spdlog::async_overflow_policy::block);
  async_->set_level(spdlog::level::trace);
  async_->set_error_handler(reportSinkError);
}

void ToolkitLogger::addSink(std::shared_ptr<spdlog::sinks::sink> sink, int mask) {
  try {
    auto masked = std::make_shared<MaskedSink>(std::move(sink), mask);
    masked->set_level(spdlog::level::trace);
    sinks_->add_sink(std::move(masked));
    wantedFlags_.fetch_or(mask, std::memory_order_relaxed);
  } catch (const std::exception& e) {
    reportSinkError(e.what());
  }
}

void ToolkitLogger::log(bool asynchronous, int flag, std::string_view line) {
  // Waking the writer thread for a line that every sink then drops costs more than the work that
  // logged it (a debug line per frame of the host link).
  if (!wants(flag)) return;
  try {
    spdlog::level::level_enum level = spdlogLevelForFlag(flag);
    std::shared_lock lock(asyncMutex_);
    if (asynchronous && async_) {
      async_->log(level, line);
    } else {
      sync_->log(level, line);
    }
  } catch (const std::exception& e) {
    reportSinkError(e.what());
  }
}

void ToolkitLogger::drain() {
  std::unique_lock lock(asyncMutex_);
  try {
    // The pool's destructor writes out its queue before its thread ends.
    async_.reset();
    pool_.reset();
    if (!shutDown_) startPool();
  } catch (const std::exception& e) {
    reportSinkError(e.what());
  }
}

void ToolkitLogger::shutdown() {
  {
    std::unique_lock lock(asyncMutex_);
    shutDown_ = true;
  }
  drain();
  try {
    sync_->flush();
  } catch (const std::exception& e) {
    reportSinkError(e.what());
  }
}

}  // namespace vl
