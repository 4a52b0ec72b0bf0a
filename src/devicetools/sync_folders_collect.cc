#include "vorlund/devicetools/sync_folders_collect.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "vorlund/devicetools/sync_folders.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/paths.h"

namespace {

constexpr size_t kChunkBytes = 1 << 16;

class ScopedFd {
 public:
  explicit ScopedFd(int fd) : fd_(fd) {}
  ~ScopedFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  int get() const { return fd_; }
  // Closes now, so that a failure of the last write that close reports is seen.
  bool close() {
    int fd = std::exchange(fd_, -1);
    return fd < 0 || ::close(fd) == 0;
  }

 private:
  int fd_;
};

struct DigestDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

class Sha256 {
 public:
  Sha256() : context_(EVP_MD_CTX_new()) {
    ok_ = context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1;
  }
  void update(const char* bytes, size_t size) {
    ok_ = ok_ && EVP_DigestUpdate(context_.get(), bytes, size) == 1;
  }
  // Lower-case hex; empty when the digest could not be computed.
  std::string hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!ok_ || EVP_DigestFinal_ex(context_.get(), digest, &length) != 1) return "";
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
      text += kHex[digest[i] >> 4];
      text += kHex[digest[i] & 0xf];
    }
    return text;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, DigestDeleter> context_;
  bool ok_ = false;
};

std::string errnoText(const char* what, const std::string& path) {
  return vl::format("%s %s: %s", what, path, std::strerror(errno));
}

bool writeAll(int fd, const char* bytes, size_t size) {
  while (size > 0) {
    ssize_t written = ::write(fd, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

// Copies from to to, hashing the bytes read. Returns the reason of a failure (and leaves no partial
// copy behind), or empty.
std::string copyHashing(const std::string& from, const std::string& to, uint64_t* size,
                        std::string* digest) {
  ScopedFd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (in.get() < 0) return errnoText("cannot read", from);
  std::error_code ignored;
  std::filesystem::create_directories(vl::paths::deletingLastComponent(to), ignored);
  ScopedFd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (out.get() < 0) return errnoText("cannot create", to);
  Sha256 hash;
  std::vector<char> buffer(kChunkBytes);
  std::string failure;
  *size = 0;
  for (;;) {
    ssize_t got = ::read(in.get(), buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      failure = errnoText("cannot read", from);
      break;
    }
    if (got == 0) break;
    if (!writeAll(out.get(), buffer.data(), static_cast<size_t>(got))) {
      failure = errnoText("cannot write", to);
      break;
    }
    hash.update(buffer.data(), static_cast<size_t>(got));
    *size += static_cast<uint64_t>(got);
  }
  if (failure.empty() && (::fsync(out.get()) != 0 || !out.close())) {
    failure = errnoText("cannot write", to);
  }
  if (failure.empty()) *digest = hash.hex();
  if (failure.empty() && digest->empty()) failure = "cannot compute SHA-256";
  if (!failure.empty()) ::unlink(to.c_str());
  return failure;
}

// Reads the copy back and compares it with what was read from the source.
std::string verify(const std::string& copy, uint64_t size, const std::string& digest) {
  struct stat st {};
  if (::stat(copy.c_str(), &st) != 0) return errnoText("cannot examine", copy);
  if (static_cast<uint64_t>(st.st_size) != size) {
    return vl::format("size of %s is %lld bytes, not %lld", copy,
                      static_cast<long long>(st.st_size), static_cast<long long>(size));
  }
  if (VLSha256OfFile(copy) != digest)
    return vl::format("SHA-256 of %s differs from its source", copy);
  return "";
}

struct Found {
  std::string path;
  std::string relative;
  bool ownEntry;  // not reached through a linked directory, so the sync folder's to remove
};

using Visited = std::set<std::pair<dev_t, ino_t>>;

void walk(const std::string& folder, const std::string& relative, bool throughLink,
          Visited& visited, std::vector<Found>& found) {
  std::error_code failure;
  std::vector<std::string> names;
  for (std::filesystem::directory_iterator it(folder, failure), end; !failure && it != end;
       it.increment(failure)) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string path = vl::paths::join(folder, name);
    const std::string inner = relative.empty() ? name : vl::paths::join(relative, name);
    struct stat own {};
    struct stat target {};
    if (::lstat(path.c_str(), &own) != 0 || ::stat(path.c_str(), &target) != 0) continue;
    bool link = S_ISLNK(own.st_mode);
    if (S_ISDIR(target.st_mode)) {
      if (visited.insert({target.st_dev, target.st_ino}).second) {
        walk(path, inner, throughLink || link, visited, found);
      }
    } else if (S_ISREG(target.st_mode)) {
      // Pipes and devices are passed over: reading one could block or never end.
      found.push_back({path, inner, !throughLink});
    }
  }
}

void markVisited(const std::string& path, Visited& visited) {
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) visited.insert({st.st_dev, st.st_ino});
}

}  // namespace

std::string VLSha256OfFile(const std::string& path) {
  ScopedFd in(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (in.get() < 0) return "";
  Sha256 hash;
  std::vector<char> buffer(kChunkBytes);
  for (;;) {
    ssize_t got = ::read(in.get(), buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return "";
    if (got == 0) return hash.hex();
    hash.update(buffer.data(), static_cast<size_t>(got));
  }
}

VLCollectionSummary VLCollectSyncedFiles(
    const std::string& destination, const std::function<void(const VLCollectedFile&)>& onFile) {
  VLCollectionSummary summary;
  std::error_code ignored;
  std::filesystem::create_directories(destination, ignored);
  for (const char* base : {kVLSyncFolderBase, kVLSyncAndDeleteFolderBase}) {
    const bool deleting = std::strcmp(base, kVLSyncAndDeleteFolderBase) == 0;
    const std::string root = VLGetSyncRoot(base);
    const std::string expandedBase = vl::paths::expandTilde(base);
    const std::string target =
        vl::paths::join(vl::paths::join(destination, vl::paths::lastComponent(base)),
                        root.substr(std::min(root.size(), expandedBase.size())));
    // A destination inside the sync folders is not collected into itself.
    Visited visited;
    markVisited(root, visited);
    markVisited(destination, visited);
    std::vector<Found> found;
    walk(root, "", false, visited, found);
    for (const Found& entry : found) {
      VLCollectedFile file;
      file.source = entry.path;
      file.destination = vl::paths::join(target, entry.relative);
      std::string digest;
      file.failure = copyHashing(file.source, file.destination, &file.size, &digest);
      if (file.failure.empty()) {
        file.failure = verify(file.destination, file.size, digest);
        if (!file.failure.empty()) ::unlink(file.destination.c_str());
      }
      if (file.failure.empty()) {
        file.sha256 = digest;
        ++summary.copied;
        summary.bytes += file.size;
        if (deleting && entry.ownEntry && ::unlink(file.source.c_str()) == 0) {
          file.removed = true;
          ++summary.removed;
        }
      } else {
        ++summary.failed;
      }
      if (onFile) onFile(file);
    }
  }
  return summary;
}
