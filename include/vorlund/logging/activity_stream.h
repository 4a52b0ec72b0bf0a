// A live stream of the system log, filtered by process name, delivered in batches to a delegate on
// the stream's own thread. VLLogger copies it into files. The Linux implementation follows the
// journal (sd-journal); tests use a fake they feed by hand.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

namespace vl {

// Options word bits.
// Follow only entries written after start; without it the stream begins with the stored history.
inline constexpr uint32_t kActivityStreamOptionLive = 0x1;
// Include debug-priority entries.
inline constexpr uint32_t kActivityStreamOptionDebug = 0x4;
// Include what the processes wrote to standard output and error, as plain (non-log) events.
inline constexpr uint32_t kActivityStreamOptionOutput = 0x100;

struct ActivityEvent {
  std::optional<Date> timestamp;
  // The name the kernel keeps for the process, cut to 15 characters (the journal's _COMM).
  std::string processName;
  std::optional<std::string> message;
  // The log category (the journal's syslog identifier); only log messages carry one.
  std::optional<std::string> category;
  bool isLogMessage = false;
  // The process's executable path (_EXE) and its command line, arguments separated by blanks
  // (_CMDLINE), when known: they tell which longer name a cut processName stands for.
  std::optional<std::string> executable;
  std::optional<std::string> commandLine;
};

// The longest process name the kernel keeps.
inline constexpr size_t kProcessNameLength = 15;

// Whether the event comes from the process called name: its processName is name, or name is longer
// than the kernel keeps, processName is its first 15 characters, and the file name of the
// executable or of the command line's first word is name (so that two programs whose names share
// the first 15 characters are told apart).
bool isEventFromProcess(const ActivityEvent& event, std::string_view name);

class ActivityStream;

class ActivityStreamDelegate {
 public:
  virtual ~ActivityStreamDelegate() = default;
  // A batch of events, in order. Returns whether to keep streaming.
  virtual bool activityStream(ActivityStream& stream, const std::vector<ActivityEvent>& events) = 0;
  virtual void streamDidStart(ActivityStream& stream) = 0;
  virtual void streamDidFail(ActivityStream& stream, const Error& error) = 0;
  virtual void streamDidStop(ActivityStream& stream) = 0;
};

// A stream is a record so that it can be held and compared like any other object value.
class ActivityStream : public Record {
 public:
  std::string className() const override { return "VLActivityStream"; }

  // Set before start(): processes whose entries are delivered (an empty list delivers none), the
  // options word, and the delegate (not owned; it must outlive the stream or be cleared).
  virtual void setFilterProcesses(std::vector<std::string> processes) = 0;
  virtual void setOptions(uint32_t options) = 0;
  virtual void setDelegate(ActivityStreamDelegate* delegate) = 0;
  // Starts delivering; streamDidStart, or streamDidFail when the log cannot be read.
  virtual void start() = 0;
  // Asks the stream to end and returns at once, so that it may be called under a lock the delegate
  // takes. No batch starts after the request; one being delivered completes. streamDidStop follows
  // on the stream's thread. Destroying the stream waits for its thread to end.
  virtual void stop() = 0;
};

using ActivityStreamFactory = std::function<std::shared_ptr<ActivityStream>()>;

// A stream over the local systemd journal, or over the journal files in directory when given.
// Processes match the journal's _COMM field, which the kernel cuts to 15 characters, so names are
// compared on their first 15 characters; the events carry _EXE and _CMDLINE for
// isEventFromProcess() to tell the full name.
std::shared_ptr<ActivityStream> makeJournalActivityStream(
    std::optional<std::string> directory = std::nullopt);

}  // namespace vl
