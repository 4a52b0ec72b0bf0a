// Memory diagnostics: the named tools as fake scripts on PATH, the Linux equivalents over the real
// /proc of a child process, and the parsers over recorded texts.
#include "vorlund/devicetools/memory_diagnostics.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>

#include "devicetools/fake_tools.h"
#include "devicetools/processes.h"
#include "support/test_support.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

using test::FakeTools;

// A command name no other process has, also none of a test running beside this one.
const std::string kSleeperName = "mdsleep" + std::to_string(getpid());
const char* const kSleeper = kSleeperName.c_str();

std::string testdata(const std::string& name) {
  return test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/" + name);
}

// A sleeping child under a name of its own; the task kills and reaps it when it is dropped.
class Sleeper {
 public:
  explicit Sleeper(const test::TempDir& dir) {
    std::filesystem::copy_file("/bin/sleep", dir.file(kSleeper));
    task_ = VLCreateBashCommand("exec " + dir.file(kSleeper) + " 60");
    EXPECT_TRUE(task_->launch());
    // The name shows once the child has run exec; its memory stays still only once the loader is
    // done and it sleeps ("S" in its stat line, after the parenthesised name).
    test::eventually([&] {
      const std::string stat = test::readFile(format("/proc/%d/stat", pid()));
      return test::readFile(format("/proc/%d/comm", pid())) == kSleeperName + "\n" &&
             stat.find(") S ") != std::string::npos;
    });
  }
  int pid() const { return task_->processIdentifier(); }

 private:
  std::shared_ptr<Task> task_;
};

// A device with a model, a build and a serial number, and a run that started at 00:05:09.
class MemoryDiagnosticsTest : public ::testing::Test {
 protected:
  MemoryDiagnosticsTest() {
    test::writeFile(sandbox_.root() + "/sys/class/dmi/id/product_name", "Board X\n");
    test::writeFile(sandbox_.root() + "/etc/os-release", "VERSION_ID=\"12\"\n");
    // Folders name the start on a twelve-hour clock: 00:05:09 is "120509".
    devicetools::setRunStartTimeSource([] {
      std::tm local{};
      strptime("2026-03-04 00:05:09", "%Y-%m-%d %H:%M:%S", &local);
      local.tm_isdst = -1;
      return Date(static_cast<double>(std::mktime(&local)));
    });
  }
  ~MemoryDiagnosticsTest() override { devicetools::setRunStartTimeSource({}); }

  std::string folder(const std::string& process, const char* testCase) const {
    return sandbox_.root() + "/var/root/Library/Logs/Vorlund/RingPerfTest/20260304.120509/" +
           process + "/Board_X/12-SpawnID-20260304.120509/SER1/" + testCase;
  }

  test::Sandbox sandbox_;
  test::ScopedEnv serial_{"VORLUND_SERIAL_NUMBER", "SER1"};
  test::TempDir programs_;
};

TEST_F(MemoryDiagnosticsTest, NamedToolsRunAsWrittenAndPortscopeGetsMinusOneForAnAbsentProcess) {
  FakeTools tools;
  // Each tool writes what it was called with; leaks writes the graph file it is given.
  for (const char* tool :
       {"NimbusDebug", "culler_rank", "vm_stat", "kmemtally", "heap", "arenalist", "portscope"}) {
    tools.add(tool, "echo \"$(basename \"$0\") $*\"");
  }
  tools.add("leaks", "echo \"leaks $*\" > \"$3\"");
  Sleeper sleeper(programs_);

  // Every file and what it holds, against tests/testdata/memory/named_tools.txt.
  std::string text;
  for (bool running : {true, false}) {
    const std::string process = running ? kSleeper : "notrunning";
    std::vector<std::string> files =
        VLDumpLogsForMemoryPerfForTestCaseForFolder("IdleLoop", 3, process, 2);
    ASSERT_EQ(files.size(), 8u);
    const std::string base = files[0].substr(0, files[0].size() - strlen("_nimbusdebug.log"));
    EXPECT_EQ(base.rfind(folder(process, "02_IdleLoop") + "/03_IdleLoop_12_2", 0), 0u) << base;
    std::string run;
    for (const std::string& file : files) run += file + ": " + test::readFile(file);
    for (const auto& [from, to] : {std::pair<std::string, std::string>{base, "$BASE"},
                                   {process, "$PROCESS"},
                                   {std::to_string(sleeper.pid()), "$PID"}}) {
      for (size_t at; (at = run.find(from)) != std::string::npos;) run.replace(at, from.size(), to);
    }
    text += run;
  }
  EXPECT_EQ(text, testdata("memory/named_tools.txt"));

  std::vector<std::string> initial = VLDumpInitialLogSetForMemoryPerfForEnv("Idle", kSleeper, 0);
  ASSERT_EQ(initial, std::vector<std::string>{folder(kSleeper, "00_Idle") + "/heap_object_start_" +
                                              kSleeperName + ".log"});
  EXPECT_EQ(
      test::readFile(initial[0]),
      "heap -guessNonObjects -sumObjectFields -addresses=all -noContent " + kSleeperName + "\n");
}

TEST_F(MemoryDiagnosticsTest, WithoutTheToolsEachFileHoldsItsLinuxEquivalent) {
  FakeTools tools(FakeTools::Path::kAlone);  // no named tool and no gcore
  Sleeper sleeper(programs_);
  std::vector<std::string> files =
      VLDumpLogsForMemoryPerfForTestCaseForFolder("Idle", 1, kSleeper, 0);
  ASSERT_EQ(files.size(), 8u);
  const std::string pid = std::to_string(sleeper.pid());
  const std::vector<std::string> marks[] = {
      {"/proc/pressure/memory"},
      {"OOM_SCORE", pid, kSleeper},
      {"/proc/vmstat", "nr_free_pages", "MemTotal:"},
      {},  // slabinfo for root, the slab lines of meminfo for others: below
      {"/smaps_rollup", "Rss:", "VmRSS:"},
      {"Private_Dirty:"},
      {"/bin/sleep", "[stack]"},  // the maps: the program's path is its copy's
      {"(" + pid + ")", "     0 -> "},
  };
  for (size_t i = 0; i < 8; ++i) {
    std::string text = test::readFile(files[i]);
    for (const std::string& mark : marks[i]) {
      EXPECT_NE(text.find(mark == "/bin/sleep" ? programs_.file(kSleeper) : mark),
                std::string::npos)
          << files[i] << " lacks " << mark;
    }
  }

  const std::string kernel = test::readFile(files[3]);
  EXPECT_TRUE(kernel.find("slabinfo - version") != std::string::npos ||
              kernel.find("\nSlab:") != std::string::npos)
      << kernel.substr(0, 200);

  // A core dump where gcore is there; gcore appends the identifier to the name it is given.
  tools.add("gcore", "echo core of \"$3\" > \"$2.$3\"");
  std::vector<std::string> final = VLDumpFinalLogSetForMemoryPerf("Idle", kSleeper, 0);
  ASSERT_EQ(final.size(), 2u);
  EXPECT_EQ(final[0], folder(kSleeper, "00_Idle") + "/heap_object_end_" + kSleeperName + ".log");
  EXPECT_EQ(test::readFile(final[1]), "core of " + pid + "\n");

  files = VLDumpLogsForMemoryPerfForTestCaseForFolder("Idle", 2, "notrunning", 0);
  for (size_t i = 4; i < 8; ++i) {
    EXPECT_EQ(test::readFile(files[i]), "No process named notrunning is running\n") << files[i];
  }
}

TEST_F(MemoryDiagnosticsTest, AFolderThatCannotBeMadeIsLoggedAndTheToolsRunAnyway) {
  FakeTools tools(FakeTools::Path::kAlone);
  test::writeFile(sandbox_.root() + "/var/root/Library/Logs/Vorlund/RingPerfTest", "a file");
  LogCapture capture;
  std::vector<std::string> files = VLDumpInitialLogSetForMemoryPerfForEnv("Idle", kSleeper, 4);
  std::string folder = this->folder(kSleeper, "04_Idle");
  EXPECT_EQ(files,
            std::vector<std::string>{folder + "/heap_object_start_" + kSleeperName + ".log"});
  EXPECT_TRUE(capture.contains(VLLogLevelInfo, "Framework",
                               "Error creating directory at " + folder + ": Not a directory"));
}

TEST(MemoryLimitTest, FromCullerRankOrTheCgroupOfTheProcess) {
  test::Sandbox sandbox;
  test::TempDir programs;
  LogCapture capture;
  {
    FakeTools tools;
    tools.add("culler_rank", "tail -n +2 " + std::string(VORLUND_TESTDATA_DIR) +
                                 "/memory-table/culler_rank_locationd.txt");
    EXPECT_EQ(VLGetCurrentMemoryLimitForProcess("locationd"), 200.0);
    EXPECT_EQ(VLGetCurrentMemoryLimitForProcess("nothere"), 0.0);
  }
  FakeTools tools(FakeTools::Path::kAlone);
  Sleeper sleeper(programs);
  EXPECT_EQ(VLGetCurrentMemoryLimitForProcess(kSleeper), 0.0);  // no limit files
  std::vector<std::string> limitFiles =
      cgroupMemoryLimitFiles(test::readFile(format("/proc/%d/cgroup", sleeper.pid())));
  ASSERT_GE(limitFiles.size(), 2u);
  test::writeFile(sandbox.root() + limitFiles[0], "536870912\n");
  EXPECT_EQ(VLGetCurrentMemoryLimitForProcess(kSleeper), 512.0);
  test::writeFile(sandbox.root() + limitFiles[0], "max\n");
  test::writeFile(sandbox.root() + limitFiles[1], "268435456\n");
  EXPECT_EQ(VLGetCurrentMemoryLimitForProcess(kSleeper), 256.0);
}

TEST(MemoryParsers, CgroupLimitsAndDirtyPageSizes) {
  const std::string slice =
      "user.slice/user-1000.slice/user@1000.service/app.slice/vorlund.service";
  std::vector<std::string> files = cgroupMemoryLimitFiles(testdata("memory/cgroup_unified.txt"));
  ASSERT_EQ(files.size(), 4u);
  EXPECT_EQ(files[3], "/sys/fs/cgroup/unified/" + slice + "/memory.high");
  EXPECT_TRUE(cgroupMemoryLimitFiles("0::/../../etc\n").empty());

  const std::pair<const char*, std::optional<double>> values[] = {
      {"1048576\n", 1.0}, {"max\n", std::nullopt}, {"9223372036854771712\n", std::nullopt},
      {"", std::nullopt}, {"-5", std::nullopt},    {"1572864", 1.5},
  };
  for (const auto& [text, megabytes] : values) EXPECT_EQ(cgroupLimitMegabytes(text), megabytes);

  // The unit of a dirty-page size is the last character as it stands.
  const struct {
    const char* text;
    DirtyPageText kind;
    double kilobytes;
  } cases[] = {
      {"12.5M", DirtyPageText::kSize, 12800.0}, {"300K", DirtyPageText::kSize, 300.0},
      {"12.5M\n", DirtyPageText::kInvalid, 0},  {"7G", DirtyPageText::kInvalid, 0},
      {"", DirtyPageText::kEmpty, 0},           {"K", DirtyPageText::kEmpty, 0},
      {"xK", DirtyPageText::kSize, 0.0},        {"1.5e2K", DirtyPageText::kSize, 150.0},
  };
  for (const auto& c : cases) {
    double kilobytes = 0;
    EXPECT_EQ(dirtyPageSizeFromText(c.text, &kilobytes), c.kind) << c.text;
    EXPECT_EQ(kilobytes, c.kilobytes) << c.text;
  }
  // The heap and unnamed mappings; not the stack and not a file's pages.
  EXPECT_EQ(dirtyAnonymousKilobytesFromSmaps(testdata("memory/smaps_sleep.txt")), 552.0);
}

TEST(DirtyPagesTest, FromArenalistOrTheSmapsOfTheProcess) {
  LogCapture capture;
  {
    FakeTools tools;
    // The one-liner ends its line with a line feed, so the real summary line is invalid.
    tools.add("arenalist",
              "cat " + std::string(VORLUND_TESTDATA_DIR) + "/memory/arenalist_summary.txt");
    EXPECT_EQ(VLGetCurrentyDirtyPageSize("locationd"), 0.0);
    EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                                 "arenalist returned invalid result for locationd"));
    tools.add("arenalist", "true");
    EXPECT_EQ(VLGetCurrentyDirtyPageSize("locationd"), 0.0);
    EXPECT_TRUE(capture.contains(VLLogLevelError, "Framework",
                                 "arenalist returned an empty result for locationd"));
  }
  FakeTools tools(FakeTools::Path::kAlone);
  test::TempDir programs;
  Sleeper sleeper(programs);
  const double expected =
      dirtyAnonymousKilobytesFromSmaps(test::readFile(format("/proc/%d/smaps", sleeper.pid())));
  EXPECT_GT(expected, 0.0);
  EXPECT_EQ(VLGetCurrentyDirtyPageSize(kSleeper), expected);
  EXPECT_EQ(VLGetCurrentyDirtyPageSize(std::to_string(sleeper.pid())), expected);
  EXPECT_EQ(VLGetCurrentyDirtyPageSize("notrunning"), 0.0);
}

}  // namespace
}  // namespace vl
