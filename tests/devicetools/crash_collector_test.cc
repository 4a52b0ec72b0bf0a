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
#include <sstream>
#include <thread>

#include "support/test_support.h"
#include "vorlund/devicetools/crash_report.h"
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

// Each recorded file against its .reports file: the lines that are not journal JSON, by number, and
// every report's folder, name and contents. Among them: the crashing thread is the first stack
// systemd-coredump lists, not the main thread; a name holding a date and a line break makes neither
// a second date in the file name nor a second crashed-thread line; entries without a name or a time
// are passed over; a name holding "/" keeps to one folder; a message kept as bytes is copied as it
// is.
TEST_F(UtcTest, RecordedEntriesBecomeTheReportsTheScannerReads) {
  for (std::string file :
       {"coredump-segv", "coredump-abort", "oom-kernel", "oomd", "hostile-names", "bad-lines"}) {
    SCOPED_TRACE(file);
    RecordedJournalSource source = recorded(file + ".json");
    FaultbinConversion conversion = convertJournalEntries(source.entries(), true);
    EXPECT_EQ(conversion.resumeCursor, source.entries().back().cursor);
    std::string text;
    for (const auto& bad : source.badLines())
      text += "bad line " + std::to_string(bad.first) + "\n";
    for (const FaultbinReport& report : conversion.reports) {
      text += "=== " + report.folder + report.fileName + "\n" + report.contents + "\n";
      // Exactly one line may pass the scanner's crashed-thread test, and only in crash reports.
      bool isKill = report.fileName.rfind("CullerEvent_", 0) == 0;
      EXPECT_EQ(findCrashedThreadLine(report.contents).has_value(), !isKill) << report.fileName;
    }
    EXPECT_EQ(text, test::readFile(kJournalData + file + ".reports"));
  }
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

TEST_F(CollectorDevice, TheCursorCarriesAcrossCollectorsAndALostCursorWritesNothingTwice) {
  auto source =
      std::make_shared<RecordedJournalSource>(test::readFile(kJournalData + "coredump-segv.json") +
                                              test::readFile(kJournalData + "oom-kernel.json"));
  LogCapture log;
  {
    CrashCollector first(source, cursorPath());
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

TEST_F(CollectorDevice, AKillSplitAcrossPassesIsHeldBackUntilItsSecondLine) {
  std::vector<std::string> lines;
  std::istringstream text(test::readFile(kJournalData + "oom-kernel.json"));
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  auto source = std::make_shared<RecordedJournalSource>(lines[0] + "\n" + lines[1]);
  CrashCollector collector(source, cursorPath());
  auto before = collector.collect();
  ASSERT_TRUE(before);
  EXPECT_TRUE(before->written.empty());
  EXPECT_EQ(collector.storedCursor(), source->entries()[0].cursor);

  // At the end of a file nothing more can come: the "oom-kill:" line alone makes the report.
  FaultbinConversion alone = convertJournalEntries(source->entries(), true);
  ASSERT_EQ(alone.reports.size(), 1u);
  EXPECT_NE(alone.reports[0].contents.find("\"oom-kill: constraint CONSTRAINT_MEMCG\""),
            std::string::npos);

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

// The two reports of one second get distinct names, both of which the scanner reads as the one
// process and date.
TEST_F(CollectorDevice, AReportThatCannotBeWrittenIsWrittenByTheNextPass) {
  auto source =
      std::make_shared<RecordedJournalSource>(test::readFile(kJournalData + "coredump-abort.json"));
  CrashCollector collector(source, cursorPath());
  test::writeFile(sandbox_.root() + "/Library", "a file where a folder should be");
  Error error;
  EXPECT_FALSE(collector.collect(&error));
  EXPECT_NE(error.localizedDescription().find("/Library/Logs/Faultbin"), std::string::npos);
  EXPECT_FALSE(collector.storedCursor());

  std::filesystem::remove(sandbox_.root() + "/Library");
  auto summary = collector.collect();
  ASSERT_TRUE(summary);
  EXPECT_EQ(summary->written.size(), 2u);
  EXPECT_EQ(collector.storedCursor(), source->entries().back().cursor);
  EXPECT_EQ(filesIn(kRootFolder), (std::vector<std::string>{"wirelessd_2026-03-14-110207-2.ips",
                                                            "wirelessd_2026-03-14-110207.ips"}));
  FaultbinFileName name = parseFaultbinFileName("wirelessd_2026-03-14-110207-2.ips");
  EXPECT_EQ(name.process, "wirelessd");
  EXPECT_EQ(name.time, parseFaultbinFileName("wirelessd_2026-03-14-110207.ips").time);
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
