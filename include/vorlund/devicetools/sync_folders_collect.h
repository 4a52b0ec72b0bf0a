// Taking a run's files off the device: what the outside collector of the sync folders does. Every
// file under the current run's sync roots (sync_folders.h) is copied into a destination folder and
// verified there (size and SHA-256 of the bytes read back); only a verified file of the deleting
// base is then removed, so a failed copy always keeps its source.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

// What became of one file.
struct VLCollectedFile {
  std::string source;       // the path under the sync root
  std::string destination;  // DEST/<base folder name>/<configuration>/<serial>/<relative path>
  uint64_t size = 0;        // bytes copied
  std::string sha256;       // lower-case hex digest of the copy; empty when the copy failed
  std::string failure;      // why the copy failed; empty when it was verified
  bool removed = false;     // the source was removed (a verified file of the deleting base)
};

struct VLCollectionSummary {
  size_t copied = 0;
  size_t failed = 0;
  size_t removed = 0;
  uint64_t bytes = 0;
};

// Collects both sync roots of the current run into destination (created when missing): the kept
// base into destination/StressSync/..., the deleting base into destination/StressSyncAndDelete/...
// Published links are followed, into directories too, each directory once (a link back to an
// ancestor does not loop); a dangling link is passed over. Files reached through a linked
// directory and link targets are never removed: only the deleting base's own entries are. A
// destination already holding a file of that path is overwritten. onFile, when given, hears of
// each file as soon as it is done, in a stable order (kept base first, names sorted). A missing
// sync root collects nothing. Never throws.
VLCollectionSummary VLCollectSyncedFiles(const std::string& destination,
                                         const std::function<void(const VLCollectedFile&)>& onFile);

// The SHA-256 of the file's bytes as lower-case hex, or empty when it cannot be read.
std::string VLSha256OfFile(const std::string& path);
