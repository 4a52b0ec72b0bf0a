// The toolkit's rolling file sink: lines go to "<name>-yyyy-MM-dd-HH-mm-ss.log" files in one
// folder, a new file when the current one would grow past the maximum size or has been open for the
// rolling period. Old files are never pruned by count or total size.
//
// File naming: the name is the process name (a "/" in it becomes "_") and the local second the file
// was opened, with the extension ".log". A file is never reused: when the name is taken (two files
// in one second, another process of the same name) a suffix "-1", "-2", ... is added before the
// extension. Files are created on the first line and the folder (with its parents) when missing.
//
// Each line is "yyyy-MM-dd HH:mm:ss.SSSSSS [pid:tid] <text>", written with one write(2), so a line
// is in the file as soon as the sink returns; flush has nothing left to do.
#pragma once

#include <spdlog/sinks/base_sink.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace vl {

// Maximum size of one log file: 10 MiB.
inline constexpr uint64_t kLogFileMaximumSize = 10485760;
// Rolling period of the log files: one day (passes through the time scale).
inline constexpr double kLogFileRollingFrequency = 86400;

struct RollingFileOptions {
  std::string directory;
  std::string baseName;
  std::string extension = ".log";
  // A file is rolled before a line that would take it past this size; a single longer line still
  // goes into a fresh file of its own.
  uint64_t maximumFileSize = kLogFileMaximumSize;
  // Nominal seconds; a file is rolled at the first line after it has been open this long.
  double rollingFrequency = kLogFileRollingFrequency;
};

class RollingFileSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit RollingFileSink(RollingFileOptions options);
  ~RollingFileSink() override;

  // The file being written, or "" before the first line.
  std::string currentFilePath();

 protected:
  // Throws spdlog::spdlog_ex when the folder or a file cannot be made or written; the logger's
  // error handler takes it, and the next line tries a fresh file.
  void sink_it_(const spdlog::details::log_msg& msg) override;
  void flush_() override {}

 private:
  void openNewFile();
  void closeFile();

  RollingFileOptions options_;
  int fd_ = -1;
  std::string path_;
  uint64_t size_ = 0;
  std::chrono::steady_clock::time_point openedAt_;
};

}  // namespace vl
