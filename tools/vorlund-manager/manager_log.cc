#include "manager_log.h"

#include <atomic>

namespace manager {
namespace {
std::atomic<bool> verbose{false};
}  // namespace

void setVerbose(bool value) { verbose = value; }
bool isVerbose() { return verbose; }

void writeLogLine(VLLogLevel level, const std::string& message) {
  VLLogMessage(level, kLogCategory, message);
  if (level != VLLogLevelDebug || verbose) {
    // One fprintf per line, so that lines of several threads do not interleave.
    std::fprintf(stderr, "vorlund-manager: %s\n", message.c_str());
  }
}

}  // namespace manager
