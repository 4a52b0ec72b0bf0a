// The sync folders: files that should leave the device with a run are gathered under two per-user
// folders that an outside collector picks up, "~/Library/Logs/StressSync/" (kept) and
// "~/Library/Logs/StressSyncAndDelete/" (removed once collected). Within either, a run's files lie
// under the current configuration name and then the device serial number: the sync root.
// Directories are published as symbolic links in the kept root; files are copied or moved in, once
// or periodically by a regular expression. Everything logs under "FileUtilities", except the one
// line of publishing a directory, which logs under "VLFileUtilities".
//
// Functions with an error out parameter clear nothing unless said; on failure they store an
// error (domain "NSPOSIXErrorDomain" with errno as the code for file-system failures).
#pragma once

#include <optional>
#include <string>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/regex.h"
#include "vorlund/foundation/value.h"

// The two bases ("~" expands with $HOME).
inline constexpr const char* kVLSyncFolderBase = "~/Library/Logs/StressSync/";
inline constexpr const char* kVLSyncAndDeleteFolderBase = "~/Library/Logs/StressSyncAndDelete/";
// The error of a path that exists but is not a directory: this domain, code 1, no user info.
inline constexpr const char* kVLNotADirectoryErrorDomain = "Specified path is not a directory";
inline constexpr int64_t kVLNotADirectoryErrorCode = 1;
// How late a periodic copy may come, in seconds.
inline constexpr double kVLPeriodicCopyLeewaySeconds = 60;

// The sync root of the current run under base: the tilde-expanded base, then VLGetCurrentConfig(),
// then the device serial number, as path components. Read afresh on every call.
std::string VLGetSyncRoot(const std::string& base = kVLSyncFolderBase);

// Publishes directory as a symbolic link named name in the kept sync root, creating the root
// first (failures to create it are not reported). A missing directory is logged, created when
// create is true, and linked either way. Returns false with the not-a-directory error when the
// path exists but is not a directory, and false with the link's error when the link cannot be
// made (an item of that name already exists, for one); true (error cleared) when the link was made.
bool VLAddSyncedDirectoryWithNameAndCreateIfMissing(const std::string& directory,
                                                    const std::string& name, bool create,
                                                    vl::Error* error);
// The same with create true.
bool VLAddSyncedDirectoryWithName(const std::string& directory, const std::string& name,
                                  vl::Error* error);
// Publishes directory (created when missing) under its last path component; when a published
// directory already has that name, "_" and the current date string are appended. Returns the
// name used, also when publishing failed (error then tells why).
std::string VLAddSyncedDirectory(const std::string& directory, vl::Error* error);
// The published directories: link name -> link destination, for each symbolic link of the kept
// sync root; other entries are left out. None, with error, when the root cannot be listed.
std::optional<vl::Dictionary> VLGetSyncedDirectories(vl::Error* error);
// Removes the item named name from the kept sync root: the link, never its destination.
void VLRemoveSyncedDirectory(const std::string& name, vl::Error* error);

// Links the kept sync root's entry name to file. The root must exist already.
void VLAddSyncedSymlinkedFile(const std::string& file, const std::string& name, vl::Error* error);
// Copies (or, with move, moves) file into the folder folderName of the sync root, the deleting
// base's root when deleteAfterSync is set, else the kept one. The folder is created when missing;
// a folder path that exists but is not a directory fails with the not-a-directory error. An item
// of the same name already in the folder is replaced. Directories are copied whole.
void VLAddSyncedFile(const std::string& file, const std::string& folderName, bool move,
                     bool deleteAfterSync, vl::Error* error);
// VLAddSyncedFile for every entry of directory (not recursive, in name order) whose name the
// expression matches anywhere. A failed entry is logged and the others still go; error receives
// the listing's failure, or else the last entry's failure.
void VLAddSyncedFilesFromRegularExpression(const std::string& directory,
                                           const vl::Regex& expression,
                                           const std::string& folderName, bool move,
                                           bool deleteAfterSync, vl::Error* error);
// Runs VLAddSyncedFilesFromRegularExpression at once and then every intervalMinutes × 60 seconds
// (scaled by the time scale; leeway kVLPeriodicCopyLeewaySeconds), on the background queue of the
// sync folders, until cancelled. The timer is kept in FUTimerManager under directory followed by
// the expression's pattern. Registering the same key again replaces the registry's entry without
// cancelling the earlier timer, which keeps firing: a timer lives until it is cancelled. An
// interval of 0 copies once; one out of the timer's range (see vl::Timer::isInRange) never
// repeats.
void VLPeriodicallyAddSyncedFilesFromRegularExpression(const std::string& directory,
                                                       const vl::Regex& expression,
                                                       const std::string& folderName, bool move,
                                                       bool deleteAfterSync,
                                                       double intervalMinutes);
// Cancels the periodic copy registered under directory and the expression's pattern (through
// FUTimerManager::cancelTimerForKey, which logs when there is none). When it returns, no copy of
// that timer starts again.
void VLCancelCopyFromDirectoryForRegularExpression(const std::string& directory,
                                                   const vl::Regex& expression);

// Cancels every periodic copy still running, also those whose registry entry a later registration
// replaced, and removes their keys from FUTimerManager: for the end of a run. When it returns no
// periodic copy starts again.
void VLCancelAllPeriodicCopies();

// The creation date in a file-attribute dictionary.
inline constexpr const char* kVLFileCreationDate = "NSFileCreationDate";

// Values explicit: they are the platform's ordering results; never renumber.
enum VLComparisonResult : long {
  VLOrderedAscending = -1,
  VLOrderedSame = 0,
  VLOrderedDescending = 1,
};
// Orders two file-attribute dictionaries by kVLFileCreationDate, oldest first. A dictionary
// without a date orders the same as anything.
VLComparisonResult FileSort(const vl::Dictionary& first, const vl::Dictionary& second);
// The attributes of the item at path (without following a final link): kVLFileCreationDate (the
// birth time where the file system records one, else the change time), "NSFileSize" and
// "NSFileType" ("NSFileTypeRegular", "NSFileTypeDirectory", "NSFileTypeSymbolicLink" or
// "NSFileTypeUnknown"). None when the item cannot be examined.
std::optional<vl::Dictionary> VLFileAttributes(const std::string& path);
