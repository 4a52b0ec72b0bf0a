// vorlundctl aggregate on the recorded fleet of tests/testdata/fleet: the summary as text and as
// JSON checked against the devices' own files, the refusals that must not wait, and --watch, run as
// a real process in a group of its own, printing again when a fourth device's file arrives and
// leaving with status 0 on SIGTERM.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tools/ctl.h"
#include "vorlund/foundation/property_list.h"

extern char** environ;

namespace vl {
namespace {

namespace fs = std::filesystem;
using test::ctl;

const std::string kFleet = std::string(VORLUND_TESTDATA_DIR) + "/fleet";

std::vector<fs::path> recorded(const char* folder) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(kFleet + "/" + folder)) files.push_back(entry);
  std::sort(files.begin(), files.end());
  return files;
}

// Copies the recorded devices' files into dir: unsorted into dir itself, as a person drops them,
// or into the layout's folders, as a collector fills a folder that is being watched.
void dropFleet(const std::string& dir, bool sorted = false) {
  for (const char* folder : {"Plists", "Databases"}) {
    const std::string target = sorted ? dir + "/" + folder : dir;
    fs::create_directories(target);
    for (const fs::path& file : recorded(folder))
      fs::copy_file(file, target + "/" + file.filename().string());
  }
}

// vorlundctl as a long-running child: its own process group, standard output read line by line
// with a deadline. The group is killed and reaped when the test ends, whatever happened.
class Watcher {
 public:
  explicit Watcher(std::vector<std::string> args) {
    args.insert(args.begin(), VORLUNDCTL_PATH);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, argv[0], &actions, &attributes, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(out[1]);
    out_ = out[0];
  }
  ~Watcher() {
    if (pid_ > 0) {
      kill(-pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) close(out_);
  }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  bool started() const { return pid_ > 0; }
  // The next whole line of output; none after 20 s or at the end of the output.
  std::optional<std::string> nextLine() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (true) {
      if (size_t end = buffer_.find('\n'); end != std::string::npos) {
        std::string line = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return line;
      }
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd fd{out_, POLLIN, 0};
      if (left.count() <= 0 || poll(&fd, 1, static_cast<int>(left.count())) <= 0) return {};
      char chunk[4096];
      ssize_t n = read(out_, chunk, sizeof chunk);
      if (n <= 0) return {};
      buffer_.append(chunk, static_cast<size_t>(n));
    }
  }
  // Sends signal and returns the exit status (-1 when it was killed or took over 20 s).
  int stop(int signal) {
    kill(pid_, signal);
    for (int i = 0; i < 2000; ++i) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      usleep(10000);
    }
    return -1;
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  std::string buffer_;
};

TEST(VorlundctlAggregateTest, SummarisesAFleetFolderAsTextAndJson) {
  test::Sandbox sandbox;
  const std::string fleet = sandbox.path("fleet");
  dropFleet(fleet);

  auto text = ctl({"aggregate", fleet});
  ASSERT_EQ(text.exitStatus, 0) << text.err;
  EXPECT_NE(text.out.find("3 device(s): FLEET0001, FLEET0002, FLEET0003\n"), std::string::npos)
      << text.out;
  EXPECT_EQ(recorded("Plists").size(), 3u);
  EXPECT_TRUE(fs::exists(fleet + "/Aggregated.plist"));
  EXPECT_EQ(std::distance(fs::directory_iterator(fleet + "/Plists"), fs::directory_iterator()), 3);

  auto shown = ctl({"aggregate", fleet, "--json"});
  ASSERT_EQ(shown.exitStatus, 0) << shown.err;
  nlohmann::json json = nlohmann::json::parse(shown.out);
  EXPECT_EQ(json["devices"], nlohmann::json({"FLEET0001", "FLEET0002", "FLEET0003"}));
  EXPECT_EQ(json["mergedResults"], 3);
  for (const char* figure : {"QI", "estimatedQI", "testCaseQI", "runTime"})
    EXPECT_TRUE(json[figure].is_number()) << figure << " " << json[figure];
  // Per test case, instances and failures add up over the devices' own results files.
  int64_t instances = 0, failures = 0;
  for (const fs::path& file : recorded("Plists")) {
    Dictionary run = *plist::readDictionary(file);
    const Dictionary& ping =
        *run.get("TestCases").asDictionary()->get("WiFi Ping Gateway").asDictionary();
    instances += ping.get("Instances").int64Or(0);
    failures +=
        std::llround(ping.get("FailureRate").doubleOr(0) * ping.get("Instances").int64Or(0));
  }
  bool found = false;
  for (const auto& row : json["testCases"]) {
    if (row["name"] != "WiFi Ping Gateway") continue;
    found = true;
    EXPECT_EQ(row["instances"], instances) << row;
    EXPECT_EQ(row["failures"], failures) << row;
  }
  EXPECT_TRUE(found) << shown.out;
}

TEST(VorlundctlAggregateTest, RefusesAMissingOrEmptyFolderAtOnce) {
  test::Sandbox sandbox;
  const std::string empty = sandbox.path("empty");
  fs::create_directories(empty + "/Plists");
  test::writeFile(empty + "/Aggregated.plist", "not a device");
  struct Case {
    std::string dir;
    std::string message;
  };
  for (const Case& c : {Case{sandbox.path("missing"), "no such folder"},
                        Case{empty, "no results file in " + empty}}) {
    // Without --watch nothing waits for the first results file: the command returns.
    auto refused = ctl({"aggregate", c.dir});
    EXPECT_EQ(refused.exitStatus, 1) << c.dir;
    EXPECT_NE(refused.err.find(c.message), std::string::npos) << refused.err;
    EXPECT_TRUE(refused.out.empty()) << refused.out;
  }
}

TEST(VorlundctlAggregateTest, WatchPrintsAgainForEveryNewDeviceUntilSigterm) {
  test::Sandbox sandbox;
  test::ScopedEnv scale("VORLUND_TIME_SCALE", "0.02");
  const std::string fleet = sandbox.path("fleet");
  fs::create_directories(fleet);
  Watcher watcher({"aggregate", fleet, "--watch", "--json"});
  ASSERT_TRUE(watcher.started());
  auto waiting = watcher.nextLine();
  ASSERT_TRUE(waiting);
  EXPECT_NE(waiting->find("waiting for results files in " + fleet), std::string::npos) << *waiting;

  dropFleet(fleet, true);
  std::vector<std::string> devices;
  // Files arriving one by one may make several refreshes; the last shows all three devices.
  while (devices.size() < 3) {
    auto line = watcher.nextLine();
    ASSERT_TRUE(line) << "no summary of three devices";
    devices = nlohmann::json::parse(*line)["devices"].get<std::vector<std::string>>();
  }

  // A fourth device: one of the recorded runs under another serial number, moved in whole.
  Dictionary run = *plist::readDictionary(recorded("Plists")[0]);
  Dictionary hardware = *run.get("Hardware Info").asDictionary();
  hardware.set("SerialNumber", "FLEET0004");
  run.set("Hardware Info", Value(hardware));
  ASSERT_TRUE(plist::writeFile(Value(run), sandbox.path("fourth.plist")));
  fs::rename(sandbox.path("fourth.plist"), fleet + "/Plists/VorlundResults_wifi_FLEET0004.plist");
  // Refreshes for the first three may still be queued (each file can end more than one write),
  // so the summaries are read until the fourth device shows.
  nlohmann::json json;
  while (json["devices"].size() < 4) {
    auto line = watcher.nextLine();
    ASSERT_TRUE(line) << "no summary of four devices";
    json = nlohmann::json::parse(*line);
  }
  EXPECT_EQ(json["devices"], nlohmann::json({"FLEET0001", "FLEET0002", "FLEET0003", "FLEET0004"}));
  EXPECT_EQ(json["mergedResults"], 4);

  EXPECT_EQ(watcher.stop(SIGTERM), 0);
}

}  // namespace
}  // namespace vl
