#include "vorlund/reports/fleet.h"

#include <algorithm>
#include <filesystem>
#include <map>

#include "vorlund/foundation/format.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/config_result.h"
#include "vorlund/results/sqlite/database.h"

namespace fs = std::filesystem;

namespace vl {

namespace {

constexpr const char* kReportsDomain = "VLReports";
constexpr const char* kReportsCategory = "Reports";
constexpr const char* kResultsPrefix = "VorlundResults";
constexpr const char* kTimelinePrefix = "VorlundTimeline";

bool fail(Error* error, const std::string& description) {
  setError(error, Error::withDescription(kReportsDomain, 1, description));
  return false;
}

std::string serialOfResults(const VLResults& results) {
  const Dictionary hardware = results.hardwareInfo();
  const Value* serial = hardware.find("SerialNumber");
  return serial ? serial->stringOr("") : "";
}

std::vector<std::string> filesWithExtension(const fs::path& folder, const std::string& extension) {
  std::vector<std::string> files;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    const fs::path& path = entry.path();
    if (!entry.is_regular_file(ec) || path.extension() != extension) continue;
    if (path.filename() == kVLConfigResultAggregatedFile) continue;
    files.push_back(path.string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// The timeline a results file's name points at: the same name parts with the timeline's prefix and
// extension. Collected files carry a serial-number prefix before the results prefix, which the
// replacement keeps.
std::string timelineNameFor(const fs::path& resultsPath) {
  std::string name = resultsPath.stem().string();
  size_t at = name.find(kResultsPrefix);
  if (at == std::string::npos) return "";
  name.replace(at, std::char_traits<char>::length(kResultsPrefix), kTimelinePrefix);
  return name + ".db";
}

struct TimelineIndex {
  std::map<std::string, std::string> bySerial;
  std::map<std::string, std::string> byFileName;
};

TimelineIndex indexTimelines(const std::vector<std::string>& timelines) {
  TimelineIndex index;
  for (const std::string& path : timelines) {
    std::string serial = timelineSerialNumber(path);
    // A serial number shared by two timelines (two runs of one device) cannot choose between them.
    if (!serial.empty()) {
      auto [it, inserted] = index.bySerial.emplace(serial, path);
      if (!inserted) it->second.clear();
    }
    index.byFileName.emplace(fs::path(path).filename().string(), path);
  }
  return index;
}

std::string pairedTimeline(const TimelineIndex& index, const std::string& resultsPath,
                           const std::string& serial) {
  if (auto it = index.byFileName.find(timelineNameFor(resultsPath)); it != index.byFileName.end()) {
    return it->second;
  }
  if (auto it = index.bySerial.find(serial); it != index.bySerial.end()) return it->second;
  return "";
}

// Names the unnamed devices by their position in the listing, then sorts by name.
void nameAndSort(std::vector<DeviceRun>& devices) {
  for (size_t i = 0; i < devices.size(); ++i) {
    if (devices[i].device.empty()) devices[i].device = format("Device %lu", i);
  }
  std::stable_sort(devices.begin(), devices.end(),
                   [](const DeviceRun& a, const DeviceRun& b) { return a.device < b.device; });
}

// Merges every run into a fresh copy of the first, so that the device runs stay as their files
// hold them.
std::optional<Fleet> assemble(std::vector<DeviceRun> devices, Error* error) {
  if (devices.empty()) {
    fail(error, "No results file could be read");
    return std::nullopt;
  }
  nameAndSort(devices);
  Fleet fleet;
  if (devices.size() == 1) {
    fleet.aggregate = devices.front().results;
  } else {
    fleet.aggregate = VLResults::withFile(devices.front().resultsPath);
    if (!fleet.aggregate) {
      fail(error, format("%@ could not be read again", devices.front().resultsPath));
      return std::nullopt;
    }
    for (size_t i = 1; i < devices.size(); ++i)
      fleet.aggregate->mergeWithResult(*devices[i].results);
  }
  fleet.devices = std::move(devices);
  return fleet;
}

std::optional<DeviceRun> readDevice(const std::string& resultsPath,
                                    const TimelineIndex& timelines) {
  std::shared_ptr<VLResults> results = VLResults::withFile(resultsPath);
  if (!results) return std::nullopt;
  DeviceRun run;
  run.resultsPath = resultsPath;
  run.results = results;
  run.device = serialOfResults(*results);
  run.timelinePath = pairedTimeline(timelines, resultsPath, run.device);
  if (run.device.empty() && !run.timelinePath.empty()) {
    run.device = timelineSerialNumber(run.timelinePath);
  }
  return run;
}

std::optional<Fleet> loadFolder(const fs::path& folder, Error* error) {
  fs::path plists = folder / kVLConfigResultPlistsFolder;
  fs::path databases = folder / kVLConfigResultDatabasesFolder;
  std::error_code ec;
  const bool laidOut = fs::is_directory(plists, ec);
  std::vector<std::string> resultsFiles = filesWithExtension(laidOut ? plists : folder, ".plist");
  std::vector<std::string> timelineFiles =
      filesWithExtension(fs::is_directory(databases, ec) ? databases : folder, ".db");
  if (resultsFiles.empty()) {
    fail(error, format("%@ holds no results file", folder.string()));
    return std::nullopt;
  }
  TimelineIndex timelines = indexTimelines(timelineFiles);
  std::vector<DeviceRun> devices;
  for (const std::string& path : resultsFiles) {
    std::optional<DeviceRun> run = readDevice(path, timelines);
    if (!run) {
      VLLog(VLLogLevelError, kReportsCategory, "Skipping %@: not a results file", path);
      continue;
    }
    devices.push_back(std::move(*run));
  }
  return assemble(std::move(devices), error);
}

}  // namespace

std::string timelineSerialNumber(const std::string& timelinePath) {
  sqlite::Database database(timelinePath);
  if (!database.open(sqlite::kOpenReadOnly)) return "";
  return timelineSerialNumber(database);
}

std::string timelineSerialNumber(sqlite::Database& timeline) {
  std::optional<sqlite::ResultSet> rows =
      timeline.executeQuery("SELECT value FROM Config WHERE key='SerialNumber'");
  if (!rows || !rows->next()) return "";
  return rows->stringForColumn("value");
}

std::optional<Fleet> loadFleet(const std::string& path, Error* error) {
  std::error_code ec;
  if (fs::is_directory(path, ec)) return loadFolder(path, error);
  if (!fs::exists(path, ec)) {
    fail(error, format("%@ does not exist", path));
    return std::nullopt;
  }
  fs::path resultsPath(path);
  std::vector<std::string> beside;
  std::string timelineName = timelineNameFor(resultsPath);
  if (!timelineName.empty()) {
    fs::path candidate = resultsPath.parent_path() / timelineName;
    if (fs::is_regular_file(candidate, ec)) beside.push_back(candidate.string());
  }
  std::optional<DeviceRun> run = readDevice(path, indexTimelines(beside));
  if (!run) {
    fail(error, format("%@ is not a results file", path));
    return std::nullopt;
  }
  std::vector<DeviceRun> devices;
  devices.push_back(std::move(*run));
  return assemble(std::move(devices), error);
}

std::optional<Fleet> fleetOfFiles(const std::vector<std::string>& resultsPaths,
                                  const std::vector<std::string>& timelinePaths,
                                  std::shared_ptr<VLResults> aggregate, Error* error) {
  if (!aggregate) {
    fail(error, "No merged results yet");
    return std::nullopt;
  }
  TimelineIndex timelines = indexTimelines(timelinePaths);
  std::vector<DeviceRun> devices;
  for (const std::string& path : resultsPaths) {
    if (std::optional<DeviceRun> run = readDevice(path, timelines))
      devices.push_back(std::move(*run));
  }
  nameAndSort(devices);
  Fleet fleet;
  fleet.devices = std::move(devices);
  fleet.aggregate = std::move(aggregate);
  return fleet;
}

}  // namespace vl
