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
// Lines gathered before they are written without waiting for a flush.
constexpr size_t kWriteBufferSize = 64 * 1024;

}  // namespace

RollingFileSink::RollingFileSink(RollingFileOptions options) : options_(std::move(options)) {
  std::replace(options_.baseName.begin(), options_.baseName.end(), '/', '_');
  set_formatter_(std::make_unique<spdlog::pattern_formatter>(kLinePattern));
}

RollingFileSink::~RollingFileSink() {
  std::string failure;
  writeBuffer(&failure);
  retry(true);
  closeFile();
}

std::string RollingFileSink::currentFilePath() {
  std::lock_guard lock(mutex_);
  return path_;
}

size_t RollingFileSink::pendingLineCount() {
  std::lock_guard lock(mutex_);
  return pending_.size();
}

uint64_t RollingFileSink::droppedLineCount() {
  std::lock_guard lock(mutex_);
  return dropped_;
}

void RollingFileSink::closeFile() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool RollingFileSink::openNewFile(std::string* failure) {
  if (!paths::createDirectories(options_.directory)) {
    *failure = "cannot create log folder " + options_.directory + ": " + std::strerror(errno);
    return false;
  }
  std::string stem =
      paths::join(options_.directory, options_.baseName + "-" + dateString(Date::now()));
  for (int suffix = 0; suffix <= kMaximumSuffix; ++suffix) {
    std::string path = stem + (suffix ? "-" + std::to_string(suffix) : "") + options_.extension;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0) {
      closeFile();
      fd_ = fd;
      path_ = path;
      size_ = 0;
      openedAt_ = Clock::now();
      return true;
    }
    if (errno != EEXIST) {
      *failure = "cannot create log file " + path + ": " + std::strerror(errno);
      return false;
    }
  }
  *failure = "no free log file name for " + stem;
  return false;
}

bool RollingFileSink::rollIsDue(size_t lineSize) const {
  if (fd_ < 0) return true;
  if (size_ > 0 && size_ + lineSize > options_.maximumFileSize) return true;
  return Clock::now() - openedAt_ >= time::scaled(options_.rollingFrequency);
}

bool RollingFileSink::writeAll(std::string_view& bytes, std::string* failure) {
  while (!bytes.empty()) {
    ssize_t written = ::write(fd_, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      *failure = "cannot write log file " + path_ + ": " + std::strerror(errno);
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

bool RollingFileSink::writeLine(std::string_view& line, std::string* failure) {
  // A file that cannot be rolled goes on taking lines rather than losing them.
  if (rollIsDue(line.size()) && !openNewFile(failure) && fd_ < 0) return false;
  const size_t before = line.size();
  const bool written = writeAll(line, failure);
  size_ += before - line.size();
  return written;
}

bool RollingFileSink::bufferLine(std::string_view& line, std::string* failure) {
  if (rollIsDue(line.size())) {
    if (!writeBuffer(failure)) return false;
    if (!openNewFile(failure) && fd_ < 0) return false;
  }
  buffer_.append(line);
  size_ += line.size();
  line = {};
  return buffer_.size() < kWriteBufferSize || writeBuffer(failure);
}

bool RollingFileSink::writeBuffer(std::string* failure) {
  if (buffer_.empty()) return true;
  std::string_view rest(buffer_);
  if (fd_ >= 0 && writeAll(rest, failure)) {
    buffer_.clear();
    return true;
  }
  if (fd_ < 0) *failure = "no log file is open";
  // What was not written is kept line by line, as lines that could not be written are.
  size_ -= rest.size();
  while (!rest.empty()) {
    size_t end = rest.find('\n');
    end = end == std::string_view::npos ? rest.size() : end + 1;
    keep(std::string(rest.substr(0, end)));
    rest.remove_prefix(end);
  }
  buffer_.clear();
  return false;
}

void RollingFileSink::keep(std::string line) {
  if (options_.maximumPendingLines == 0) {
    ++dropped_;
    ++droppedUnreported_;
    return;
  }
  while (pending_.size() >= options_.maximumPendingLines) {
    pending_.pop_front();
    ++dropped_;
    ++droppedUnreported_;
  }
  pending_.push_back(std::move(line));
}

bool RollingFileSink::writePending(std::string* failure) {
  if (droppedUnreported_ > 0) {
    std::string text = "*** " + std::to_string(droppedUnreported_) +
                       " earlier lines were dropped while the log could not be written";
    spdlog::memory_buf_t note;
    formatter_->format(spdlog::details::log_msg("", spdlog::level::err, text), note);
    std::string_view rest(note.data(), note.size());
    if (!writeLine(rest, failure)) return false;
    droppedUnreported_ = 0;
  }
  while (!pending_.empty()) {
    std::string_view rest(pending_.front());
    const bool written = writeLine(rest, failure);
    // What a partial write took is not written again.
    pending_.front().erase(0, pending_.front().size() - rest.size());
    if (!written) return false;
    pending_.pop_front();
  }
  return true;
}

void RollingFileSink::backOff() {
  retryAt_ = Clock::now() + time::scaled(retryDelay_);
  retryDelay_ = std::min(retryDelay_ * 2, kLogFileLongestRetryDelay);
}

std::string RollingFileSink::retry(bool force) {
  if (pending_.empty() && droppedUnreported_ == 0) return {};
  if (!force && Clock::now() < retryAt_) return {};
  std::string failure;
  if (writePending(&failure)) {
    retryDelay_ = kLogFileRetryDelay;
    return {};
  }
  backOff();
  return failure;
}

void RollingFileSink::sink_it_(const spdlog::details::log_msg& msg) {
  spdlog::memory_buf_t formatted;
  formatter_->format(msg, formatted);
  // Kept lines go first, when the back-off allows.
  std::string failure = retry(false);
  std::string_view rest(formatted.data(), formatted.size());
  if (failure.empty() && pending_.empty() && droppedUnreported_ == 0) {
    if (bufferLine(rest, &failure)) return;
    backOff();
  }
  if (!rest.empty()) keep(std::string(rest));
  if (!failure.empty()) spdlog::throw_spdlog_ex(failure);
}

void RollingFileSink::flush_() {
  std::string failure;
  if (!writeBuffer(&failure)) {
    backOff();
    spdlog::throw_spdlog_ex(failure);
  }
  retry(false);
}

}  // namespace vl
