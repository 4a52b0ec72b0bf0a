#include "vorlund/devicetools/sync_folders.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <vector>

#include "vorlund/catalogue/primary_processes.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/devicetools/timer_manager.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/serial_queue.h"
#include "vorlund/foundation/timer.h"
#include "vorlund/logging/log.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kCategory = "FileUtilities";
constexpr const char* kLinkCategory = "VLFileUtilities";
constexpr int kBackgroundNice = 10;

vl::Error posixError(int code, const std::string& what) {
  return vl::Error::withDescription("NSPOSIXErrorDomain", code,
                                    vl::format("%s: %s", what, std::strerror(code)));
}

vl::Error notADirectoryError() {
  vl::Error error;
  error.domain = kVLNotADirectoryErrorDomain;
  error.code = kVLNotADirectoryErrorCode;
  return error;
}

bool failed(const vl::Error& error) { return !error.domain.empty(); }

enum class Kind { kMissing, kDirectory, kOther };

// Follows links, as a published link to a directory counts as the directory.
Kind kindOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return Kind::kMissing;
  return S_ISDIR(st.st_mode) ? Kind::kDirectory : Kind::kOther;
}

bool makeLink(const std::string& destination, const std::string& linkPath, vl::Error* error) {
  if (::symlink(destination.c_str(), linkPath.c_str()) == 0) return true;
  vl::setError(error,
               posixError(errno, vl::format("Could not link %s to %s", linkPath, destination)));
  return false;
}

// Names of a folder's entries in name order; none, with error, when it cannot be listed.
std::optional<std::vector<std::string>> listFolder(const std::string& path, vl::Error* error) {
  std::error_code failure;
  fs::directory_iterator it(path, failure);
  std::vector<std::string> names;
  for (; !failure && it != fs::directory_iterator(); it.increment(failure)) {
    names.push_back(it->path().filename().string());
  }
  if (failure) {
    vl::setError(error, posixError(failure.value(), vl::format("Could not list %s", path)));
    return std::nullopt;
  }
  std::sort(names.begin(), names.end());
  return names;
}

// listFolder, logging a failure.
std::optional<std::vector<std::string>> listFolderLogging(const std::string& path,
                                                          vl::Error* error) {
  vl::Error listing;
  std::optional<std::vector<std::string>> names = listFolder(path, &listing);
  if (!names) {
    VLLog(VLLogLevelError, kCategory, "Hit error when trying to load the contents of '%@': %@",
          path, listing.localizedDescription());
    vl::setError(error, listing);
  }
  return names;
}

// Copies a file or a whole directory; links inside a copied directory stay links.
bool copyItem(const std::string& from, const std::string& to, vl::Error* error) {
  std::error_code failure;
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, failure);
  if (!failure) return true;
  vl::setError(error, posixError(failure.value(), vl::format("Could not copy %s to %s", from, to)));
  return false;
}

// rename(2) where it can; across file systems a copy followed by removing the original.
bool moveItem(const std::string& from, const std::string& to, vl::Error* error) {
  if (::rename(from.c_str(), to.c_str()) == 0) return true;
  if (errno != EXDEV) {
    vl::setError(error, posixError(errno, vl::format("Could not move %s to %s", from, to)));
    return false;
  }
  if (!copyItem(from, to, error)) return false;
  std::error_code failure;
  fs::remove_all(from, failure);
  if (!failure) return true;
  vl::setError(error, posixError(failure.value(), vl::format("Could not remove %s", from)));
  return false;
}

// The periodic copies run on one low-priority queue of their own, shared by every timer.
std::shared_ptr<vl::SerialQueue> backgroundQueue() {
  static std::shared_ptr<vl::SerialQueue>* queue = [] {
    auto* made = new std::shared_ptr<vl::SerialQueue>(
        std::make_shared<vl::SerialQueue>("com.brindle.vorlund.sync-folders"));
    // setpriority with PRIO_PROCESS and a thread id changes only that thread on Linux.
    (*made)->async(
        [] { ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kBackgroundNice); });
    return made;
  }();
  return *queue;
}

// Every periodic copy not yet cancelled. A timer source lives until it is cancelled, not only while
// the registry holds it: a timer replaced in FUTimerManager keeps firing from here.
struct LiveTimers {
  std::mutex mutex;
  std::vector<std::pair<std::string, std::shared_ptr<vl::Timer>>> timers;  // key, timer
};

LiveTimers& liveTimers() {
  static LiveTimers* live = new LiveTimers();
  return *live;
}

std::string timerKey(const std::string& directory, const vl::Regex& expression) {
  return directory + expression.pattern();
}

}  // namespace

std::string VLGetSyncRoot(const std::string& base) {
  return vl::paths::join(vl::paths::join(vl::paths::expandTilde(base), VLGetCurrentConfig()),
                         vl::deviceSerialNumber());
}

bool VLAddSyncedDirectoryWithNameAndCreateIfMissing(const std::string& directory,
                                                    const std::string& name, bool create,
                                                    vl::Error* error) {
  const std::string root = VLGetSyncRoot();
  const std::string linkPath = vl::paths::join(root, name);
  VLLog(VLLogLevelInfo, kLinkCategory, "Trying to symlink at %@ from %@", linkPath, directory);
  vl::paths::createDirectories(root);
  switch (kindOf(directory)) {
    case Kind::kMissing:
      VLLog(VLLogLevelError, kCategory, "Directory '%@' does not exist!", directory);
      if (create) {
        VLLog(VLLogLevelNotice, kCategory, "Creating directory '%@' since it doesn't exist",
              directory);
        vl::paths::createDirectories(directory);
      }
      break;
    case Kind::kOther:
      VLLog(VLLogLevelError, kCategory, "'%@' exists, but is not a directory!", directory);
      vl::setError(error, notADirectoryError());
      return false;
    case Kind::kDirectory:
      break;
  }
  vl::setError(error, vl::Error{});
  return makeLink(directory, linkPath, error);
}

bool VLAddSyncedDirectoryWithName(const std::string& directory, const std::string& name,
                                  vl::Error* error) {
  return VLAddSyncedDirectoryWithNameAndCreateIfMissing(directory, name, true, error);
}

std::string VLAddSyncedDirectory(const std::string& directory, vl::Error* error) {
  std::string name = vl::paths::lastComponent(directory);
  std::optional<vl::Dictionary> published = VLGetSyncedDirectories(nullptr);
  if (published && published->contains(name)) {
    VLLog(VLLogLevelError, kCategory,
          "Hit name conflict for '%@', appending current date to try and resolve", name);
    name += vl::format("_%@", vl::dateString(vl::Date::now()));
  }
  VLAddSyncedDirectoryWithNameAndCreateIfMissing(directory, name, true, error);
  return name;
}

std::optional<vl::Dictionary> VLGetSyncedDirectories(vl::Error* error) {
  const std::string root = VLGetSyncRoot();
  std::optional<std::vector<std::string>> names = listFolderLogging(root, error);
  if (!names) return std::nullopt;
  vl::Dictionary published;
  for (const std::string& name : *names) {
    std::error_code failure;
    fs::path target = fs::read_symlink(vl::paths::join(root, name), failure);
    if (!failure) published.set(name, target.string());
  }
  return published;
}

void VLRemoveSyncedDirectory(const std::string& name, vl::Error* error) {
  const std::string path = vl::paths::join(VLGetSyncRoot(), name);
  std::error_code failure;
  // remove_all takes a link away without following it.
  std::uintmax_t removed = fs::remove_all(path, failure);
  if (failure) {
    vl::setError(error, posixError(failure.value(), vl::format("Could not remove %s", path)));
  } else if (removed == 0) {
    vl::setError(error, posixError(ENOENT, vl::format("Could not remove %s", path)));
  }
}

void VLAddSyncedSymlinkedFile(const std::string& file, const std::string& name, vl::Error* error) {
  const std::string linkPath = vl::paths::join(VLGetSyncRoot(), name);
  VLLog(VLLogLevelDebug, kCategory, "Symlink file From: '%@' To: '%@'", file, linkPath);
  makeLink(file, linkPath, error);
}

void VLAddSyncedFile(const std::string& file, const std::string& folderName, bool move,
                     bool deleteAfterSync, vl::Error* error) {
  const std::string base = deleteAfterSync ? kVLSyncAndDeleteFolderBase : kVLSyncFolderBase;
  const std::string folder = vl::paths::join(VLGetSyncRoot(base), folderName);
  switch (kindOf(folder)) {
    case Kind::kMissing:
      VLLog(VLLogLevelNotice, kCategory, "Creating directory '%@' since it doesn't exist", folder);
      vl::paths::createDirectories(folder);
      break;
    case Kind::kOther:
      // The file's path, not the folder's, is the one logged.
      VLLog(VLLogLevelError, kCategory, "'%@' exists, but is not a directory!", file);
      vl::setError(error, notADirectoryError());
      return;
    case Kind::kDirectory:
      break;
  }
  const std::string destination = vl::paths::join(folder, vl::paths::lastComponent(file));
  std::error_code ignored;
  fs::remove_all(destination, ignored);
  VLLog(VLLogLevelNotice, kCategory, "From: '%@' To: '%@'", file, folder);
  if (move) {
    moveItem(file, destination, error);
  } else {
    copyItem(file, destination, error);
  }
}

void VLAddSyncedFilesFromRegularExpression(const std::string& directory,
                                           const vl::Regex& expression,
                                           const std::string& folderName, bool move,
                                           bool deleteAfterSync, vl::Error* error) {
  std::optional<std::vector<std::string>> names = listFolderLogging(directory, error);
  if (!names) return;
  for (const std::string& name : *names) {
    if (!expression.matches(name)) continue;
    const std::string path = vl::paths::join(directory, name);
    vl::Error copying;
    VLAddSyncedFile(path, folderName, move, deleteAfterSync, &copying);
    if (failed(copying)) {
      VLLog(VLLogLevelError, kCategory, "Hit error when trying to copy '%@' to '%@': %@", path,
            folderName, copying.localizedDescription());
      vl::setError(error, copying);
    }
  }
}

void VLPeriodicallyAddSyncedFilesFromRegularExpression(const std::string& directory,
                                                       const vl::Regex& expression,
                                                       const std::string& folderName, bool move,
                                                       bool deleteAfterSync,
                                                       double intervalMinutes) {
  auto copy = [directory, expression, folderName, move, deleteAfterSync] {
    vl::Error error;
    VLAddSyncedFilesFromRegularExpression(directory, expression, folderName, move, deleteAfterSync,
                                          &error);
    if (failed(error)) {
      VLLog(VLLogLevelError, kCategory, "Hit error when trying to copy the contents of '%@': %@",
            directory, error.localizedDescription());
    }
  };
  auto timer = std::make_shared<vl::Timer>(backgroundQueue(), 0.0, intervalMinutes * 60.0,
                                           kVLPeriodicCopyLeewaySeconds, std::move(copy));
  const std::string key = timerKey(directory, expression);
  {
    LiveTimers& live = liveTimers();
    std::lock_guard lock(live.mutex);
    std::erase_if(live.timers, [](const auto& entry) { return entry.second->isCancelled(); });
    live.timers.emplace_back(key, timer);
  }
  FUTimerManager::sharedManager().addTimer(std::move(timer), key);
}

void VLCancelCopyFromDirectoryForRegularExpression(const std::string& directory,
                                                   const vl::Regex& expression) {
  FUTimerManager::sharedManager().cancelTimerForKey(timerKey(directory, expression));
}

void VLCancelAllPeriodicCopies() {
  std::vector<std::pair<std::string, std::shared_ptr<vl::Timer>>> timers;
  {
    LiveTimers& live = liveTimers();
    std::lock_guard lock(live.mutex);
    timers.swap(live.timers);
  }
  // Outside the lock: cancel() waits for a running copy.
  for (auto& [key, timer] : timers) {
    timer->cancel();
    FUTimerManager::sharedManager().addTimer(nullptr, key);
  }
}

VLComparisonResult FileSort(const vl::Dictionary& first, const vl::Dictionary& second) {
  const vl::Date* a = first.get(kVLFileCreationDate).asDate();
  const vl::Date* b = second.get(kVLFileCreationDate).asDate();
  if (!a || !b || *a == *b) return VLOrderedSame;
  return *a < *b ? VLOrderedAscending : VLOrderedDescending;
}

std::optional<vl::Dictionary> VLFileAttributes(const std::string& path) {
  struct statx st {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &st) !=
      0) {
    return std::nullopt;
  }
  const statx_timestamp& when = (st.stx_mask & STATX_BTIME) ? st.stx_btime : st.stx_ctime;
  const char* type = S_ISREG(st.stx_mode)   ? "NSFileTypeRegular"
                     : S_ISDIR(st.stx_mode) ? "NSFileTypeDirectory"
                     : S_ISLNK(st.stx_mode) ? "NSFileTypeSymbolicLink"
                                            : "NSFileTypeUnknown";
  return vl::Dictionary{
      {kVLFileCreationDate, vl::Date{static_cast<double>(when.tv_sec) + when.tv_nsec / 1e9}},
      {"NSFileSize", static_cast<uint64_t>(st.stx_size)},
      {"NSFileType", type},
  };
}
