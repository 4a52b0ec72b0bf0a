#include "support/browser.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

extern char** environ;

namespace vl::test {

namespace {

// Chromium's crash handler leaves the process group (it starts a session of its own), so the
// group alone does not find every process of the browser; this environment entry does.
constexpr const char* kMarkerName = "VORLUND_BROWSER_TEST";

// Both ends of a pipe, each closed once, and both when it goes.
struct Pipe {
  int ends[2] = {-1, -1};
  Pipe() = default;
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    closeEnd(0);
    closeEnd(1);
  }
  bool open() { return pipe2(ends, O_CLOEXEC) == 0; }
  void closeEnd(int end) {
    if (ends[end] >= 0) ::close(ends[end]);
    ends[end] = -1;
  }
};

std::string readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The live (not zombie) processes of the browser: in its process group or carrying the marker.
std::vector<pid_t> browserProcesses(pid_t group, const std::string& marker) {
  std::vector<pid_t> found;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", ec)) {
    std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    pid_t pid = std::stoi(name);
    std::string stat = readWhole("/proc/" + name + "/stat");
    size_t close = stat.rfind(')');
    if (pid == getpid() || close == std::string::npos) continue;
    char state = 0;
    int parent = 0, processGroup = 0;
    if (std::sscanf(stat.c_str() + close + 1, " %c %d %d", &state, &parent, &processGroup) != 3 ||
        state == 'Z') {
      continue;
    }
    std::string environment = readWhole("/proc/" + name + "/environ");
    bool marked = environment.find('\0' + marker + '\0') != std::string::npos ||
                  environment.starts_with(marker + '\0');
    if (processGroup == group || marked) found.push_back(pid);
  }
  return found;
}

void killBrowser(pid_t group, const std::string& marker) {
  ::kill(-group, SIGKILL);
  for (pid_t pid : browserProcesses(group, marker)) ::kill(pid, SIGKILL);
}

}  // namespace

bool chromiumAvailable() { return ::access(kChromiumPath, X_OK) == 0; }

BrowserDump dumpDom(const std::string& htmlPath, const std::string& profileDir,
                    std::chrono::milliseconds deadline) {
  static std::atomic<int> launches{0};
  BrowserDump dump;
  std::filesystem::create_directories(profileDir);
  std::string marker =
      std::string(kMarkerName) + "=" + std::to_string(getpid()) + "-" + std::to_string(++launches);
  std::vector<std::string> argv = {kChromiumPath,
                                   "--headless",
                                   "--no-sandbox",
                                   "--disable-gpu",
                                   "--disable-quic",
                                   "--no-first-run",
                                   "--disable-background-networking",
                                   "--disable-component-update",
                                   "--disable-sync",
                                   "--disable-crash-reporter",
                                   "--window-size=1280,1600",
                                   "--user-data-dir=" + profileDir,
                                   "--dump-dom",
                                   "file://" + std::filesystem::absolute(htmlPath).string()};
  std::vector<char*> args, env;
  for (std::string& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  for (char** e = environ; *e; ++e) env.push_back(*e);
  env.push_back(marker.data());
  env.push_back(nullptr);

  Pipe out, err;
  if (!out.open() || !err.open()) return dump;

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out.ends[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err.ends[1], 2);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, args[0], &actions, &attributes, args.data(), env.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  out.closeEnd(1);
  err.closeEnd(1);
  if (rc != 0) {
    dump.log = "cannot start " + std::string(kChromiumPath);
    return dump;
  }

  auto end = std::chrono::steady_clock::now() + deadline;
  bool reaped = false;
  pollfd fds[2] = {{out.ends[0], POLLIN, 0}, {err.ends[0], POLLIN, 0}};
  std::string* sinks[2] = {&dump.dom, &dump.log};
  while ((fds[0].fd >= 0 || fds[1].fd >= 0) && std::chrono::steady_clock::now() < end) {
    if (poll(fds, 2, 100) > 0) {
      for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        char buffer[65536];
        ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
        if (n > 0) {
          sinks[i]->append(buffer, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
          fds[i].fd = -1;
        }
      }
    }
    int status = 0;
    if (!reaped && waitpid(pid, &status, WNOHANG) == pid) {
      reaped = true;
      dump.finished = true;
      dump.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      // Helpers still holding the pipes would keep them open for ever.
      killBrowser(pid, marker);
    }
  }
  killBrowser(pid, marker);
  if (!reaped) {
    int status = 0;
    waitpid(pid, &status, 0);
    dump.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  // SIGKILL is delivered at once, but the processes go away asynchronously.
  for (int attempt = 0; attempt < 50; ++attempt) {
    dump.survivors = static_cast<int>(browserProcesses(pid, marker).size());
    if (dump.survivors == 0) break;
    killBrowser(pid, marker);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return dump;
}

}  // namespace vl::test
