// Where a run keeps its results file and its timeline.

#include <cerrno>
#include <cstring>

#include "vorlund/catalogue/device_serial.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/results.h"

namespace {

constexpr const char* kResultsFolder = "~/Library/Logs/Vorlund/Results";

void constructIntermediateDirectoriesForPath(const std::string& path) {
  std::string folder = vl::paths::deletingLastComponent(path);
  if (folder.empty() || vl::paths::createDirectories(folder)) return;
  // "@%" is how this line has always read.
  VLLog(VLLogLevelError, nullptr, "Hit an error while creating directory structure: @% : %@",
        folder, std::strerror(errno));
}

}  // namespace

std::string VLResults::getResultsFilePathForName(const std::string& name, const std::string& suffix,
                                                 bool includeTime) const {
  std::string serial = vl::deviceSerialNumber();
  std::string path =
      vl::format("%@/%@_%@%@%@.%@", vl::paths::expandTilde(kResultsFolder), name, testType(),
                 serial.empty() ? std::string() : "_" + serial,
                 includeTime ? "_" + vl::dateString(startTime()) : std::string(), suffix);
  constructIntermediateDirectoriesForPath(path);
  return path;
}

std::string VLResults::getResultsFilePath() const {
  std::string path = getResultsFilePathForName("VorlundResults", "plist");
  VLLog(VLLogLevelDebug, nullptr, "Saving results to %@", path);
  return path;
}

std::string VLResults::getTimelineFilePath() const {
  std::string path = getResultsFilePathForName("VorlundTimeline", "db");
  VLLog(VLLogLevelInfo, nullptr, "Saving timeline to %@", path);
  return path;
}
