// vorlundctl sync: publishes directories and files into this user's sync folders for the current
// configuration, lists and removes published directories, and collects everything published into
// a folder so that a run's files can be taken off the device.
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "commands.h"
#include "vorlund/devicetools/sync_folders.h"
#include "vorlund/devicetools/sync_folders_collect.h"

namespace vorlundctl {

namespace {

// A link must name its destination absolutely to mean the same from the sync folder.
std::string absolutePath(const std::string& path) {
  std::error_code failure;
  std::filesystem::path absolute = std::filesystem::absolute(path, failure);
  return failure ? path : absolute.lexically_normal().string();
}

void throwOnError(const vl::Error& error, const std::string& what) {
  if (!error.domain.empty()) throw UsageFailure(what + ": " + error.localizedDescription());
}

void printCollected(const VLCollectedFile& file) {
  if (file.failure.empty()) {
    std::printf("copied %s -> %s (%llu bytes, sha256 %s)%s\n", file.source.c_str(),
                file.destination.c_str(), static_cast<unsigned long long>(file.size),
                file.sha256.c_str(), file.removed ? ", source removed" : "");
  } else {
    std::printf("FAILED %s: %s (source kept)\n", file.source.c_str(), file.failure.c_str());
  }
  std::fflush(stdout);
}

}  // namespace

void addSyncCommand(CLI::App& app) {
  auto* sync = app.add_subcommand("sync", "Publish files into the sync folders and collect them");
  sync->require_subcommand(1);

  static std::string addDirectory, addName;
  auto* add = sync->add_subcommand("add", "Publish a directory (created when missing) by a link");
  add->add_option("DIR", addDirectory, "The directory to publish")->required();
  add->add_option("--name", addName, "The published name (default: the directory's own name)");
  setAction(add, [] {
    vl::Error error;
    std::string directory = absolutePath(addDirectory);
    std::string name = addName;
    if (name.empty()) {
      name = VLAddSyncedDirectory(directory, &error);
    } else {
      VLAddSyncedDirectoryWithName(directory, name, &error);
    }
    throwOnError(error, "cannot publish " + directory);
    std::printf("published %s -> %s\n", name.c_str(), directory.c_str());
    return 0;
  });

  auto* list = sync->add_subcommand("list", "List the published directories: NAME -> DIR");
  setAction(list, [] {
    vl::Error error;
    std::optional<vl::Dictionary> published = VLGetSyncedDirectories(&error);
    // No sync root yet means nothing is published.
    if (!published && !(error.domain == "NSPOSIXErrorDomain" && error.code == ENOENT)) {
      throwOnError(error, "cannot list " + VLGetSyncRoot());
    }
    for (size_t i = 0; published && i < published->size(); ++i) {
      auto [name, destination] = published->entry(i);
      std::printf("%s -> %s\n", name.c_str(), destination.stringOr("").c_str());
    }
    return 0;
  });

  static std::string removeName;
  auto* remove = sync->add_subcommand("remove", "Withdraw a published directory (the link only)");
  remove->add_option("NAME", removeName, "The published name")->required();
  setAction(remove, [] {
    vl::Error error;
    VLRemoveSyncedDirectory(removeName, &error);
    throwOnError(error, "cannot remove " + removeName);
    std::printf("removed %s\n", removeName.c_str());
    return 0;
  });

  static std::string file, folder;
  static bool move = false, deleteAfterSync = false;
  auto* fileCommand = sync->add_subcommand("file", "Copy (or move) a file into a sync folder");
  fileCommand->add_option("FILE", file, "The file to publish")->required();
  fileCommand->add_option("FOLDER", folder, "The folder under the sync root")->required();
  fileCommand->add_flag("--move", move, "Move the file instead of copying it");
  fileCommand->add_flag("--delete", deleteAfterSync,
                        "Into the folder whose files are removed once collected");
  setAction(fileCommand, [] {
    vl::Error error;
    VLAddSyncedFile(absolutePath(file), folder, move, deleteAfterSync, &error);
    throwOnError(error, "cannot publish " + file);
    std::string root =
        VLGetSyncRoot(deleteAfterSync ? kVLSyncAndDeleteFolderBase : kVLSyncFolderBase);
    std::printf("%s %s into %s/%s\n", move ? "moved" : "copied", file.c_str(), root.c_str(),
                folder.c_str());
    return 0;
  });

  static std::string destination;
  auto* collect = sync->add_subcommand(
      "collect",
      "Copy everything published into DEST, verified; then remove the delete-after-sync files");
  collect->add_option("--to", destination, "The folder to collect into")->required();
  setAction(collect, [] {
    VLCollectionSummary summary = VLCollectSyncedFiles(absolutePath(destination), printCollected);
    std::printf("collected %zu files (%llu bytes), %zu failed, %zu removed\n", summary.copied,
                static_cast<unsigned long long>(summary.bytes), summary.failed, summary.removed);
    return summary.failed == 0 ? 0 : 1;
  });
}

}  // namespace vorlundctl
