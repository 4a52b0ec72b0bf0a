#include "vorlund/reports/fleet_collect.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/reports/fleet.h"
#include "vorlund/results/config_result.h"
#include "vorlund/results/sqlite/database.h"

namespace vl {
namespace {

constexpr const char* kReportsDomain = "VLReports";

bool fail(Error* error, const std::string& description) {
  setError(error, Error::withDescription(kReportsDomain, 1, description));
  return false;
}

std::string systemError(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

// A serial number as a file-name part: anything but letters, digits, '.', '-' and '_' becomes '-',
// so a serial can neither leave the folder nor hide the file.
std::string fileNamePart(const std::string& text) {
  std::string out = text;
  for (char& c : out) {
    bool plain = std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.';
    if (!plain) c = '-';
  }
  if (!out.empty() && out[0] == '.') out[0] = '-';
  return out;
}

// An empty hidden file in dir reserved for one file on its way into a sub-folder; removed when
// the object dies unless it was placed.
class StagedFile {
 public:
  StagedFile(const std::string& dir, const std::string& name) {
    std::string pattern = paths::join(dir, "." + name + ".XXXXXX");
    int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd >= 0) {
      ::close(fd);
      path_ = pattern;
    }
  }
  ~StagedFile() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  const std::string& path() const { return path_; }

  // Syncs the file, renames it to destination and syncs destination's folder, so that after a
  // crash the folder holds either the old file or the whole new one.
  bool placeAt(const std::string& destination, Error* error) {
    if (!sync(path_, O_RDONLY)) return fail(error, systemError("cannot sync", path_));
    if (::rename(path_.c_str(), destination.c_str()) != 0) {
      return fail(error, systemError("cannot move a file to", destination));
    }
    path_.clear();
    sync(paths::deletingLastComponent(destination), O_RDONLY | O_DIRECTORY);
    return true;
  }

 private:
  static bool sync(const std::string& path, int flags) {
    int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) return false;
    bool synced = ::fsync(fd) == 0;
    ::close(fd);
    return synced;
  }

  std::string path_;
};

// A consistent copy of a live timeline, write-ahead log included, as one file in rollback-journal
// mode: readers of the fleet folder then need no "-wal" beside it.
bool snapshotTimeline(const std::string& source, const std::string& copy, Error* error) {
  sqlite::Database from(source);
  Error sqlError;
  if (!from.open(sqlite::kOpenReadOnly, &sqlError) ||
      !from.executeUpdate("VACUUM INTO ?", {Value(copy)}, &sqlError)) {
    return fail(error,
                "cannot copy the timeline " + source + ": " + sqlError.localizedDescription());
  }
  from.close();
  sqlite::Database to(copy);
  if (!to.open(sqlite::kOpenReadWrite, &sqlError) ||
      !to.executeStatements("PRAGMA journal_mode=DELETE", &sqlError)) {
    return fail(error,
                "cannot finish the copy of " + source + ": " + sqlError.localizedDescription());
  }
  return true;
}

}  // namespace

std::optional<CollectedRun> collectRun(const std::string& dir, const std::string& resultsPath,
                                       const std::string& timelinePath, Error* error) {
  auto none = [error](const std::string& description) {
    fail(error, description);
    return std::optional<CollectedRun>();
  };
  std::optional<std::string> bytes = paths::readFile(resultsPath);
  if (!bytes) return none("cannot read the results file " + resultsPath);
  std::optional<Value> plist = plist::parse(*bytes);
  const Dictionary* results = plist ? plist->asDictionary() : nullptr;
  if (!results) return none(resultsPath + " is not a results file");
  const Date* start = results->get("StartTime").asDate();
  if (!start) return none(resultsPath + " has no StartTime");

  CollectedRun run;
  if (const Dictionary* hardware = results->get("Hardware Info").asDictionary()) {
    run.serialNumber = hardware->get("SerialNumber").stringOr("");
  }
  if (run.serialNumber.empty() && !timelinePath.empty()) {
    run.serialNumber = timelineSerialNumber(timelinePath);
  }
  if (run.serialNumber.empty()) {
    return none("no serial number in " + resultsPath +
                (timelinePath.empty() ? "" : " nor in " + timelinePath));
  }

  const std::string plists = paths::join(dir, kVLConfigResultPlistsFolder);
  const std::string databases = paths::join(dir, kVLConfigResultDatabasesFolder);
  for (const std::string& folder : {plists, databases}) {
    if (!paths::createDirectories(folder)) return none(systemError("cannot create", folder));
  }
  const std::string stem = fileNamePart(run.serialNumber) + "_" + dateString(*start);
  const std::string resultsName = "VorlundResults_" + stem + ".plist";
  const std::string timelineName = "VorlundTimeline_" + stem + ".db";

  // Both files are staged in dir itself, which nobody watches, and each moves into its sub-folder
  // complete. The timeline goes first: a watcher woken by the results file finds its timeline.
  if (!timelinePath.empty()) {
    StagedFile staged(dir, timelineName);
    if (staged.path().empty()) return none(systemError("cannot write in", dir));
    if (!snapshotTimeline(timelinePath, staged.path(), error)) return std::nullopt;
    run.timelinePath = paths::join(databases, timelineName);
    if (!staged.placeAt(run.timelinePath, error)) return std::nullopt;
  }
  StagedFile staged(dir, resultsName);
  if (staged.path().empty() || !paths::writeFileAtomically(staged.path(), *bytes)) {
    return none(systemError("cannot write in", dir));
  }
  run.resultsPath = paths::join(plists, resultsName);
  if (!staged.placeAt(run.resultsPath, error)) return std::nullopt;
  return run;
}

}  // namespace vl
