// A fleet: the runs of one or more devices read back from their results files and timelines,
// with every run merged into one aggregate. Every view of the reports module (summary, HTML
// report, exports, queries) starts from here, so that a single run file and a fleet folder read
// the same way.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vorlund/foundation/error.h"
#include "vorlund/results/config_result.h"
#include "vorlund/results/results.h"

namespace vl::sqlite {
class Database;
}

namespace vl {

// One device's run.
struct DeviceRun {
  // The device's name: the serial number of the results file's "Hardware Info", else the one of
  // its timeline's Config table, else "Device <n>" by position.
  std::string device;
  std::string resultsPath;
  // The timeline database of the same run; empty when none was found.
  std::string timelinePath;
  std::shared_ptr<VLResults> results;
};

struct Fleet {
  // Sorted by device name. Two results files of one device (two runs) are two entries.
  std::vector<DeviceRun> devices;
  // Every device's run merged (VLResults::mergeWithResult) in the order of devices. A fleet of one
  // run holds that run's own record.
  std::shared_ptr<VLResults> aggregate;
};

// Reads a fleet from path, which is either
// - a results file: a fleet of that one run; its timeline is the file beside it whose name has
//   "VorlundTimeline" for "VorlundResults" and ".db" for ".plist", when it exists; or
// - a fleet folder: the results files and timelines of its "Plists" and "Databases" sub-folders,
//   or of the folder itself when it has no "Plists". "Aggregated.plist" is never read as a device.
//   Timelines are paired with results files by serial number (Config "SerialNumber"), then by
//   the file name with the results file's name parts.
// nullopt with error (domain "VLReports") when path does not exist, holds no results file, or a
// results file given directly cannot be read. Unreadable results files of a folder are logged and
// left out.
std::optional<Fleet> loadFleet(const std::string& path, Error* error = nullptr);

// The devices of the given results files and timelines (paired as loadFleet pairs them) with an
// aggregate merged elsewhere; nullopt when there is no aggregate.
std::optional<Fleet> fleetOfFiles(const std::vector<std::string>& resultsPaths,
                                  const std::vector<std::string>& timelinePaths,
                                  std::shared_ptr<VLResults> aggregate, Error* error = nullptr);

// The devices of a VLConfigResult's folder, with its current aggregate (nullopt before its first
// refresh).
inline std::optional<Fleet> fleetOfConfigResult(const VLConfigResult& configResult,
                                                Error* error = nullptr) {
  return fleetOfFiles(configResult.getPlistPaths(), configResult.getDBPaths(),
                      configResult.aggregated(), error);
}

// The Config table's "SerialNumber" of a timeline database opened read-only; empty when the file
// cannot be opened or has none.
std::string timelineSerialNumber(const std::string& timelinePath);
// The same of a timeline the caller has open.
std::string timelineSerialNumber(sqlite::Database& timeline);

}  // namespace vl
