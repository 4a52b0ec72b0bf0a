// The journal collector over recorded `journalctl -o json` entries: the reports each kind of entry
// becomes, the names the crash scanner reads them by, never-replacing writes, and the cursor that
// carries across collector objects and lost cursor stores. A real crash where systemd-coredump
// runs.
#include "vorlund/devicetools/crash_collector.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <thread>

#include "support/test_support.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

const std::string kJournalData = std::string(VORLUND_TESTDATA_DIR) + "/journal/";
const std::string kRootFolder = "/Library/Logs/Faultbin/";
const std::string kMobileFolder = "/var/mobile/Library/Logs/Faultbin/";

// File names carry local time; the recorded times are read in UTC.
class UtcTest : public ::testing::Test {
 protected:
  UtcTest() : tz_("TZ", "UTC") { tzset(); }
  ~UtcTest() override { tzset(); }
  test::ScopedEnv tz_;
};

RecordedJournalSource recorded(const std::string& file) {
  return RecordedJournalSource(test::readFile(kJournalData + file));
}

// The process and date the crash scanner reads from a file name: the first date, and the name up to
// one character before it.
std::pair<std::string, std::string> scannerReading(const std::string& fileName) {
  std::smatch match;
  if (!std::regex_search(fileName, match, std::regex(R"(\d{4}-\d{2}-\d{2}-\d{6})"))) return {};
  size_t start = static_cast<size_t>(match.position(0));
  return {start > 0 ? fileName.substr(0, start - 1) : "", match.str(0)};
}

// The "processes" array of a kill report: the JSON after its first line.
nlohmann::json killedProcesses(const FaultbinReport& report) {
  std::string body = report.contents.substr(report.contents.find('\n') + 1);
  nlohmann::json json = nlohmann::json::parse(body, nullptr, false);
  EXPECT_FALSE(json.is_discarded()) << report.contents;
  return json.is_object() ? json["processes"] : nlohmann::json();
}

struct Expected {
  std::string folder, fileName;
  std::vector<std::string> contains;
  // For kill reports: the one killed process.
  std::string name;
  uint64_t pid = 0;
  std::string reason;
};

TEST_F(UtcTest, RecordedEntriesBecomeTheReportsTheScannerReads) {
  const std::vector<std::pair<std::string, std::vector<Expected>>> table = {
      {"coredump-segv.json",
       {{kMobileFolder,
         "stress-helper_2026-03-14-092653.ips",
         {"Process:         stress-helper [48213]\n",
          "Path:            /usr/libexec/stress-helper\n", "User ID:         1000\n",
          "Exception Type:  SIGSEGV\n", "Date/Time:       2026-03-14 09:26:53.412345 +0000\n",
          "\nThread 0 Crashed: tid 48213\n#0  0x", "do_write (stress-helper + 0x1a2f)\n#1  0x",
          "\nThread 1: tid 48214\n#0  0x", "\nThread 2: tid 48215\n"},
         "",
         0,
         ""}}},
      // The crashing thread is the first stack systemd-coredump lists, not the main thread.
      {"coredump-abort.json",
       {{kRootFolder,
         "wirelessd_2026-03-14-110207.ips",
         {"Exception Type:  SIGABRT\n", "Thread 0 Crashed: tid 915\n", "Thread 1: tid 912\n"},
         "",
         0,
         ""},
        {kRootFolder,
         "wirelessd_2026-03-14-110207.ips",
         {"Thread 0 Crashed: tid 934\n"},
         "",
         0,
         ""}}},
      {"oom-kernel.json",
       {{kRootFolder,
         "CullerEvent_2026-03-14-124011.ips",
         {"\"constraint\": \"CONSTRAINT_MEMCG\""},
         "stress-mem",
         7001,
         "oom-kill: constraint CONSTRAINT_MEMCG, rss 512 MB"},
        {kMobileFolder,
         "CullerEvent_2026-03-14-125240.ips",
         {},
         "Web Content",
         8120,
         "oom-kill: constraint CONSTRAINT_NONE, rss 1538 MB"}}},
      {"oomd.json",
       {{kMobileFolder,
         "CullerEvent_2026-03-14-130520.ips",
         {"\"killedBy\": \"systemd-oomd\""},
         "app-stress-alloc-4211.scope",
         0,
         "oomd: memory pressure for /user.slice/user-1000.slice/user@1000.service being 82.31% > "
         "50.00% for > 20s with reclaim activity"},
        {kRootFolder,
         "CullerEvent_2026-03-14-130902.ips",
         {},
         "stress-runner.service",
         0,
         "oomd: memory used (7801245696) / total (8193355776) and swap used (2017198080) / total "
         "(2147479552) being more than 90.00%"}}},
      // A name that holds a date and a line break can make neither a second date in the file name
      // nor a second crashed-thread line; a stack header without a thread id is no thread.
      {"hostile-names.json",
       {{kMobileFolder,
         "job-2020_01_01_000000_Thread 9 Crashed_2026-03-14-092653.ips",
         {"Process:         job-2020-01-01-000000?Thread 9 Crashed [48213]\n",
          "    Stack trace of thread Crashed:\n"},
         "",
         0,
         ""},
        {kRootFolder,
         "CullerEvent_2026-03-14-124011.ips",
         {},
         "bad\xef\xbf\xbdname",
         9001,
         "oom-kill: rss 1 MB"}}},
      // Entries without a name or a time cannot be named and are passed over; a name holding "/"
      // keeps to one folder; a message kept as bytes is copied as it is.
      {"bad-lines.json",
       {{kMobileFolder,
         "kworker_u8:2_2026-03-14-140000.ips",
         {"Process:         kworker/u8:2 [48213]\n", "Exception Type:  signal 11\n",
          "Thread 0 Crashed: no stack trace recorded\n",
          "    Process 557 dumped core.\n    \xff\n"},
         "",
         0,
         ""}}},
  };
  for (const auto& [file, expected] : table) {
    SCOPED_TRACE(file);
    RecordedJournalSource source = recorded(file);
    FaultbinConversion conversion = convertJournalEntries(source.entries(), true);
    ASSERT_EQ(conversion.reports.size(), expected.size());
    EXPECT_EQ(conversion.resumeCursor, source.entries().back().cursor);
    for (size_t n = 0; n < expected.size(); ++n) {
      const FaultbinReport& report = conversion.reports[n];
      const Expected& want = expected[n];
      EXPECT_EQ(report.folder, want.folder);
      EXPECT_EQ(report.fileName, want.fileName);
      for (const std::string& text : want.contains) {
        EXPECT_NE(report.contents.find(text), std::string::npos) << text << "\n" << report.contents;
      }
      bool isKill = report.fileName.rfind("CullerEvent_", 0) == 0;
      // Exactly one line may pass the scanner's crashed-thread test, and only in crash reports.
      std::regex crashedLine("(^|\n)Thread [^\n]*Crashed");
      auto lines = std::distance(
          std::sregex_iterator(report.contents.begin(), report.contents.end(), crashedLine),
          std::sregex_iterator());
      EXPECT_EQ(lines, isKill ? 0 : 1);
      if (!isKill) continue;
      nlohmann::json processes = killedProcesses(report);
      ASSERT_EQ(processes.size(), 1u);
      EXPECT_EQ(processes[0]["name"], want.name);
      EXPECT_EQ(processes[0]["pid"], want.pid);
      EXPECT_EQ(processes[0]["reason"], want.reason);
    }
  }
}

TEST(JournalJson, BadLinesAreListedWithTheirNumbersAndTheRestRead) {
  RecordedJournalSource source = recorded("bad-lines.json");
  std::vector<size_t> numbers;
  for (const auto& [number, reason] : source.badLines()) {
    numbers.push_back(number);
    EXPECT_FALSE(reason.empty());
  }
  EXPECT_EQ(numbers, (std::vector<size_t>{1, 3, 6, 8}));
  ASSERT_EQ(source.entries().size(), 3u);
  // A field given several times keeps its first value.
  EXPECT_EQ(source.entries()[2].field("__REALTIME_TIMESTAMP"), "1773496800000000");
}

TEST_F(UtcTest, AKillSplitAcrossBatchesIsHeldBackUntilItsSecondLine) {
  std::vector<JournalEntry> entries = recorded("oom-kernel.json").entries();
  std::vector<JournalEntry> firstTwo(entries.begin(), entries.begin() + 2);

  FaultbinConversion held = convertJournalEntries(firstTwo, false);
  EXPECT_TRUE(held.reports.empty());
  EXPECT_EQ(held.resumeCursor, entries[0].cursor);

  // At the end of a file nothing more can come: the "oom-kill:" line alone makes the report.
  FaultbinConversion alone = convertJournalEntries(firstTwo, true);
  ASSERT_EQ(alone.reports.size(), 1u);
  nlohmann::json processes = killedProcesses(alone.reports[0]);
  EXPECT_EQ(processes[0]["name"], "stress-mem");
  EXPECT_EQ(processes[0]["pid"], 7001);
  EXPECT_EQ(processes[0]["reason"], "oom-kill: constraint CONSTRAINT_MEMCG");
}

class CollectorDevice : public UtcTest {
 protected:
  std::string cursorPath() const { return sandbox_.path("data/cursor"); }
  std::vector<std::string> filesIn(const std::string& folder) const {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& f : std::filesystem::directory_iterator(paths::resolve(folder), ignored)) {
      names.push_back(f.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  test::Sandbox sandbox_;
};

TEST_F(CollectorDevice, ReportsOfOneSecondGetDistinctNamesAndARewriteIsRecognised) {
  FaultbinConversion conversion =
      convertJournalEntries(recorded("coredump-abort.json").entries(), true);
  ASSERT_EQ(conversion.reports.size(), 2u);
  std::vector<std::string> paths;
  for (const FaultbinReport& report : conversion.reports) {
    bool existed = true;
    std::optional<std::string> path = writeFaultbinReport(report, &existed);
    ASSERT_TRUE(path);
    EXPECT_FALSE(existed);
    EXPECT_EQ(test::readFile(*path), report.contents);
    paths.push_back(*path);
  }
  EXPECT_EQ(filesIn(kRootFolder), (std::vector<std::string>{"wirelessd_2026-03-14-110207-2.ips",
                                                            "wirelessd_2026-03-14-110207.ips"}));
  EXPECT_EQ(scannerReading("wirelessd_2026-03-14-110207-2.ips"),
            (std::pair<std::string, std::string>{"wirelessd", "2026-03-14-110207"}));

  // Written again (a pass that stopped before storing its cursor): the same files, nothing new.
  for (size_t n = 0; n < 2; ++n) {
    bool existed = false;
    EXPECT_EQ(writeFaultbinReport(conversion.reports[n], &existed), paths[n]);
    EXPECT_TRUE(existed);
  }
  EXPECT_EQ(filesIn(kRootFolder).size(), 2u);

  // A folder that cannot be made is an error, not a crash.
  std::filesystem::remove_all(sandbox_.root() + "/Library");
  test::writeFile(sandbox_.root() + "/Library", "a file where a folder should be");
  Error error;
  EXPECT_FALSE(writeFaultbinReport(conversion.reports[0], nullptr, &error));
  EXPECT_NE(error.localizedDescription().find("/Library/Logs/Faultbin"), std::string::npos);
}

TEST_F(CollectorDevice, TheCursorCarriesAcrossCollectorsAndALostCursorWritesNothingTwice) {
  auto source =
      std::make_shared<RecordedJournalSource>(test::readFile(kJournalData + "coredump-segv.json") +
                                              test::readFile(kJournalData + "oom-kernel.json"));
  LogCapture log;
  {
    CrashCollector first(source, cursorPath());
    EXPECT_FALSE(first.storedCursor());
    auto summary = first.collect();
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->entriesRead, 7u);
    EXPECT_EQ(summary->written.size(), 3u);
    EXPECT_EQ(first.storedCursor(), source->entries().back().cursor);
  }
  EXPECT_TRUE(log.contains(VLLogLevelInfo, "Framework",
                           "Faultbin collector read 7 journal entries: 3 reports written, 0 "
                           "already there"));

  CrashCollector second(source, cursorPath());
  auto nothingNew = second.collect();
  ASSERT_TRUE(nothingNew);
  EXPECT_EQ(nothingNew->entriesRead, 0u);
  EXPECT_TRUE(nothingNew->written.empty());

  std::string oomd = test::readFile(kJournalData + "oomd.json");
  ASSERT_TRUE(source->append(oomd.substr(0, oomd.find('\n'))));
  auto oneMore = second.collect();
  ASSERT_TRUE(oneMore);
  EXPECT_EQ(oneMore->written.size(), 1u);

  // The cursor store lost (a crash just before it): everything is read again, nothing rewritten.
  std::filesystem::remove(cursorPath());
  auto again = CrashCollector(source, cursorPath()).collect();
  ASSERT_TRUE(again);
  EXPECT_TRUE(again->written.empty());
  EXPECT_EQ(again->alreadyThere.size(), 4u);
  EXPECT_EQ(filesIn(kRootFolder).size() + filesIn(kMobileFolder).size(), 4u);
}

TEST_F(CollectorDevice, AKillWhoseSecondLineComesLaterBecomesOneReport) {
  std::vector<std::string> lines;
  std::istringstream text(test::readFile(kJournalData + "oom-kernel.json"));
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  auto source = std::make_shared<RecordedJournalSource>(lines[0] + "\n" + lines[1]);
  CrashCollector collector(source, cursorPath());
  auto before = collector.collect();
  ASSERT_TRUE(before);
  EXPECT_TRUE(before->written.empty());

  source->append(lines[2]);
  auto after = collector.collect();
  ASSERT_TRUE(after);
  ASSERT_EQ(after->written.size(), 1u);
  std::string report = test::readFile(after->written[0]);
  EXPECT_NE(report.find("oom-kill: constraint CONSTRAINT_MEMCG, rss 512 MB"), std::string::npos);
  EXPECT_EQ(collector.storedCursor(), source->entries().back().cursor);
}

TEST_F(CollectorDevice, AnUnreadableJournalLeavesTheCursorAlone) {
  CrashCollector collector(
      std::shared_ptr<JournalSource>(makeSystemJournalSource(sandbox_.path("no-such-journal"))),
      cursorPath());
  test::writeFile(cursorPath(), "s=kept\n");
  Error error;
  EXPECT_FALSE(collector.collect(&error));
  EXPECT_FALSE(error.localizedDescription().empty());
  EXPECT_EQ(collector.storedCursor(), "s=kept");
}

TEST_F(CollectorDevice, AReportThatCannotBeWrittenIsWrittenByTheNextPass) {
  auto source =
      std::make_shared<RecordedJournalSource>(test::readFile(kJournalData + "coredump-abort.json"));
  CrashCollector collector(source, cursorPath());
  test::writeFile(sandbox_.root() + "/Library", "a file where a folder should be");
  Error error;
  EXPECT_FALSE(collector.collect(&error));
  EXPECT_FALSE(collector.storedCursor());

  std::filesystem::remove(sandbox_.root() + "/Library");
  auto summary = collector.collect();
  ASSERT_TRUE(summary);
  EXPECT_EQ(summary->written.size(), 2u);
  EXPECT_EQ(collector.storedCursor(), source->entries().back().cursor);
}

// systemd-coredump catches the crash only where the kernel pipes cores to it and journald runs.
TEST_F(CollectorDevice, ARealCrashAppearsWhereSystemdCoredumpRuns) {
  std::string pattern = test::readFile("/proc/sys/kernel/core_pattern");
  if (pattern.find("systemd-coredump") == std::string::npos ||
      !std::filesystem::exists("/run/systemd/journal/socket")) {
    GTEST_SKIP() << "systemd-coredump does not receive cores here (core_pattern: " << pattern
                 << ")";
  }
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    setpgid(0, 0);
    raise(SIGSEGV);
    _exit(1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));

  std::shared_ptr<JournalSource> journal = makeSystemJournalSource();
  std::optional<FaultbinReport> found;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!found && std::chrono::steady_clock::now() < deadline) {
    auto entries =
        journal->entriesAfter(std::nullopt, {{"COREDUMP_PID", std::to_string(child)}}, 16);
    ASSERT_TRUE(entries);
    for (const FaultbinReport& report : convertJournalEntries(*entries, true).reports)
      found = report;
    if (!found) std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  ASSERT_TRUE(found) << "no core dump entry of pid " << child;
  EXPECT_EQ(found->fileName.rfind("vorlund_devicet", 0), 0u) << found->fileName;
  EXPECT_NE(found->contents.find("Exception Type:  SIGSEGV"), std::string::npos);
  EXPECT_NE(found->contents.find("Thread 0 Crashed:"), std::string::npos);
}

}  // namespace
}  // namespace vl
