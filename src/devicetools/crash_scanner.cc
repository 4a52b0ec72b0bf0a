#include "vorlund/devicetools/crash_scanner.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>

#include "vorlund/catalogue/preferences.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/serial_queue.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kCategory = "Framework";
// The timer's slack; it documents how late a periodic request may come.
constexpr double kPeriodicScanLeeway = 5;

struct ScanState {
  std::mutex lastScansLock;
  std::map<std::string, vl::Date> lastScans;
  // Held for the whole of a scan, so that a direct scan and a queued one never overlap.
  std::mutex scanLock;
  std::mutex recorderLock;
  vl::FaultbinIssueRecorder recorder;
  std::function<void()> collection;  // guarded by recorderLock
  vl::SerialQueue queue{kVLFaultbinQueueLabel};
};

ScanState& state() {
  static ScanState* instance = new ScanState();  // lives for the process: scans may be queued
  return *instance;
}

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// The extension as a path's extension reads: what follows the last dot, none for a name that
// only begins with one.
std::string_view extensionOf(std::string_view name) {
  size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return {};
  return name.substr(dot + 1);
}

// Every path below folder, relative to it and sorted within each folder, sub-folders included
// (listed themselves and then descended into, without following links). None, with the reason in
// error, when folder itself cannot be listed; a sub-folder that cannot be listed is not descended.
bool listSubpaths(const std::string& folder, const std::string& prefix,
                  std::vector<std::string>* out, std::string* error) {
  DIR* dir = ::opendir((folder + prefix).c_str());
  if (!dir) {
    if (error) *error = std::strerror(errno);
    return false;
  }
  std::vector<std::pair<std::string, bool>> entries;
  while (const dirent* entry = ::readdir(dir)) {
    std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    bool isDirectory = entry->d_type == DT_DIR;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat info {};
      isDirectory = ::lstat((folder + prefix + std::string(name)).c_str(), &info) == 0 &&
                    S_ISDIR(info.st_mode);
    }
    entries.emplace_back(prefix + std::string(name), isDirectory);
  }
  ::closedir(dir);
  std::sort(entries.begin(), entries.end());
  for (auto& [path, isDirectory] : entries) {
    out->push_back(path);
    if (isDirectory) listSubpaths(folder, path + "/", out, nullptr);
  }
  return true;
}

void record(std::vector<vl::FaultbinIssue>* found, vl::FaultbinIssue issue) {
  vl::FaultbinIssueRecorder recorder;
  {
    std::lock_guard lock(state().recorderLock);
    recorder = state().recorder;
  }
  if (recorder) {
    try {
      recorder(issue);
    } catch (const std::exception& e) {
      VLLog(VLLogLevelError, kCategory, "Unable to record the issue %@: %s", issue.reason,
            e.what());
    }
  }
  found->push_back(std::move(issue));
}

void collectBeforeScanning(const std::string& user) {
  std::function<void()> collection;
  {
    std::lock_guard lock(state().recorderLock);
    collection = state().collection;
  }
  if (!collection) return;
  try {
    collection();
  } catch (const std::exception& e) {
    VLLog(VLLogLevelError, kCategory, "Unable to collect crashes before scanning %@'s folder: %s",
          user, e.what());
  }
}

// The parsed name, or none after the log line that says why the file is skipped.
std::optional<vl::FaultbinFileName> parsedName(const std::string& fileName, bool logTime) {
  vl::FaultbinFileName parsed = vl::parseFaultbinFileName(fileName);
  if (!parsed.time) {
    VLLog(VLLogLevelDebug, kCategory, "Could not find a time in file name????? Not adding %@",
          fileName);
    return std::nullopt;
  }
  if (logTime) VLLog(VLLogLevelDebug, kCategory, "bb_time returned as %@ ", *parsed.time);
  if (parsed.process.empty()) {
    VLLog(VLLogLevelDebug, kCategory, "Could not find a process in file name????? Not adding %@",
          fileName);
    return std::nullopt;
  }
  return parsed;
}

bool simulatedCrashesIncluded(const std::string& process) {
  const vl::Dictionary preferences = VLGetPreferences();
  if (preferences.get(kVLIncludeAllSimulatedCrashesPreference).boolOr(false)) return true;
  const vl::Array* included = preferences.get(kVLIncludeSimulatedCrashesForPreference).asArray();
  if (!included) return false;
  return std::any_of(included->begin(), included->end(), [&](const vl::Value& name) {
    const std::string* text = name.asString();
    return text && *text == process;
  });
}

// A report without a crashed-thread line, or a kill report whose JSON is broken.
void setNonCrash(vl::FaultbinIssue* issue, const std::string& fileName) {
  issue->type = "Failure";
  issue->reason = issue->process + (contains(fileName, "ExceededMemoryLimit") ? " - Memory Warning"
                                                                              : " - Non Crash");
}

void classifyOrdinaryReport(const std::string& fileName, const std::string& path,
                            vl::FaultbinIssue issue, std::vector<vl::FaultbinIssue>* found) {
  VLLog(VLLogLevelInfo, kCategory, "~ Normal Plist (non culler) %@", fileName);
  if (!VLFindThreadCrashInFile(path)) {
    setNonCrash(&issue, fileName);
  } else if (!simulatedCrashesIncluded(issue.process) && VLIsCrashSimulated(path)) {
    issue.type = "Failure";
    issue.reason = issue.process + " - Simulated Crash";
  } else {
    issue.type = "Crash";
    issue.reason = issue.process + " - Crash";
  }
  record(found, std::move(issue));
}

void classifyKillReport(const std::string& fileName, const std::string& path,
                        vl::FaultbinIssue issue, std::vector<vl::FaultbinIssue>* found) {
  VLLog(VLLogLevelInfo, kCategory, "~ Plist (culler) %@", fileName);
  VLLog(VLLogLevelInfo, kCategory, "~ Loading file %@", path);
  std::optional<std::string> text = vl::paths::readFile(path);
  if (!text) {
    VLLog(VLLogLevelError, kCategory, "Stream error reading from file %@", path);
    issue.type = "Failure";
    issue.reason = issue.process + " - Unknown";
  }
  vl::Error error;
  std::optional<std::vector<vl::CullerKill>> kills = vl::parseKillReport(text.value_or(""), &error);
  if (!kills) {
    VLLog(VLLogLevelError, kCategory, "Saw an error reading %@...%@", path, error.description());
    // Overwrites the "Unknown" of an unreadable file on purpose: such a file is a plain failure.
    setNonCrash(&issue, fileName);
    record(found, std::move(issue));
    return;
  }
  for (vl::CullerKill& kill : *kills) {
    record(found, {kill.name, "Crash", vl::format("Culler killed %@ - %@", kill.name, kill.reason),
                   issue.time});
  }
}

void scanFile(const std::string& folder, const std::string& subpath,
              std::vector<vl::FaultbinIssue>* found) {
  const std::string fileName = vl::paths::lastComponent(subpath);
  const std::string path = folder + subpath;
  VLLog(VLLogLevelDebug, kCategory,
        "File name is %@ and file parent path is %@ and file fullpath is %@", fileName, folder,
        path);
  const std::string_view extension = extensionOf(fileName);
  if (extension == "memorydump") {
    VLLog(VLLogLevelInfo, kCategory, "~ Memory Dump %@", fileName);
    if (std::optional<vl::FaultbinFileName> name = parsedName(fileName, false)) {
      record(found, {name->process, "Crash", name->process + " memory dump", *name->time});
    }
    return;
  }
  if (extension != "plist" && extension != "ips") {
    if (!contains(fileName, "mobility-info")) {
      VLLog(VLLogLevelDebug, kCategory, "%@ is not a plist...Doing nothing", fileName);
    }
    return;
  }
  std::optional<vl::FaultbinFileName> name = parsedName(fileName, true);
  if (!name) return;
  if (contains(name->process, "log-aggregated") || contains(name->process, "stacks")) return;
  vl::FaultbinIssue issue{name->process, "", "", *name->time};
  if (contains(name->process, "ExcResource")) return;
  if (contains(name->process, "CullerEvent")) {
    classifyKillReport(fileName, path, std::move(issue), found);
  } else {
    classifyOrdinaryReport(fileName, path, std::move(issue), found);
  }
}

}  // namespace

namespace vl {

void setFaultbinIssueRecorder(FaultbinIssueRecorder recorder) {
  std::lock_guard lock(state().recorderLock);
  state().recorder = std::move(recorder);
}

void setFaultbinCollection(std::function<void()> collect) {
  std::lock_guard lock(state().recorderLock);
  state().collection = std::move(collect);
}

std::vector<std::string> faultbinDeviceFoldersForUser(const std::string& user) {
  if (user == "root") return {"/Library/Logs/Faultbin/", "/Library/Logs/Faultbin/Retired/"};
  if (user == "wireless") return {"/var/wireless/Library/Logs/Faultbin/"};
  if (user == "tmp") return {"/tmp/Faultbin/"};
  return {"/var/mobile/Library/Logs/Faultbin/", "/var/mobile/Library/Logs/Faultbin/Retired/"};
}

std::vector<std::string> faultbinFoldersForUser(const std::string& user) {
  std::vector<std::string> resolved;
  for (const std::string& folder : faultbinDeviceFoldersForUser(user)) {
    std::string path = paths::resolve(folder);
    if (!path.ends_with('/')) path += '/';
    resolved.push_back(std::move(path));
  }
  return resolved;
}

void waitForFaultbinScans() {
  state().queue.sync([] {});
}

double crashScanInterval() {
  const Dictionary preferences = VLGetPreferences();
  const Value& preference = preferences.get(kVLCrashScanIntervalPreference);
  if (const Number* number = preference.asNumber(); number && number->doubleValue() > 0)
    return number->doubleValue();
  return kVLCrashScanIntervalDefault;
}

std::unique_ptr<Timer> startPeriodicFaultbinScans(std::vector<std::string> users,
                                                  std::optional<double> intervalSeconds) {
  const double interval =
      intervalSeconds && *intervalSeconds > 0 ? *intervalSeconds : crashScanInterval();
  return std::make_unique<Timer>(nullptr, 0.0, interval, kPeriodicScanLeeway,
                                 [users = std::move(users)] {
                                   for (const std::string& user : users)
                                     VLProcessCrashesInFaultbinFolder(user);
                                 });
}

}  // namespace vl

void VLProcessCrashesInFaultbinFolder(const std::string& user) {
  try {
    ScanState& scans = state();
    {
      std::lock_guard lock(scans.lastScansLock);
      const vl::Date now = vl::Date::now();
      auto last = scans.lastScans.find(user);
      // A clock set back makes the elapsed time negative, which also counts as too soon.
      if (last != scans.lastScans.end() &&
          (now.secondsSince1970 - last->second.secondsSince1970) / vl::time::scale() <
              kVLFaultbinScanRest) {
        VLLog(VLLogLevelError, kCategory,
              "We already processed this folder at '%@'; giving it a rest", last->second);
        return;
      }
      scans.lastScans[user] = now;
    }
    scans.queue.async([user] {
      collectBeforeScanning(user);
      _VLProcessCrashesInFaultbinFolder(user);
    });
  } catch (const std::exception& e) {
    VLLog(VLLogLevelError, kCategory, "Unable to queue a scan of %@'s Faultbin folder: %s", user,
          e.what());
  }
}

std::vector<vl::FaultbinIssue> _VLProcessCrashesInFaultbinFolder(const std::string& user) {
  std::vector<vl::FaultbinIssue> found;
  std::lock_guard scanning(state().scanLock);
  VLLog(VLLogLevelInfo, kCategory, "---------------- >>>> Checking %@'s Faultbin folder", user);
  for (const std::string& folder : vl::faultbinFoldersForUser(user)) {
    std::vector<std::string> subpaths;
    std::string error;
    try {
      if (!listSubpaths(folder, "", &subpaths, &error)) {
        VLLog(VLLogLevelError, kCategory, "Saw error trying to obtain subpaths at path \"%@\"...%@",
              folder, error);
        continue;
      }
      for (const std::string& subpath : subpaths) scanFile(folder, subpath, &found);
    } catch (const std::exception& e) {
      // Only allocation can throw here; the next folder may still be scanned.
      VLLog(VLLogLevelError, kCategory, "Saw error trying to obtain subpaths at path \"%@\"...%s",
            folder, e.what());
    }
  }
  return found;
}
