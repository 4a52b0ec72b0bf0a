// VLConfigResult: the results of several devices of one configuration, gathered in one root folder.
// Each device contributes its results file (a property list written by VLResults) and its timeline
// database. The folder is laid out as
//   <root>/Plists/            one results file per device
//   <root>/Databases/         one timeline database per device
//   <root>/Aggregated.plist   every results file merged into one run
// Files dropped into the root are sorted into the two sub-folders when the object is made. The
// merged run is kept in memory, saved beside the folders, refreshed whenever the "Plists" folder
// changes and announced after every refresh.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "vorlund/foundation/notification_center.h"
#include "vorlund/foundation/value.h"
#include "vorlund/results/issue.h"
#include "vorlund/results/results.h"
#include "vorlund/results/test_case_statistic.h"

// Posted on the local notification centre after every refresh, with no object and the user
// information {"RefreshedObject": the VLConfigResult}. Observers run on the refresh queue.
inline constexpr const char* kVLResultsRefreshCompletedNotification = "ResultsRefreshCompleted";
inline constexpr const char* kVLConfigResultRefreshedObjectKey = "RefreshedObject";
// The label of the serial queue every refresh runs on.
inline constexpr const char* kVLConfigResultRefreshQueueLabel =
    "com.brindle.Vorlund.ConfigResultRefresh";
inline constexpr const char* kVLConfigResultPlistsFolder = "Plists";
inline constexpr const char* kVLConfigResultDatabasesFolder = "Databases";
inline constexpr const char* kVLConfigResultAggregatedFile = "Aggregated.plist";

class VLConfigResult : public std::enable_shared_from_this<VLConfigResult> {
 public:
  // nullptr unless path exists and is a folder. Sorts the root's "*.plist" (but
  // "Aggregated.plist") and "*.db" files into "Plists" and "Databases", enables auto-updating,
  // runs a first refresh (which waits until a results file exists, see refreshResults) and counts
  // the databases.
  static std::shared_ptr<VLConfigResult> withPath(const std::string& path);
  ~VLConfigResult();
  VLConfigResult(const VLConfigResult&) = delete;
  VLConfigResult& operator=(const VLConfigResult&) = delete;

  // Runs a refresh on the refresh queue and returns when it is done: merges every results file of
  // "Plists" in listing order, saves the merge as "Aggregated.plist" and posts
  // "ResultsRefreshCompleted". While "Plists" is empty it sleeps 1 s (time-scaled) at a time; when
  // the folder disappears meanwhile the aggregate becomes nullptr, the count 0, and the
  // notification is posted once.
  void refreshResults();

  // Auto-updating watches "Plists" with inotify and refreshes after a file there is complete
  // (closed after writing, or moved in), not after every write.
  void enableAutoUpdating();
  void disableAutoUpdating();
  bool isAutoUpdatingEnabled() const;

  std::string getRootPath() const;
  // Full paths of the files of "Databases" / "Plists" in listing order (".DS_Store" skipped). A
  // listing error is logged at level 16 in the category "Results" and gives an empty list.
  std::vector<std::string> getDBPaths() const;
  std::vector<std::string> getPlistPaths() const;
  // Results files used by the last refresh.
  long plistCount() const;
  long dbCount() const;
  // The merged run of the last refresh; nullptr before the first one or when "Plists" vanished.
  std::shared_ptr<VLResults> aggregated() const;

  // Device name -> array of the "time" strings of the issue's reason, per database. The device
  // name is the timeline's Config "SerialNumber", or "Device %lu" by listing position. The SQL is
  // built without binding, on read-only connections: a reason holding a quote finds nothing.
  vl::Dictionary timestampsForIssue(const VLIssue& issue) const;
  // Bucket -> device name -> array of the "start_time" strings of the failed results of the
  // statistic's test case in that bucket (the buckets are the keys of its failures).
  vl::Dictionary timestampsForTestCaseFailures(const VLTestCaseStatistic& statistic) const;

  // "<VLConfigResult: %p> Result object is %@ from %ld plists and %ld dbs.  Rootpath is %@".
  std::string description() const;

 private:
  explicit VLConfigResult(std::string rootPath);
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

namespace vl {

// The "RefreshedObject" of a "ResultsRefreshCompleted" notification; nullptr when the
// notification carries none.
std::shared_ptr<VLConfigResult> refreshedConfigResult(const Notification& notification);

}  // namespace vl
