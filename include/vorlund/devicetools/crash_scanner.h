// The crash-log scanner: walks a user's Faultbin folders and turns every crash report, kill report
// and memory dump found there into an issue of the current run. Scans run one at a time on the
// serial queue "com.brindle.Vorlund.faultbin"; the throttled entry point gives each user's folders
// a rest of 60 seconds between scans. Everything logs under "Framework".
//
// The scanner sits beneath the results layer, so the issues it finds leave through one installable
// recorder (setFaultbinIssueRecorder); the results layer installs the one that adds them to the
// current results, or to the issue recorder of vl::setIssueRecorder when a program installed one.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vorlund/devicetools/crash_report.h"
#include "vorlund/foundation/timer.h"
#include "vorlund/foundation/value.h"

inline constexpr const char* kVLFaultbinQueueLabel = "com.brindle.Vorlund.faultbin";
// The rest between two scans of one user's folders, in seconds (scaled by the time scale).
inline constexpr double kVLFaultbinScanRest = 60;
// Preferences read while a crash is classified: every simulated crash counts as a crash, or those
// of the processes named in the array.
inline constexpr const char* kVLIncludeAllSimulatedCrashesPreference = "IncludeAllSimulatedCrashes";
inline constexpr const char* kVLIncludeSimulatedCrashesForPreference = "IncludeSimulatedCrashesFor";
// The spacing of the stress service's periodic scans, in seconds (scaled), and its preference.
inline constexpr double kVLCrashScanIntervalDefault = 300;
inline constexpr const char* kVLCrashScanIntervalPreference = "CrashScanInterval";

namespace vl {

// One issue found by a scan. type is "Crash" or "Failure".
struct FaultbinIssue {
  std::string process;
  std::string type;
  std::string reason;
  Date time;

  bool operator==(const FaultbinIssue&) const = default;
};

using FaultbinIssueRecorder = std::function<void(const FaultbinIssue& issue)>;
// Installs (or, with an empty function, removes) where scans send their issues. Without one the
// issues are only returned by _VLProcessCrashesInFaultbinFolder. The recorder is called on the
// scanning thread; an exception it throws is logged and the scan goes on.
void setFaultbinIssueRecorder(FaultbinIssueRecorder recorder);

// The folders scanned for a user, resolved under $VORLUND_ROOT, each ending with "/":
//   "root"      /Library/Logs/Faultbin/, /Library/Logs/Faultbin/Retired/
//   "wireless"  /var/wireless/Library/Logs/Faultbin/
//   "tmp"       /tmp/Faultbin/
//   any other   /var/mobile/Library/Logs/Faultbin/, /var/mobile/Library/Logs/Faultbin/Retired/
std::vector<std::string> faultbinFoldersForUser(const std::string& user);
// The same folders as device paths, before resolving (what the journal collector writes into).
std::vector<std::string> faultbinDeviceFoldersForUser(const std::string& user);

// Installs (or, with an empty function, removes) work that each queued scan does first, on the
// scan queue, before it reads the folders. The stress service collects the journal's new crashes
// into the folders there, so that collecting never holds up a request and rests with the scans.
// Direct scans (_VLProcessCrashesInFaultbinFolder) do not run it; their callers collect first.
// An exception it throws is logged and the scan goes on.
void setFaultbinCollection(std::function<void()> collect);

// Blocks until every scan submitted so far has finished. Called from a scan, returns at once.
void waitForFaultbinScans();

// The scan interval: the preference "CrashScanInterval" when it is a number greater than 0, else
// kVLCrashScanIntervalDefault.
double crashScanInterval();
// Requests a scan of each user's folders (VLProcessCrashesInFaultbinFolder) at once and then every
// interval seconds (crashScanInterval() when not given), until the returned timer is cancelled or
// destroyed. Never returns nullptr.
[[nodiscard]] std::unique_ptr<Timer> startPeriodicFaultbinScans(
    std::vector<std::string> users, std::optional<double> intervalSeconds = std::nullopt);

}  // namespace vl

// The throttled, asynchronous entry point; returns at once. A request for a user whose last scan
// was requested less than kVLFaultbinScanRest seconds ago is dropped with the log line "We already
// processed this folder at '...'; giving it a rest"; otherwise the time is stored and the scan is
// queued. The time is stored before the scan runs, so a request is dropped while the first one is
// still queued too. Never throws.
void VLProcessCrashesInFaultbinFolder(const std::string& user);

// The scan itself, on the calling thread (one scan at a time in the process: a scan waits for the
// one running). Every file of every folder of the user, sub-folders included, is classified by its
// extension: "ips" and "plist" are reports, "memorydump" a memory dump, anything else is ignored.
// Each issue goes to the installed recorder as it is found; the issues are also returned, in the
// order found. Unreadable folders and files are logged and skipped; never throws.
//
// A report is a "Crash" when it has a crashed-thread line and is not a simulated crash (unless the
// preferences include simulated crashes of its process), else a "Failure" ("Memory Warning" when
// its name holds "ExceededMemoryLimit", "Non Crash" otherwise). Names whose process part holds
// "stacks", "log-aggregated" or "ExcResource" add nothing. A "CullerEvent" report adds one "Crash"
// per killed process ("Culler killed NAME - REASON"), and is a plain "Failure" when its JSON is
// broken.
std::vector<vl::FaultbinIssue> _VLProcessCrashesInFaultbinFolder(const std::string& user);
