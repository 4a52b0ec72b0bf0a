#include "vorlund/catalogue/catalogue_hooks.h"

#include <exception>
#include <mutex>

namespace vl::catalogue {
namespace {

struct Hook {
  std::mutex mutex;
  std::function<void(const std::string&)> recorder;
  std::function<bool()> basebandProbe;
};

Hook& hook() {
  static Hook* instance = new Hook();  // lives for the process
  return *instance;
}

}  // namespace

void setFailureIssueRecorder(std::function<void(const std::string& reason)> recorder) {
  std::lock_guard lock(hook().mutex);
  hook().recorder = std::move(recorder);
}

void recordFailureIssue(const std::string& reason) {
  std::function<void(const std::string&)> recorder;
  {
    std::lock_guard lock(hook().mutex);
    recorder = hook().recorder;
  }
  if (!recorder) return;
  try {
    recorder(reason);
  } catch (const std::exception&) {
    // Recording a failure must not become one.
  }
}

void setBasebandProbe(std::function<bool()> probe) {
  std::lock_guard lock(hook().mutex);
  hook().basebandProbe = std::move(probe);
}

bool deviceHasBaseband() {
  std::function<bool()> probe;
  {
    std::lock_guard lock(hook().mutex);
    probe = hook().basebandProbe;
  }
  try {
    return probe && probe();
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace vl::catalogue
