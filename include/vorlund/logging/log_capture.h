// A capturing sink for tests: while a LogCapture lives, every line that VLLog emits is also recorded
// with its level, category and message, so that tests assert the exact lines the system logs.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "vorlund/logging/log.h"

namespace vl {

struct CapturedLine {
  VLLogLevel level;
  std::string category;  // "Default" when none was given
  std::string message;   // the formatted message, without the "[category] " prefix
  // "[category] message", as the sinks receive it
  std::string line() const { return "[" + category + "] " + message; }
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<CapturedLine> lines() const;
  // Lines with this exact message (and level, when given).
  std::vector<CapturedLine> find(std::string_view message) const;
  bool contains(VLLogLevel level, std::string_view category, std::string_view message) const;
  size_t count(std::string_view message) const;
  void clear();

  // Called by VLLog for every line it emits.
  void record(CapturedLine line);

 private:
  mutable std::mutex mutex_;
  std::vector<CapturedLine> lines_;
};

}  // namespace vl
