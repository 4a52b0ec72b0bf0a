#include "vorlund/foundation/paths.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace vl::paths {

std::string home() {
  if (const char* h = std::getenv("HOME"); h && *h) return h;
  if (const passwd* pw = getpwuid(geteuid()); pw && pw->pw_dir) return pw->pw_dir;
  return "/";
}

std::string root() {
  if (const char* r = std::getenv("VORLUND_ROOT"); r && *r) return r;
  return "/";
}

std::string expandTilde(std::string_view path) {
  if (path == "~") return home();
  if (path.starts_with("~/")) return join(home(), path.substr(2));
  return std::string(path);
}

std::string resolve(std::string_view path) {
  if (path.starts_with("~")) return expandTilde(path);
  if (!path.starts_with("/")) return std::string(path);
  std::string r = root();
  if (r == "/") return std::string(path);
  return join(r, path.substr(1));
}

std::string lastComponent(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  size_t slash = path.rfind('/');
  if (slash == std::string_view::npos || path == "/") return std::string(path);
  return std::string(path.substr(slash + 1));
}

std::string deletingLastComponent(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return "";
  if (slash == 0) return "/";
  return std::string(path.substr(0, slash));
}

std::string join(std::string_view a, std::string_view b) {
  if (a.empty()) return std::string(b);
  if (b.empty()) return std::string(a);
  std::string out(a);
  while (out.size() > 1 && out.ends_with('/')) out.pop_back();
  while (b.starts_with('/')) b.remove_prefix(1);
  if (!out.ends_with('/')) out += '/';
  return out + std::string(b);
}

bool createDirectories(const std::string& path) {
  if (path.empty()) return true;
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    errno = ENOTDIR;
    return false;
  }
  std::string parent = deletingLastComponent(path);
  if (!parent.empty() && parent != path && !createDirectories(parent)) return false;
  if (::mkdir(path.c_str(), 0755) == 0) return true;
  if (errno != EEXIST) return false;
  // Made meanwhile by someone else, or a file whose name ends in "/" (stat failed above).
  if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
  errno = ENOTDIR;
  return false;
}

bool writeFileAtomically(const std::string& path, std::string_view bytes) {
  std::string folder = deletingLastComponent(path);
  std::string pattern = join(folder.empty() ? "." : folder, "." + lastComponent(path) + ".XXXXXX");
  int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = true;
  size_t written = 0;
  while (ok && written < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0)
      ok = false;
    else
      written += static_cast<size_t>(n);
  }
  ok = ok && ::fchmod(fd, 0644) == 0 && ::fsync(fd) == 0;
  ok = (::close(fd) == 0) && ok;
  if (ok && ::rename(pattern.c_str(), path.c_str()) == 0) return true;
  int saved = errno;
  ::unlink(pattern.c_str());
  errno = saved;
  return false;
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream out;
  out << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return out.str();
}

}  // namespace vl::paths
