#include "vorlund/logging/log_hooks.h"

#include <mutex>

namespace vl::logging {

namespace {

std::mutex& hooksMutex() {
  static std::mutex mutex;
  return mutex;
}

std::function<void()>& diagnosticArchiveRequest() {
  static std::function<void()> request;
  return request;
}

std::function<void(const std::string&)>& statisticIssueRecorder() {
  static std::function<void(const std::string&)> recorder;
  return recorder;
}

}  // namespace

void setDiagnosticArchiveRequest(std::function<void()> request) {
  std::lock_guard lock(hooksMutex());
  diagnosticArchiveRequest() = std::move(request);
}

void requestDiagnosticArchive() {
  std::function<void()> request;
  {
    std::lock_guard lock(hooksMutex());
    request = diagnosticArchiveRequest();
  }
  if (!request) return;
  try {
    request();
  } catch (...) {
    // Fire and forget: the failed write that asked for the archive goes on regardless.
  }
}

void setStatisticIssueRecorder(std::function<void(const std::string& reason)> recorder) {
  std::lock_guard lock(hooksMutex());
  statisticIssueRecorder() = std::move(recorder);
}

void recordStatisticIssue(const std::string& reason) {
  std::function<void(const std::string&)> recorder;
  {
    std::lock_guard lock(hooksMutex());
    recorder = statisticIssueRecorder();
  }
  if (!recorder) return;
  try {
    recorder(reason);
  } catch (...) {
    // Recording an issue must not break the log stream that noticed it.
  }
}

}  // namespace vl::logging
