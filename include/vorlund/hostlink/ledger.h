// The device's block ledger: an append-only file of JSON blocks, each chained to the one before it
// by its SHA-256, so that a block changed or lost after it was written shows. The ledger session
// (cordex_transform.h) writes through LedgerFile; `vorlundctl ledger show|verify` reads it.
//
// File format: blocks back to back from offset 0, no file header. One block, integers
// little-endian:
//
//   offset   size  field
//   0        4     magic "VLB1"
//   4        4     N: the JSON's length in bytes (at most kLedgerMaxJsonLength)
//   8        8     time written: milliseconds since 1970 (signed)
//   16       32    SHA-256 of the block before (its hash field below); zeros for block 0
//   48       4     header check: the first 4 bytes of the SHA-256 of bytes 0..47
//   52       N     the JSON text (UTF-8), one value
//   52+N     32    the block's hash: SHA-256 of bytes 0..52+N-1 (header and JSON)
//
// A block is appended with one write() of all its bytes followed by fsync, so a power loss leaves
// at worst a torn last block: a prefix of it, or its full length holding other bytes. The header
// check tells a torn or damaged header from one whose length can be trusted; the hash tells a
// complete block from a torn one. Blocks are numbered from 0 in file order.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

namespace vl {

inline constexpr char kLedgerMagic[] = "VLB1";
inline constexpr size_t kLedgerHeaderSize = 52;
inline constexpr size_t kLedgerHashSize = 32;
// A block holds one run's results; anything larger is refused rather than written.
inline constexpr uint32_t kLedgerMaxJsonLength = 64u << 20;
// The ledger's file inside the data directory.
inline constexpr const char* kLedgerFileName = "ledger.blocks";

struct LedgerBlock {
  size_t index = 0;
  uint64_t offset = 0;  // where the block starts in the file
  Date time;
  std::string json;
  std::string hash;          // SHA-256 of header and JSON, 64 lower-case hex digits
  std::string previousHash;  // the hash of the block before; 64 zeros for block 0
  uint64_t length() const { return json.size(); }
};

// What reading a ledger's bytes found. Reading stops at the first bad block: a torn tail (the
// last bytes of the file, which a power loss during an append can leave) or damage (a block that
// is complete but wrong, with more of the file after it). At most one of the two is set.
struct LedgerScan {
  std::vector<LedgerBlock> blocks;  // the good blocks before the first bad one
  uint64_t goodEnd = 0;             // the byte just after the last good block
  struct Bad {
    size_t index;     // the bad block's number
    uint64_t offset;  // where it starts
    std::string reason;
  };
  std::optional<Bad> tornTail;
  std::optional<Bad> damage;
  const Bad* firstBad() const { return damage ? &*damage : tornTail ? &*tornTail : nullptr; }
};

// Reads ledger bytes (a whole file) without changing anything. Never throws. A block counts as
// damaged, not torn, when its hash or its link to the block before is wrong and more bytes follow
// it, when its header is broken and a well-formed header follows somewhere after it, when its
// link to the block before is wrong even as the last block, or when its JSON does not parse though
// its hash holds (no append writes that).
LedgerScan scanLedger(std::string_view bytes);

// The bytes of one block as an append writes them; the JSON's length is not checked. previousHash
// is 64 hex digits (what is missing or not hex counts as zero).
std::string encodeLedgerBlock(std::string_view json, Date time, const std::string& previousHash);

// A ledger file opened for appending. Every append takes an exclusive lock on the file (flock), so
// several processes may append to one ledger; one that finds the file changed since its last
// append reads it again first. The file is never replaced, only appended to and cut. One object
// is used by one thread at a time (the ledger session keeps it on its queue).
class LedgerFile {
 public:
  // Opens (and creates, with its folder) the ledger at path under an exclusive lock, and cuts a
  // torn last block off (ftruncate and fsync; logged at level 16 in the category "Cordex"), every
  // earlier block kept. A damaged block is left as it is and logged; appends are then refused.
  // nullptr, with error, when the file cannot be opened, read or cut.
  static std::unique_ptr<LedgerFile> open(const std::string& path, Error* error = nullptr);
  ~LedgerFile();
  LedgerFile(const LedgerFile&) = delete;
  LedgerFile& operator=(const LedgerFile&) = delete;

  // Appends one block holding json, timed now, in one write followed by fsync. Returns the written
  // block; none, with error, when the ledger is damaged, json is longer than kLedgerMaxJsonLength,
  // or the write or fsync fails (a partly written block is cut off again before returning).
  std::optional<LedgerBlock> append(std::string_view json, Error* error = nullptr);

  const std::string& path() const { return path_; }
  // The number of good blocks as of the last open or append.
  size_t blockCount() const { return count_; }
  // The damage found by the last open or append, if any.
  const std::optional<LedgerScan::Bad>& damage() const { return damage_; }

 private:
  LedgerFile(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}
  // Reads the whole file under the held lock, cuts a torn tail and takes over the scan's state.
  bool reload(Error* error);

  std::string path_;
  int fd_;
  size_t count_ = 0;
  uint64_t end_ = 0;
  std::string lastHash_;
  std::optional<LedgerScan::Bad> damage_;
};

// Reads the ledger at path under a shared lock, changing nothing (a torn tail stays, reported).
// None, with error, when the file cannot be opened or read.
std::optional<LedgerScan> readLedgerFile(const std::string& path, Error* error = nullptr);

}  // namespace vl
