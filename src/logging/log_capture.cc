#include "vorlund/logging/log_capture.h"

#include <algorithm>
#include <atomic>

#include "logging/log_capture_registry.h"

namespace vl {

namespace {

std::mutex& registryMutex() {
  static std::mutex mutex;
  return mutex;
}

std::vector<LogCapture*>& registry() {
  static std::vector<LogCapture*> captures;
  return captures;
}

// The registry's size, read without its lock on every VLLog call.
std::atomic<size_t> liveCaptures{0};

}  // namespace

bool logCapturesActive() { return liveCaptures.load(std::memory_order_relaxed) != 0; }

void recordInLogCaptures(VLLogLevel level, const char* category, const std::string& message) {
  std::lock_guard lock(registryMutex());
  if (registry().empty()) return;
  CapturedLine line{level, category ? category : "Default", message};
  for (LogCapture* capture : registry()) capture->record(line);
}

LogCapture::LogCapture() {
  std::lock_guard lock(registryMutex());
  registry().push_back(this);
  liveCaptures = registry().size();
}

LogCapture::~LogCapture() {
  std::lock_guard lock(registryMutex());
  std::erase(registry(), this);
  liveCaptures = registry().size();
}

std::vector<CapturedLine> LogCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<CapturedLine> LogCapture::find(std::string_view message) const {
  std::lock_guard lock(mutex_);
  std::vector<CapturedLine> found;
  for (const CapturedLine& line : lines_) {
    if (line.message == message) found.push_back(line);
  }
  return found;
}

bool LogCapture::contains(VLLogLevel level, std::string_view category,
                          std::string_view message) const {
  std::lock_guard lock(mutex_);
  return std::any_of(lines_.begin(), lines_.end(), [&](const CapturedLine& line) {
    return line.level == level && line.category == category && line.message == message;
  });
}

size_t LogCapture::count(std::string_view message) const { return find(message).size(); }

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

void LogCapture::record(CapturedLine line) {
  std::lock_guard lock(mutex_);
  lines_.push_back(std::move(line));
}

}  // namespace vl
