#include "vorlund/devicetools/diagnostic_archive.h"

#include <cmath>
#include <cstdint>
#include <exception>

#include "devicetools/shell_quote.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log.h"
#include "vorlund/logging/log_hooks.h"

namespace {

constexpr const char* kCategory = "Framework";
// The distant past (the end of year 0), the end of the last capture before any has ended.
constexpr double kDistantPast = -62135769600.0;

// Seconds of nominal time since a date, as the time scale makes them pass.
double nominalSecondsSince(double secondsSince1970) {
  return (vl::Date::now().secondsSince1970 - secondsSince1970) / vl::time::scale();
}

std::shared_ptr<vl::DiagnosticArchiver> archiverOr(
    const std::shared_ptr<vl::DiagnosticArchiver>& archiver) {
  return archiver ? archiver : vl::diagnosticArchiver();
}

// A failed log write asks for an archive; the logging module beneath calls this through its hook.
[[maybe_unused]] const bool kArchiveRequestInstalled = [] {
  vl::logging::setDiagnosticArchiveRequest([] { VLTriggerSnapdump(); });
  return true;
}();

}  // namespace

namespace vl {

SnapdumpTrigger::SnapdumpTrigger(std::shared_ptr<DiagnosticArchiver> archiver)
    : archiver_(std::move(archiver)),
      lastFinished_(kDistantPast),
      queue_(std::make_unique<SerialQueue>(kVLSnapdumpQueueLabel)) {}

SnapdumpTrigger::~SnapdumpTrigger() { queue_.reset(); }

SnapdumpTrigger& SnapdumpTrigger::shared() {
  // Never destroyed: a capture may still be running when the process ends.
  static SnapdumpTrigger* trigger = new SnapdumpTrigger();
  return *trigger;
}

bool SnapdumpTrigger::request(SnapdumpCallback callback) {
  int32_t old = -1;
  if (lock_.try_lock_for(vl::time::scaled(kVLSnapdumpLockWait))) {
    old = count_;
    count_ = old + 1;
    lock_.unlock();
    if (old == 0 || old == 1) {
      VLLog(VLLogLevelInfo, kCategory,
            old == 0 ? "Triggering a snapdump because there is no active snapdump"
                     : "Queueing a snapdump for requests coming in during active snapdump");
      queue_->async([this, callback = std::move(callback)] { capture(callback); });
      return true;
    }
  } else {
    VLLog(VLLogLevelError, kCategory,
          "Unable to add request to collect snapdump. Maybe snapdump is hung?");
  }
  VLLog(VLLogLevelInfo, kCategory, "No need to queue a snapdump, because one is already queued");
  if (old >= 0 && old <= kVLSnapdumpHungRequestCount) return false;
  sampleHungCapture();
  return false;
}

void SnapdumpTrigger::sampleHungCapture() {
  if (std::fabs(nominalSecondsSince(lastFinished_)) <= kVLSnapdumpHungAge) return;
  bool taken = false;
  if (!hungSampleTaken_.compare_exchange_strong(taken, true)) return;
  VLLog(VLLogLevelError, kCategory, "Seems like snapdump is hung, taking a sample");
  std::string folder = vl::paths::resolve(kVLSnapdumpSampleDirectory);
  vl::paths::createDirectories(folder);
  VLExecuteShellCommand(
      vl::format("sample snapdump > %@/snapdump_hung_%@.txt", devicetools::shellQuoted(folder),
                 vl::dateString(vl::Date::now())),
      {}, true, kVLSnapdumpSampleTimeout);
}

void SnapdumpTrigger::capture(const SnapdumpCallback& callback) {
  VLLog(VLLogLevelNotice, nullptr, "Triggering snapdump via libssnapdump");
  const double elapsed = nominalSecondsSince(lastFinished_);
  if (elapsed < kVLSnapdumpSpacing) {
    VLLog(VLLogLevelNotice, kCategory,
          "Waiting to take a snapdump for a bit to avoid capturing too many back to back "
          "snapdumps");
    // Whole seconds, truncated; a clock that went back waits no longer than the full spacing.
    vl::time::sleepFor(std::trunc(kVLSnapdumpSpacing - std::max(elapsed, 0.0)));
  }

  std::optional<Error> error;
  std::exception_ptr foreign;
  try {
    error = archiverOr(archiver_)->snapdump(Dictionary());
    if (error) {
      VLLog(VLLogLevelNotice, kCategory, "Snapdump failed with error '%@'", error->description());
    } else {
      VLLog(VLLogLevelNotice, kCategory, "Snapdump succeeded");
    }
  } catch (const std::exception& e) {
    VLLog(VLLogLevelNotice, kCategory, "Snapdump failed with error '%@'", e.what());
  } catch (...) {
    foreign = std::current_exception();
  }

  {
    std::lock_guard lock(lock_);
    count_ = count_ > 1 ? 1 : 0;
    lastFinished_ = Date::now().secondsSince1970;
  }
  // Not a failure of the capture as the system knows them: it goes on to whoever runs the queue.
  if (foreign) std::rethrow_exception(foreign);
  if (callback) callback(error);
}

}  // namespace vl

bool VLTriggerSnapdumpWithCompletionHandler(vl::SnapdumpCallback callback) {
  try {
    return vl::SnapdumpTrigger::shared().request(std::move(callback));
  } catch (const std::exception&) {
    return false;
  }
}

bool VLTriggerSnapdump() {
  return VLTriggerSnapdumpWithCompletionHandler([](const std::optional<vl::Error>&) {});
}

std::optional<vl::Error> VLTriggerSnapdumpSync() {
  VLLog(VLLogLevelNotice, nullptr, "Triggering snapdump via libssnapdump");
  try {
    std::optional<vl::Error> error = vl::diagnosticArchiver()->snapdump(vl::Dictionary());
    if (error) {
      VLLog(VLLogLevelNotice, kCategory, "Snapdump failed with error '%@'", error->description());
    } else {
      VLLog(VLLogLevelNotice, kCategory, "Snapdump succeeded");
    }
    return error;
  } catch (const std::exception& e) {
    VLLog(VLLogLevelNotice, kCategory, "Snapdump failed with error '%@'", e.what());
  } catch (...) {
    VLLog(VLLogLevelNotice, kCategory, "Snapdump failed with error '%@'", "unknown exception");
  }
  return std::nullopt;
}
