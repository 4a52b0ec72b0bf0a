// VLConfigResult: sorting a fleet folder, merging its results files on the refresh queue, watching
// "Plists" and asking every device's timeline when an issue or a failure happened.
//
// Lifetime: queue items and the watch handler hold the object's Impl by raw pointer beside a shared
// Lifeline. The destructor raises the lifeline's flag, cancels the watch (joining its thread) and
// destroys the queue; an item that runs after that (the queue hands its rest to its own worker
// when the last reference is dropped on it) sees the flag and leaves without touching the Impl.
#include "vorlund/results/config_result.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>

#include "vorlund/foundation/background.h"
#include "vorlund/foundation/directory_watch.h"
#include "vorlund/foundation/notification_center.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/foundation/serial_queue.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/sqlite/database.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kCategory = "Results";
constexpr const char* kDSStore = ".DS_Store";
// A refresh of an empty "Plists" folder looks again after this long.
constexpr double kPlistWaitSeconds = 1.0;

// The timeline questions, as text with the values placed into it (see unboundQuery).
constexpr const char* kSerialNumberQuery = "SELECT value from Config WHERE key='SerialNumber'";
constexpr const char* kIssueTimesQuery = "SELECT time from Issues WHERE reason='%@'";
constexpr const char* kFailureTimesQuery =
    "SELECT start_time from TestCases WHERE result == %d AND test_case_name == '%@' and bucket "
    "== '%@'";
constexpr int kFailedResult = 1;

// The notification's "RefreshedObject": a VLConfigResult is no record of its own, so a value
// carries it through this holder (see vl::refreshedConfigResult).
class ConfigResultReference : public vl::Record {
 public:
  explicit ConfigResultReference(std::shared_ptr<VLConfigResult> object)
      : object_(std::move(object)) {}
  std::string className() const override { return "VLConfigResult"; }
  std::string description() const override { return object_->description(); }
  const std::shared_ptr<VLConfigResult>& object() const { return object_; }

 private:
  std::shared_ptr<VLConfigResult> object_;
};

// The names of a folder's entries, sorted so that every listing (and so the merge order) is the
// same on every file system. ".DS_Store", which copies from other machines bring along, is skipped.
std::vector<std::string> listFolder(const std::string& folder, std::error_code& failure) {
  std::vector<std::string> names;
  for (fs::directory_iterator it(folder, failure), end; !failure && it != end;
       it.increment(failure)) {
    std::string name = it->path().filename().string();
    if (name != kDSStore) names.push_back(std::move(name));
  }
  if (failure) names.clear();
  std::sort(names.begin(), names.end());
  return names;
}

// SQLite's companions of a database file: they move with it and are not databases themselves.
constexpr const char* kSqliteCompanions[] = {"-wal", "-shm", "-journal"};

bool isSqliteCompanion(const std::string& name) {
  return std::any_of(std::begin(kSqliteCompanions), std::end(kSqliteCompanions),
                     [&](const char* suffix) { return name.ends_with(suffix); });
}

// Moves without replacing: a file of the same name already sorted stays, as the platform's move
// refuses to overwrite.
bool moveItem(const std::string& from, const std::string& to, std::error_code& failure) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  failure = std::error_code(errno, std::generic_category());
  return false;
}

void sortRootFiles(const std::string& root, const char* folder, const char* extension) {
  const std::string destination = root + "/" + folder;
  std::error_code failure;
  fs::create_directories(destination, failure);
  if (failure) {
    VLLog(VLLogLevelError, nullptr, "Something went wrong creating a directory at %@...%@",
          destination, failure.message());
  }
  std::vector<std::string> names = listFolder(root, failure);
  if (failure) {
    VLLog(VLLogLevelError, nullptr, "Something went wrong reading contents of %@...%@", root,
          failure.message());
    return;
  }
  for (const std::string& name : names) {
    const std::string source = root + "/" + name;
    if (name == kVLConfigResultAggregatedFile || fs::path(name).extension() != extension ||
        !fs::is_regular_file(source, failure))
      continue;
    std::string target = destination + "/" + name;
    if (!moveItem(source, target, failure)) {
      VLLog(VLLogLevelError, nullptr, "Something went wrong moving %@ to %@...%@", source, target,
            failure.message());
      continue;
    }
    // A timeline's write-ahead log holds rows not yet in the file itself.
    for (const char* suffix : kSqliteCompanions) {
      if (fs::exists(source + suffix, failure)) moveItem(source + suffix, target + suffix, failure);
    }
  }
}

// The query text with the values placed into it as they are, or none when a value holds a single
// quote: the quote would end the literal early, and what is left no longer asks what was meant. The
// query is then broken and finds nothing, whatever the rest of the value would have made of it.
std::optional<std::string> unboundQuery(const std::string& text,
                                        std::initializer_list<std::string_view> values) {
  for (std::string_view value : values) {
    if (value.find('\'') != std::string_view::npos) return std::nullopt;
  }
  return text;
}

// The column of every row of one statement on a read-only connection. Only the first statement of
// the text is compiled, so nothing after a ';' ever runs. Empty on any failure.
vl::Array columnStrings(vl::sqlite::Database& db, const std::optional<std::string>& sql,
                        const char* column) {
  vl::Array strings;
  if (!sql || !db.isOpen()) return strings;
  auto statement = vl::sqlite::Statement::prepare(db.handle(), *sql);
  if (!statement) return strings;
  vl::sqlite::ResultSet rows(std::make_shared<vl::sqlite::Statement>(std::move(*statement)));
  while (rows.next()) strings.push_back(vl::Value(rows.stringForColumn(column)));
  return strings;
}

std::string valueText(const std::optional<std::string>& value) { return value.value_or("(null)"); }

// What tells one version of a file from another: a file replaced by a move is another inode, one
// rewritten in place has another modification time or size.
struct FileVersion {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  int64_t modifiedNs = 0;
  bool operator==(const FileVersion&) const = default;
};

std::optional<FileVersion> versionOf(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return std::nullopt;
  return FileVersion{info.st_dev, info.st_ino, info.st_size,
                     int64_t{info.st_mtim.tv_sec} * 1'000'000'000 + info.st_mtim.tv_nsec};
}

// The results files of the last refresh as read, so that a refresh after one device's file changed
// parses that file alone. Each run is still rebuilt from its dictionary: merging changes the run
// that becomes the aggregate.
class ParsedFiles {
 public:
  // The runs of the results files at paths, in their order; nullptr (logged at level 16) for a
  // file that is no results file, or not yet a whole one. The files are read on the calling thread
  // and on the background pool at once; the calling thread alone can finish the work, so a busy
  // pool only makes it slower.
  std::vector<std::shared_ptr<VLResults>> runsOf(const std::vector<std::string>& paths) {
    std::erase_if(files_, [&](const auto& entry) {
      return std::find(paths.begin(), paths.end(), entry.first) == paths.end();
    });
    auto batch = std::make_shared<Batch>();
    batch->paths = paths;
    batch->versions.resize(paths.size());
    batch->known.resize(paths.size(), nullptr);
    batch->parsed.resize(paths.size());
    batch->runs.resize(paths.size());
    for (size_t i = 0; i < paths.size(); ++i) {
      batch->versions[i] = versionOf(paths[i]);
      auto cached = files_.find(paths[i]);
      if (batch->versions[i] && cached != files_.end() &&
          cached->second.version == *batch->versions[i])
        batch->known[i] = &cached->second.plist;
    }
    const size_t helpers = std::min(vl::background::threadCount(), paths.size() / 2);
    for (size_t h = 0; h < helpers; ++h) vl::background::run([batch] { batch->work(); });
    batch->work();
    {
      std::unique_lock lock(batch->mutex);
      batch->done.wait(lock, [&] { return batch->finished == batch->paths.size(); });
    }
    for (size_t i = 0; i < paths.size(); ++i) {
      if (batch->known[i]) continue;
      if (batch->parsed[i] && batch->versions[i]) {
        files_.insert_or_assign(paths[i], Entry{*batch->versions[i], std::move(*batch->parsed[i])});
      } else {
        files_.erase(paths[i]);
      }
    }
    return std::move(batch->runs);
  }

 private:
  struct Entry {
    FileVersion version;
    vl::Dictionary plist;
  };
  // One refresh's reading. Helpers that start after it is done find nothing left to claim.
  struct Batch {
    std::vector<std::string> paths;
    std::vector<std::optional<FileVersion>> versions;
    std::vector<const vl::Dictionary*> known;  // the dictionary read before, or nullptr
    std::vector<std::optional<vl::Dictionary>> parsed;
    std::vector<std::shared_ptr<VLResults>> runs;
    std::atomic<size_t> next{0};
    std::mutex mutex;
    std::condition_variable done;
    size_t finished = 0;

    void work() {
      for (size_t i; (i = next.fetch_add(1)) < paths.size();) {
        read(i);
        std::lock_guard lock(mutex);
        if (++finished == paths.size()) done.notify_all();
      }
    }
    void read(size_t i) {
      VLLog(VLLogLevelInfo, kCategory, "Trying to restore existing save : %@", paths[i]);
      const vl::Dictionary* plist = known[i];
      if (!plist) {
        vl::Error error;
        parsed[i] = vl::plist::readDictionary(paths[i], &error);
        if (!parsed[i]) {
          VLLog(VLLogLevelError, kCategory, "Unable to restore results from %@: %@", paths[i],
                error);
          return;
        }
        plist = &*parsed[i];
      }
      auto run = std::make_shared<VLResults>();
      run->setPlistPath(paths[i]);
      run->restoreStateFromSavedPlist(*plist);
      runs[i] = std::move(run);
    }
  };
  std::map<std::string, Entry> files_;
};

}  // namespace

namespace vl {

std::shared_ptr<VLConfigResult> refreshedConfigResult(const Notification& notification) {
  auto holder =
      notification.userInfo.get(kVLConfigResultRefreshedObjectKey).record<ConfigResultReference>();
  return holder ? holder->object() : nullptr;
}

}  // namespace vl

struct VLConfigResult::Impl {
  // What queue items and the watch share with the object and may outlive it.
  struct Lifeline {
    std::atomic<bool> ending{false};
    std::mutex mutex;
    std::condition_variable wake;
  };

  explicit Impl(VLConfigResult& o, std::string root)
      : owner(o),
        rootPath(std::move(root)),
        plistsPath(rootPath + "/" + kVLConfigResultPlistsFolder),
        databasesPath(rootPath + "/" + kVLConfigResultDatabasesFolder),
        queue(std::make_unique<vl::SerialQueue>(kVLConfigResultRefreshQueueLabel)) {}

  // A refresh asked for by the watch. One that is queued and not yet started already covers
  // every change seen so far, so a burst of files makes one or two refreshes, not one each.
  void scheduleRefresh() {
    if (refreshPending.exchange(true)) return;
    queue->async([this, life = lifeline] {
      if (life->ending.load()) return;
      refreshPending.store(false);
      refreshInternal();
    });
  }

  // Sleeps the scaled wait; false when the object is being destroyed.
  bool waitForPlists() {
    std::unique_lock lock(lifeline->mutex);
    return !lifeline->wake.wait_for(lock, vl::time::scaled(kPlistWaitSeconds),
                                    [&] { return lifeline->ending.load(); });
  }

  void refreshInternal() {
    std::vector<std::string> paths = owner.getPlistPaths();
    while (paths.empty()) {
      VLLog(VLLogLevelInfo, nullptr,
            "Sleeping 1s while we wait for device plists to show up in %@...", plistsPath);
      if (!waitForPlists()) return;
      std::error_code failure;
      if (!fs::is_directory(plistsPath, failure)) {
        VLLog(VLLogLevelInfo, nullptr, "Folder no longer exists at %@", plistsPath);
        {
          std::lock_guard lock(mutex);
          aggregated = nullptr;
          plistCount = 0;
        }
        postRefreshCompleted();
        return;
      }
      paths = owner.getPlistPaths();
    }

    std::vector<std::shared_ptr<VLResults>> runs = parsedFiles.runsOf(paths);
    std::shared_ptr<VLResults> merged;
    for (size_t i = 0; i < runs.size(); ++i) {
      // A file that is not a results file (or not yet a whole one) is logged and left out; the
      // others still make the aggregate.
      std::shared_ptr<VLResults>& run = runs[i];
      const std::string& path = paths[i];
      if (!run) continue;
      if (!merged) {
        merged = std::move(run);
        continue;
      }
      try {
        merged->mergeWithResult(*run);
      } catch (const VLException& exception) {
        VLLog(VLLogLevelError, kCategory, "Leaving %@ out of the aggregate: %@", path,
              exception.what());
      }
      run.reset();
    }
    const long databases = static_cast<long>(owner.getDBPaths().size());
    {
      std::lock_guard lock(mutex);
      plistCount = static_cast<long>(paths.size());
      dbCount = databases;
      aggregated = merged;
    }
    if (merged) merged->saveToFile(rootPath + "/" + kVLConfigResultAggregatedFile);
    postRefreshCompleted();
  }

  // Last step of a refresh: the reference taken here may be the object's last, so nothing of the
  // Impl is touched once the post is under way.
  void postRefreshCompleted() {
    std::shared_ptr<VLConfigResult> self = owner.weak_from_this().lock();
    if (!self) return;
    vl::Dictionary info{{kVLConfigResultRefreshedObjectKey,
                         vl::Value(std::make_shared<ConfigResultReference>(std::move(self)))}};
    vl::NotificationCenter::defaultCenter().post(kVLResultsRefreshCompletedNotification,
                                                 std::move(info));
  }

  VLConfigResult& owner;
  const std::string rootPath;
  const std::string plistsPath;
  const std::string databasesPath;
  std::shared_ptr<Lifeline> lifeline = std::make_shared<Lifeline>();
  std::atomic<bool> refreshPending{false};
  ParsedFiles parsedFiles;  // used on the refresh queue only

  mutable std::mutex mutex;  // guards the three results of a refresh
  std::shared_ptr<VLResults> aggregated;
  long plistCount = 0;
  long dbCount = 0;

  std::mutex watchMutex;
  std::unique_ptr<vl::DirectoryWatch> watch;

  std::unique_ptr<vl::SerialQueue> queue;
};

VLConfigResult::VLConfigResult(std::string rootPath)
    : impl_(std::make_unique<Impl>(*this, std::move(rootPath))) {}

std::shared_ptr<VLConfigResult> VLConfigResult::withPath(const std::string& path) {
  std::error_code failure;
  if (path.empty() || !fs::is_directory(path, failure)) return nullptr;
  std::shared_ptr<VLConfigResult> result(new VLConfigResult(path));
  sortRootFiles(path, kVLConfigResultPlistsFolder, ".plist");
  sortRootFiles(path, kVLConfigResultDatabasesFolder, ".db");
  result->enableAutoUpdating();
  result->refreshResults();
  std::lock_guard lock(result->impl_->mutex);
  result->impl_->dbCount = static_cast<long>(result->getDBPaths().size());
  return result;
}

VLConfigResult::~VLConfigResult() {
  {
    std::lock_guard lock(impl_->lifeline->mutex);
    impl_->lifeline->ending.store(true);
  }
  impl_->lifeline->wake.notify_all();
  disableAutoUpdating();
  impl_->queue.reset();
}

void VLConfigResult::refreshResults() {
  impl_->queue->sync([this] {
    if (!impl_->lifeline->ending.load()) impl_->refreshInternal();
  });
}

void VLConfigResult::enableAutoUpdating() {
  std::lock_guard lock(impl_->watchMutex);
  if (impl_->watch && !impl_->watch->isCancelled()) return;
  vl::Error error;
  impl_->watch = vl::DirectoryWatch::start(
      impl_->plistsPath, vl::DirectoryWatch::kCompletedFileEvents,
      [impl = impl_.get()] { impl->scheduleRefresh(); }, &error);
  if (!impl_->watch) {
    VLLog(VLLogLevelError, kCategory, "Cannot watch %@ for results files...%@", impl_->plistsPath,
          error.localizedDescription());
  }
}

void VLConfigResult::disableAutoUpdating() {
  std::unique_ptr<vl::DirectoryWatch> watch;
  {
    std::lock_guard lock(impl_->watchMutex);
    watch = std::move(impl_->watch);
  }
  if (!watch) return;
  // The text is shared with the socket layer's close failures and kept as it is.
  if (int failure = watch->cancel()) {
    VLLog(VLLogLevelNotice, kCategory, "Socket close failure... %d", failure);
  }
}

bool VLConfigResult::isAutoUpdatingEnabled() const {
  std::lock_guard lock(impl_->watchMutex);
  return impl_->watch && !impl_->watch->isCancelled();
}

std::string VLConfigResult::getRootPath() const { return impl_->rootPath; }

std::vector<std::string> VLConfigResult::getDBPaths() const {
  std::error_code failure;
  std::vector<std::string> paths;
  for (const std::string& name : listFolder(impl_->databasesPath, failure)) {
    if (!isSqliteCompanion(name)) paths.push_back(impl_->databasesPath + "/" + name);
  }
  if (failure) {
    VLLog(VLLogLevelError, kCategory, "Saw an error trying to read database path %@...%@",
          impl_->databasesPath, failure.message());
  }
  return paths;
}

std::vector<std::string> VLConfigResult::getPlistPaths() const {
  std::error_code failure;
  std::vector<std::string> paths;
  for (const std::string& name : listFolder(impl_->plistsPath, failure))
    paths.push_back(impl_->plistsPath + "/" + name);
  if (failure) {
    VLLog(VLLogLevelError, kCategory, "Saw an error trying to read plists path %@...%@",
          impl_->plistsPath, failure.message());
  }
  return paths;
}

long VLConfigResult::plistCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->plistCount;
}

long VLConfigResult::dbCount() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->dbCount;
}

std::shared_ptr<VLResults> VLConfigResult::aggregated() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->aggregated;
}

namespace {

// Calls visit(device name, read-only connection) for each database in listing order. The
// connection is not open when the file cannot be opened; its queries then find nothing.
template <typename Visit>
void forEachDevice(const std::vector<std::string>& databases, Visit visit) {
  for (size_t index = 0; index < databases.size(); ++index) {
    vl::sqlite::Database db(databases[index]);
    db.open(vl::sqlite::kOpenReadOnly);
    vl::Array serial = columnStrings(db, std::string(kSerialNumberQuery), "value");
    std::string name = serial.empty() ? "" : *serial[0].asString();
    if (name.empty()) {
      VLLog(VLLogLevelInfo, nullptr, "No serial number in %@", databases[index]);
      name = vl::format("Device %lu", static_cast<unsigned long>(index));
    }
    visit(name, db);
  }
}

}  // namespace

vl::Dictionary VLConfigResult::timestampsForIssue(const VLIssue& issue) const {
  const std::string reason = valueText(issue.reason());
  const auto sql = unboundQuery(vl::format(kIssueTimesQuery, reason), {reason});
  vl::Dictionary timestamps;
  forEachDevice(getDBPaths(), [&](const std::string& device, vl::sqlite::Database& db) {
    timestamps.set(device, vl::Value(columnStrings(db, sql, "time")));
  });
  return timestamps;
}

vl::Dictionary VLConfigResult::timestampsForTestCaseFailures(
    const VLTestCaseStatistic& statistic) const {
  const vl::Dictionary& failures = statistic.failures();
  vl::Dictionary timestamps;
  forEachDevice(getDBPaths(), [&](const std::string& device, vl::sqlite::Database& db) {
    for (size_t i = 0; i < failures.size(); ++i) {
      const std::string& bucket = failures.entry(i).first;
      const auto sql =
          unboundQuery(vl::format(kFailureTimesQuery, kFailedResult, statistic.name(), bucket),
                       {statistic.name(), bucket});
      vl::Dictionary perDevice;
      if (const vl::Dictionary* held = timestamps.get(bucket).asDictionary()) perDevice = *held;
      perDevice.set(device, vl::Value(columnStrings(db, sql, "start_time")));
      timestamps.set(bucket, vl::Value(std::move(perDevice)));
    }
  });
  return timestamps;
}

std::string VLConfigResult::description() const {
  std::shared_ptr<VLResults> merged = aggregated();
  vl::Value shown = merged ? vl::Value(vl::format("<VLResults: %p>", merged.get())) : vl::Value();
  return vl::format(
      "<VLConfigResult: %p> Result object is %@ from %ld plists and %ld dbs.  Rootpath is %@", this,
      shown, plistCount(), dbCount(), impl_->rootPath);
}
