// The block file: reading its bytes into blocks, appending one block with one write, and cutting
// the torn last block that a power loss mid-append leaves.
#include "vorlund/hostlink/ledger.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>

#include "vorlund/foundation/format.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/logging/log.h"

namespace vl {
namespace {

constexpr const char* kCordexCategory = "Cordex";
constexpr size_t kMagicSize = 4;
constexpr size_t kHeaderCheckOffset = 48;
constexpr size_t kHeaderCheckSize = 4;
constexpr size_t kPreviousHashOffset = 16;

using Digest = std::string;  // kLedgerHashSize raw bytes

Digest sha256(std::string_view bytes) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), out, &size, EVP_sha256(), nullptr) != 1) return {};
  return Digest(reinterpret_cast<const char*>(out), size);
}

std::string hex(std::string_view raw) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(raw.size() * 2);
  for (unsigned char c : raw) {
    text.push_back(kDigits[c >> 4]);
    text.push_back(kDigits[c & 15]);
  }
  return text;
}

int nibble(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 0;
}

// The raw digest of 64 hex digits; what is missing or not a digit counts as zero.
Digest unhex(const std::string& text) {
  Digest raw(kLedgerHashSize, '\0');
  for (size_t i = 0; i < kLedgerHashSize && 2 * i + 1 < text.size(); ++i) {
    raw[i] = static_cast<char>(nibble(text[2 * i]) << 4 | nibble(text[2 * i + 1]));
  }
  return raw;
}

uint64_t readLittle(std::string_view bytes, size_t offset, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i)
    value |= uint64_t(static_cast<unsigned char>(bytes[offset + i])) << (8 * i);
  return value;
}

void appendLittle(std::string& out, uint64_t value, size_t size) {
  for (size_t i = 0; i < size; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
}

// Whether bytes holds a well-formed header at offset: magic and header check.
bool headerHolds(std::string_view bytes, size_t offset) {
  if (bytes.size() - offset < kLedgerHeaderSize) return false;
  if (bytes.compare(offset, kMagicSize, kLedgerMagic) != 0) return false;
  Digest check = sha256(bytes.substr(offset, kHeaderCheckOffset));
  return check.size() == kLedgerHashSize &&
         bytes.compare(offset + kHeaderCheckOffset, kHeaderCheckSize, check, 0, kHeaderCheckSize) ==
             0;
}

// Whether a well-formed header starts anywhere after offset: then a broken header at offset is
// damage inside the file, not a torn tail.
bool headerFollows(std::string_view bytes, size_t offset) {
  for (size_t at = bytes.find(kLedgerMagic, offset + 1); at != std::string_view::npos;
       at = bytes.find(kLedgerMagic, at + 1)) {
    if (headerHolds(bytes, at)) return true;
  }
  return false;
}

struct ScopedFd {
  int fd = -1;
  ~ScopedFd() {
    if (fd >= 0) ::close(fd);
  }
};

Error ioError(const std::string& what, const std::string& path, int code) {
  return Error::withDescription(
      "NSPOSIXErrorDomain", code,
      vl::format("%s %s: %s", what.c_str(), path.c_str(), std::strerror(code)));
}

// Reads the whole file from offset 0 with pread (the descriptor may be in append mode).
bool readAll(int fd, const std::string& path, std::string* out, Error* error) {
  out->clear();
  char buffer[1 << 16];
  for (off_t offset = 0;;) {
    ssize_t n = ::pread(fd, buffer, sizeof buffer, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      setError(error, ioError("cannot read", path, errno));
      return false;
    }
    if (n == 0) return true;
    out->append(buffer, static_cast<size_t>(n));
    offset += n;
  }
}

// flock that waits through signals.
bool lockFile(int fd, int operation) {
  while (::flock(fd, operation) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

struct Unlock {
  int fd;
  ~Unlock() { ::flock(fd, LOCK_UN); }
};

}  // namespace

std::string encodeLedgerBlock(std::string_view json, Date time, const std::string& previousHash) {
  std::string block;
  block.reserve(kLedgerHeaderSize + json.size() + kLedgerHashSize);
  block.append(kLedgerMagic, kMagicSize);
  appendLittle(block, json.size(), 4);
  appendLittle(block, static_cast<uint64_t>(std::llround(time.secondsSince1970 * 1000)), 8);
  block += unhex(previousHash);
  block += sha256(block).substr(0, kHeaderCheckSize);
  block.append(json);
  block += sha256(block);
  return block;
}

LedgerScan scanLedger(std::string_view bytes) {
  LedgerScan scan;
  std::string previous = hex(Digest(kLedgerHashSize, '\0'));
  size_t offset = 0;
  while (offset < bytes.size()) {
    const size_t index = scan.blocks.size();
    auto torn = [&](const char* reason) { scan.tornTail = LedgerScan::Bad{index, offset, reason}; };
    auto damaged = [&](const char* reason) {
      scan.damage = LedgerScan::Bad{index, offset, reason};
    };
    if (bytes.size() - offset < kLedgerHeaderSize) {
      torn("the file ends inside its header");
      break;
    }
    if (!headerHolds(bytes, offset)) {
      if (headerFollows(bytes, offset)) {
        damaged("its header is broken");
      } else {
        torn("its header is broken and no block follows");
      }
      break;
    }
    const uint64_t jsonLength = readLittle(bytes, offset + kMagicSize, 4);
    const uint64_t size = kLedgerHeaderSize + jsonLength + kLedgerHashSize;
    if (jsonLength > kLedgerMaxJsonLength) {
      damaged("its length is over the limit");
      break;
    }
    if (bytes.size() - offset < size) {
      torn("the file ends inside it");
      break;
    }
    const std::string_view block = bytes.substr(offset, size);
    const Digest hash = sha256(block.substr(0, size - kLedgerHashSize));
    const bool last = offset + size == bytes.size();
    if (block.substr(size - kLedgerHashSize) != hash) {
      if (last) {
        torn("its hash does not match its contents");
      } else {
        damaged("its hash does not match its contents");
      }
      break;
    }
    LedgerBlock parsed;
    parsed.index = index;
    parsed.offset = offset;
    parsed.previousHash = hex(block.substr(kPreviousHashOffset, kLedgerHashSize));
    if (parsed.previousHash != previous) {
      damaged(index == 0 ? "the first block names a block before it"
                         : "it does not follow the block before it");
      break;
    }
    parsed.json = std::string(block.substr(kLedgerHeaderSize, jsonLength));
    if (!json::parse(parsed.json)) {
      damaged("its JSON does not parse");
      break;
    }
    parsed.time = Date{static_cast<double>(static_cast<int64_t>(readLittle(block, 8, 8))) / 1000};
    parsed.hash = hex(hash);
    previous = parsed.hash;
    offset += size;
    scan.goodEnd = offset;
    scan.blocks.push_back(std::move(parsed));
  }
  return scan;
}

std::unique_ptr<LedgerFile> LedgerFile::open(const std::string& path, Error* error) {
  paths::createDirectories(paths::deletingLastComponent(path));
  bool created = ::access(path.c_str(), F_OK) != 0;
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    setError(error, ioError("cannot open", path, errno));
    return nullptr;
  }
  std::unique_ptr<LedgerFile> file(new LedgerFile(path, fd));
  if (created) {
    // The new file's name must survive a power loss as well as its first block.
    ScopedFd folder{
        ::open(paths::deletingLastComponent(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (folder.fd >= 0) ::fsync(folder.fd);
  }
  if (!lockFile(fd, LOCK_EX)) {
    setError(error, ioError("cannot lock", path, errno));
    return nullptr;
  }
  Unlock unlock{fd};
  if (!file->reload(error)) return nullptr;
  return file;
}

LedgerFile::~LedgerFile() { ::close(fd_); }

bool LedgerFile::reload(Error* error) {
  std::string bytes;
  if (!readAll(fd_, path_, &bytes, error)) return false;
  LedgerScan scan = scanLedger(bytes);
  if (scan.tornTail) {
    if (::ftruncate(fd_, static_cast<off_t>(scan.goodEnd)) != 0 || ::fsync(fd_) != 0) {
      setError(error, ioError("cannot cut the torn last block of", path_, errno));
      return false;
    }
    VLLog(VLLogLevelError, kCordexCategory,
          "Ledger %@: cut torn block %zu at byte %llu (%@), %zu earlier blocks kept", path_,
          scan.tornTail->index, static_cast<unsigned long long>(scan.tornTail->offset),
          scan.tornTail->reason, scan.blocks.size());
  }
  if (scan.damage && (!damage_ || damage_->index != scan.damage->index)) {
    VLLog(VLLogLevelError, kCordexCategory,
          "Ledger %@ is damaged at block %zu (%@); nothing more is appended to it", path_,
          scan.damage->index, scan.damage->reason);
  }
  damage_ = scan.damage;
  count_ = scan.blocks.size();
  end_ = scan.goodEnd;
  lastHash_ = scan.blocks.empty() ? hex(Digest(kLedgerHashSize, '\0')) : scan.blocks.back().hash;
  return true;
}

std::optional<LedgerBlock> LedgerFile::append(std::string_view json, Error* error) {
  if (json.size() > kLedgerMaxJsonLength) {
    setError(error, Error::withReason(vl::format("A block of %zu bytes is over the limit of %u",
                                                 json.size(), kLedgerMaxJsonLength)));
    return std::nullopt;
  }
  if (!lockFile(fd_, LOCK_EX)) {
    setError(error, ioError("cannot lock", path_, errno));
    return std::nullopt;
  }
  Unlock unlock{fd_};
  struct stat status {};
  if (::fstat(fd_, &status) != 0) {
    setError(error, ioError("cannot inspect", path_, errno));
    return std::nullopt;
  }
  // Another process appended (or cut) since: take its blocks into the chain first.
  if (static_cast<uint64_t>(status.st_size) != end_ && !reload(error)) return std::nullopt;
  if (damage_) {
    setError(error,
             Error::withReason(vl::format("The ledger %s is damaged at block %zu: %s",
                                          path_.c_str(), damage_->index, damage_->reason.c_str())));
    return std::nullopt;
  }
  const Date now = Date::now();
  const std::string block = encodeLedgerBlock(json, now, lastHash_);
  ssize_t written;
  do {
    written = ::write(fd_, block.data(), block.size());
  } while (written < 0 && errno == EINTR);
  const int writeErrno = errno;
  if (written != static_cast<ssize_t>(block.size()) || ::fsync(fd_) != 0) {
    int code = written < 0                                     ? writeErrno
               : written != static_cast<ssize_t>(block.size()) ? ENOSPC
                                                               : errno;
    // Whatever part reached the file would read as a torn block: take it back now.
    if (::ftruncate(fd_, static_cast<off_t>(end_)) == 0) ::fsync(fd_);
    setError(error, ioError("cannot append a block to", path_, code));
    return std::nullopt;
  }
  LedgerBlock appended;
  appended.index = count_;
  appended.offset = end_;
  appended.time = Date{static_cast<double>(std::llround(now.secondsSince1970 * 1000)) / 1000};
  appended.json = std::string(json);
  appended.previousHash = lastHash_;
  appended.hash = hex(std::string_view(block).substr(block.size() - kLedgerHashSize));
  lastHash_ = appended.hash;
  end_ += block.size();
  ++count_;
  return appended;
}

std::optional<LedgerScan> readLedgerFile(const std::string& path, Error* error) {
  ScopedFd fd{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (fd.fd < 0) {
    setError(error, ioError("cannot open", path, errno));
    return std::nullopt;
  }
  // A shared lock keeps an append in progress from reading as a torn tail.
  if (!lockFile(fd.fd, LOCK_SH)) {
    setError(error, ioError("cannot lock", path, errno));
    return std::nullopt;
  }
  Unlock unlock{fd.fd};
  std::string bytes;
  if (!readAll(fd.fd, path, &bytes, error)) return std::nullopt;
  return scanLedger(bytes);
}

}  // namespace vl
