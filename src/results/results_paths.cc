// Where a run keeps its results file and its timeline, and how two runs of the same second keep
// apart.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "results/results_impl.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/results.h"

namespace {

constexpr const char* kResultsFolder = "~/Library/Logs/Vorlund/Results";
constexpr const char* kResultsName = "VorlundResults";
constexpr const char* kTimelineName = "VorlundTimeline";
// More runs than this in one second means something is starting runs in a loop; the last name is
// then shared rather than searched for ever.
constexpr int kMaximumRunsPerSecond = 1000;

void constructIntermediateDirectoriesForPath(const std::string& path) {
  std::filesystem::path folder = std::filesystem::path(path).parent_path();
  if (folder.empty()) return;
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (!error) return;
  // "@%" is how this line has always read. It is not a conversion, so the line has one argument:
  // the error, with the folder it is about.
  VLLog(VLLogLevelError, nullptr, "Hit an error while creating directory structure: @% : %@",
        vl::format("%@ [%@]", error.message(), folder.string()));
}

std::string pathFor(const std::string& name, const std::string& stressType, const std::string& date,
                    const std::string& suffix) {
  std::string serial = vl::deviceSerialNumber();
  return vl::format("%@/%@_%@%@%@.%@", vl::paths::expandTilde(kResultsFolder), name, stressType,
                    serial.empty() ? std::string() : "_" + serial, date, suffix);
}

}  // namespace

std::string VLResults::getResultsFilePathForName(const std::string& name, const std::string& suffix,
                                                 bool includeTime) const {
  std::string date;
  if (includeTime) date = "_" + vl::dateString(startTime()) + fileNameSuffix();
  std::string path = pathFor(name, testType(), date, suffix);
  constructIntermediateDirectoriesForPath(path);
  return path;
}

std::string VLResults::getResultsFilePath() const {
  std::string path = getResultsFilePathForName(kResultsName, "plist");
  VLLog(VLLogLevelDebug, nullptr, "Saving results to %@", path);
  return path;
}

std::string VLResults::getTimelineFilePath() const {
  std::string path = getResultsFilePathForName(kTimelineName, "db");
  VLLog(VLLogLevelInfo, nullptr, "Saving timeline to %@", path);
  return path;
}

void VLResults::reserveFileNames() {
  const std::string date = "_" + vl::dateString(startTime());
  const std::string stressType = testType();
  for (int run = 1; run <= kMaximumRunsPerSecond; ++run) {
    std::string suffix = run == 1 ? std::string() : "-" + std::to_string(run);
    setFileNameSuffix(suffix);
    std::error_code ignored;
    if (std::filesystem::exists(pathFor(kResultsName, stressType, date + suffix, "plist"), ignored))
      continue;
    std::string timeline = pathFor(kTimelineName, stressType, date + suffix, "db");
    constructIntermediateDirectoriesForPath(timeline);
    // The empty file is the claim (SQLite reads an empty file as an empty database); O_EXCL makes
    // the claim atomic against another process starting a run in the same second.
    int fd = ::open(timeline.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
      ::close(fd);
      return;
    }
    if (errno != EEXIST) {
      VLLog(VLLogLevelError, "Results", "Could not claim the timeline %@: %@", timeline,
            std::strerror(errno));
      return;
    }
  }
}
