#include "vorlund/logging/rolling_file_sink.h"

#include <fcntl.h>
#include <spdlog/common.h>
#include <spdlog/pattern_formatter.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/time_scale.h"

namespace vl {

namespace {

constexpr const char* kLinePattern = "%Y-%m-%d %H:%M:%S.%f [%P:%t] %v";
// Enough suffixes for any number of files opened within one second.
constexpr int kMaximumSuffix = 100000;

bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t written = ::write(fd, data, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

}  // namespace

RollingFileSink::RollingFileSink(RollingFileOptions options) : options_(std::move(options)) {
  std::replace(options_.baseName.begin(), options_.baseName.end(), '/', '_');
  set_formatter_(std::make_unique<spdlog::pattern_formatter>(kLinePattern));
}

RollingFileSink::~RollingFileSink() { closeFile(); }

std::string RollingFileSink::currentFilePath() {
  std::lock_guard lock(mutex_);
  return path_;
}

void RollingFileSink::closeFile() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void RollingFileSink::openNewFile() {
  closeFile();
  if (!paths::createDirectories(options_.directory)) {
    spdlog::throw_spdlog_ex("cannot create log folder " + options_.directory, errno);
  }
  std::string stem =
      paths::join(options_.directory, options_.baseName + "-" + dateString(Date::now()));
  for (int suffix = 0; suffix <= kMaximumSuffix; ++suffix) {
    std::string path = stem + (suffix ? "-" + std::to_string(suffix) : "") + options_.extension;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0) {
      fd_ = fd;
      path_ = path;
      size_ = 0;
      openedAt_ = std::chrono::steady_clock::now();
      return;
    }
    if (errno != EEXIST) spdlog::throw_spdlog_ex("cannot create log file " + path, errno);
  }
  spdlog::throw_spdlog_ex("no free log file name for " + stem);
}

void RollingFileSink::sink_it_(const spdlog::details::log_msg& msg) {
  spdlog::memory_buf_t formatted;
  formatter_->format(msg, formatted);
  bool tooOld = fd_ >= 0 && std::chrono::steady_clock::now() - openedAt_ >=
                                time::scaled(options_.rollingFrequency);
  bool tooBig = fd_ >= 0 && size_ > 0 && size_ + formatted.size() > options_.maximumFileSize;
  if (fd_ < 0 || tooOld || tooBig) openNewFile();
  if (!writeAll(fd_, formatted.data(), formatted.size())) {
    int error = errno;
    closeFile();
    spdlog::throw_spdlog_ex("cannot write log file " + path_, error);
  }
  size_ += formatted.size();
}

}  // namespace vl
