// The toolkit's rolling file sink: lines go to "<name>-yyyy-MM-dd-HH-mm-ss.log" files in one
// folder, a new file when the current one would grow past the maximum size or has been open for the
// rolling period. Old files are never pruned by count or total size.
//
// File naming: the name is the process name (a "/" in it becomes "_") and the local second the file
// was opened, with the extension ".log". A file is never reused: when the name is taken (two files
// in one second, another process of the same name) a suffix "-1", "-2", ... is added before the
// extension. Files are created on the first line and the folder (with its parents) when missing.
//
// Each line is "yyyy-MM-dd HH:mm:ss.SSSSSS [pid:tid] <text>". Lines are gathered in memory and
// written together when 64 KiB have gathered, when the file rolls, and at every flush: a line is in
// the file once the sink has been flushed after it (the toolkit flushes after every synchronous
// line, and after an asynchronous one once its writer has caught up).
//
// A line that cannot be written (the folder or the file refuses it) is kept in memory, up to
// maximumPendingLines; beyond that the oldest kept lines are dropped and counted. The write is
// tried again, on the same file when one is open, at the first line or flush after a back-off that
// starts at kLogFileRetryDelay and doubles up to kLogFileLongestRetryDelay, so a caller is never
// held up by a folder that stays unwritable. Once the file takes lines again, the kept ones go
// first, then a line saying how many were dropped, if any.
#pragma once

#include <spdlog/sinks/base_sink.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

namespace vl {

// Maximum size of one log file: 10 MiB.
inline constexpr uint64_t kLogFileMaximumSize = 10485760;
// Rolling period of the log files: one day (passes through the time scale).
inline constexpr double kLogFileRollingFrequency = 86400;
// Back-off of a sink that cannot write, in seconds (scaled): the first wait and the longest.
inline constexpr double kLogFileRetryDelay = 1;
inline constexpr double kLogFileLongestRetryDelay = 60;
// Lines a sink that cannot write keeps for later.
inline constexpr size_t kLogFileMaximumPendingLines = 10000;

struct RollingFileOptions {
  std::string directory;
  std::string baseName;
  std::string extension = ".log";
  // A file is rolled before a line that would take it past this size; a single longer line still
  // goes into a fresh file of its own.
  uint64_t maximumFileSize = kLogFileMaximumSize;
  // Nominal seconds; a file is rolled at the first line after it has been open this long.
  double rollingFrequency = kLogFileRollingFrequency;
  size_t maximumPendingLines = kLogFileMaximumPendingLines;
};

class RollingFileSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit RollingFileSink(RollingFileOptions options);
  ~RollingFileSink() override;

  // The file being written, or "" before the first line.
  std::string currentFilePath();
  // Lines kept because they could not be written yet, and lines dropped since the sink was made
  // because too many were kept.
  size_t pendingLineCount();
  uint64_t droppedLineCount();

 protected:
  // Keeps the line and writes what is kept when the back-off allows. Throws spdlog::spdlog_ex when
  // that write fails (the line stays kept); the logger's error handler takes it.
  void sink_it_(const spdlog::details::log_msg& msg) override;
  // Writes the gathered lines, then what is kept when the back-off allows. Throws like sink_it_
  // when the gathered lines cannot be written (they are kept).
  void flush_() override;

 private:
  using Clock = std::chrono::steady_clock;

  // Writes the kept lines in order. On failure returns false with the reason.
  bool writePending(std::string* failure);
  // Writes line to the current file at once, rolling first when it is due; line keeps what is
  // left unwritten. On failure returns false with the reason.
  bool writeLine(std::string_view& line, std::string* failure);
  // Adds line to the gathered lines (writing them first when the file rolls) and writes them when
  // enough have gathered. line is left empty once taken. On failure returns false with the
  // reason, and whatever was gathered but not written is kept.
  bool bufferLine(std::string_view& line, std::string* failure);
  bool writeBuffer(std::string* failure);
  bool writeAll(std::string_view& bytes, std::string* failure);
  bool rollIsDue(size_t lineSize) const;
  void backOff();
  // Opens the next file; the current one, if any, stays open when that fails.
  bool openNewFile(std::string* failure);
  void closeFile();
  void keep(std::string line);
  // A write attempt when the back-off allows (or always when force is set); the reason of a
  // failure, or "" after a successful attempt or none.
  std::string retry(bool force);

  RollingFileOptions options_;
  int fd_ = -1;
  std::string path_;
  uint64_t size_ = 0;
  Clock::time_point openedAt_;
  // Lines written to the file's size but not yet to the file; empty while lines are kept.
  std::string buffer_;
  std::deque<std::string> pending_;
  uint64_t dropped_ = 0;
  // Dropped lines not yet reported in the file.
  uint64_t droppedUnreported_ = 0;
  Clock::time_point retryAt_{};
  double retryDelay_ = kLogFileRetryDelay;
};

}  // namespace vl
