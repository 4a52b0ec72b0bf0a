// The diagnostic-archive trigger. Requests for a full diagnostic archive (a snapdump) are
// funnelled: captures run one after another on the serial queue "com.brindle.Vorlund.snapdump", at
// most one runs and one more waits, they are spaced at least ten minutes apart, and a capture that
// seems hung is sampled once. The captures themselves go through the process's DiagnosticArchiver.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "vorlund/devicetools/diagnostic_archiver.h"
#include "vorlund/foundation/error.h"
#include "vorlund/foundation/serial_queue.h"
#include "vorlund/foundation/value.h"

inline constexpr const char* kVLSnapdumpQueueLabel = "com.brindle.Vorlund.snapdump";
// Durations in seconds, all scaled by the process time scale.
inline constexpr double kVLSnapdumpSpacing = 600;        // from one capture's end to the next start
inline constexpr double kVLSnapdumpLockWait = 10;        // a request waits this long for the state
inline constexpr double kVLSnapdumpHungAge = 3600;       // no capture ended for longer: maybe hung
inline constexpr double kVLSnapdumpSampleTimeout = 120;  // bound on the sample of a hung capture
// Requests counted beyond this many while a capture runs are the sign of a hung capture.
inline constexpr int32_t kVLSnapdumpHungRequestCount = 50;
// The folder of the hung-capture sample (under $VORLUND_ROOT).
inline constexpr const char* kVLSnapdumpSampleDirectory = "/var/root/Library/Logs/Vorlund";

namespace vl {

// Receives the error of the capture, or none when it succeeded.
using SnapdumpCallback = std::function<void(const std::optional<Error>& error)>;

class SnapdumpTrigger {
 public:
  // A trigger with no request counted and no capture finished (the last end lies in the distant
  // past). Captures use archiver, or the process's archiver (diagnosticArchiver()) at the time of
  // each capture when archiver is null.
  explicit SnapdumpTrigger(std::shared_ptr<DiagnosticArchiver> archiver = nullptr);
  // Captures already queued still run; then the queue ends.
  ~SnapdumpTrigger();
  SnapdumpTrigger(const SnapdumpTrigger&) = delete;
  SnapdumpTrigger& operator=(const SnapdumpTrigger&) = delete;

  // The trigger of the process, created on first use; it lives until the process ends.
  static SnapdumpTrigger& shared();

  // Counts the request. The first of a quiet trigger starts a capture, one during a capture queues
  // a second; both return true and the callback later receives the capture's error. Any further
  // request is dropped (false, the callback is never called); when more than 50 have piled up, or
  // the state stayed locked for 10 seconds, and no capture has ended for an hour, the capture is
  // taken to be hung and sampled once per trigger with "sample snapdump" (up to 120 seconds, on the
  // calling thread).
  bool request(SnapdumpCallback callback);

 private:
  void capture(const SnapdumpCallback& callback);
  void sampleHungCapture();

  std::shared_ptr<DiagnosticArchiver> archiver_;
  std::timed_mutex lock_;
  int32_t count_ = 0;
  // Seconds since 1970 of the last capture's end; written under lock_, readable without it.
  std::atomic<double> lastFinished_;
  std::atomic<bool> hungSampleTaken_{false};
  // Last, so that it is destroyed first: the captures it still runs use the members above.
  std::unique_ptr<SerialQueue> queue_;
};

}  // namespace vl

// Requests a capture from the process's trigger (vl::SnapdumpTrigger::shared()). True when the
// capture was scheduled, false when the request was dropped. Never throws.
bool VLTriggerSnapdumpWithCompletionHandler(vl::SnapdumpCallback callback);
// The same with a callback that does nothing.
bool VLTriggerSnapdump();
// Captures at once on the calling thread, blocking until the archive is written: no counting, no
// spacing, no queue, so it may overlap a queued capture. Returns the capture's error, or none on
// success and after a capture that threw (logged).
std::optional<vl::Error> VLTriggerSnapdumpSync();
