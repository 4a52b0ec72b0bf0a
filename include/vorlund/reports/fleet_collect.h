// Filling a fleet folder: one device's results file and timeline placed into the folder's layout
// ("Plists", "Databases") under names that carry the device's serial number and the run's start,
// each file complete the moment it appears, so a folder that a VLConfigResult watches can be filled
// while it watches.
#pragma once

#include <optional>
#include <string>

#include "vorlund/foundation/error.h"

namespace vl {

struct CollectedRun {
  std::string serialNumber;
  // Where the files now are: "<dir>/Plists/VorlundResults_<serial>_<start>.plist" and
  // "<dir>/Databases/VorlundTimeline_<serial>_<start>.db", <start> being the run's "StartTime" as a
  // date string. The timeline is empty when none was given.
  std::string resultsPath;
  std::string timelinePath;
};

// Copies a run's results file and (unless timelinePath is empty) its timeline into the fleet folder
// dir, creating dir, "Plists" and "Databases" when missing. The serial number is the results file's
// "Hardware Info" "SerialNumber", else the timeline's Config "SerialNumber".
//
// Each file is written under a hidden temporary name in dir itself, synced, and renamed into its
// sub-folder, so a watcher of "Plists" sees one moved-in, complete file. The timeline is copied
// through SQLite as one consistent snapshot (rows still in its write-ahead log included) and made a
// single self-contained file. Collecting the same run again replaces its two files; another run of
// the same device has another start and keeps its own.
//
// nullopt, with error (domain "VLReports"), when the results file cannot be read as a results
// dictionary, has no "StartTime", neither file names a serial number, the timeline is not a
// readable database, or a file cannot be written; files already in place stay as they were.
std::optional<CollectedRun> collectRun(const std::string& dir, const std::string& resultsPath,
                                       const std::string& timelinePath, Error* error = nullptr);

}  // namespace vl
