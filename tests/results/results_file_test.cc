// The results file and the resume data of a run, on real files in a sandboxed device: key order,
// suspend and resume, bad resume data, restoring from a results file, and writes that fail or are
// killed midway.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include "catalogue/value_printers.h"
#include "results/run_sandbox.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/results/periodic_save.h"
#include "vorlund/results/results.h"
#include "vorlund/results/test_case_statistic.h"

namespace {

namespace fs = std::filesystem;
using vl::Array;
using vl::Dictionary;
using vl::Value;

// clang-format off
const std::vector<std::string> kResultsFileKeys{
    "Test Settings", "City", "Hardware Info", "Software Info", "Logging Info", "StressType",
    "WirelessTechnology", "StressSubtype", "Config", "PlistVersion", "LastUpdated",
    "MergedResults", "RunTime", "StartTime", "CampedRAT", "CampedRAT2", "MTBF", "WirelessCrashes",
    "Issues", "TestCases"};

const std::vector<std::string> kResumeKeys{
    "History", "Failures", "Issues", "Iterations", "Primary Snapdumps", "Stress Snapdumps",
    "Statistics", "StartTime", "ResetStartTime", "WirelessCrashes", "Hardware Info",
    "Software Info", "Logging Info", "Test Settings", "StressType", "WirelessTechnology",
    "StressSubtype", "Config"};
// clang-format on

using vl::test::issue;
using vl::test::linesStartingWith;
using vl::test::result;
using vl::test::sqliteTool;

// A run with results of three kinds, a wireless crash, a failure and a City in its settings.
void fillRun(VLResults& results) {
  Dictionary settings = results.testSettings();
  settings.set("City", "Cupertino");
  results.setTestSettings(settings);
  results.addTestCaseResult(result("Ping", true), false);
  results.addTestCaseResult(result("Ping", false), false);
  auto average = result("Throughput", true, kVLTestCaseResultTypeAverage);
  average->addMetric(Value(42.5), std::string("Mbps"));
  results.addTestCaseResult(average, false);
  results.addIssue(issue("uwbd crashed", "uwbd", "Crash", 5, results));
  results.addIssue(issue("Scan stalled", "Vorlund", "Failure", 5, results));
}

// Dates in XML property lists keep whole seconds.
double wholeSeconds(vl::Date date) { return std::floor(date.secondsSince1970); }

TEST(ResumeDataTest, ASuspendedRunResumesWhereItStopped) {
  vl::test::RunSandbox run;
  auto results = run.results();
  fillRun(*results);
  results->setPrimarySnapdumps(7);
  results->setStressSnapdumps(3);
  results->setFailureCounts(Dictionary{{"Ping", Dictionary{{"timeout", 2}}}});
  results->setStartTime(vl::Date{results->startTime().secondsSince1970 - 3600});
  results->resetStartTime();
  results->setPlistPath(results->getResultsFilePath());
  results->setTimelinePath(results->getTimelineFilePath());
  const int64_t iterations = results->iterations();
  ASSERT_EQ(iterations, 3);

  ASSERT_TRUE(results->suspend());

  const std::string resumePath = VLResults::resumeDataPath();
  EXPECT_EQ(resumePath, run.device().home() + "/Library/Caches/vorlund_results_resume_data.plist");
  std::string bytes = vl::test::readFile(resumePath);
  vl::ClassSet classes = VLValidExternalClassesForCoding();
  classes.insert(VLTestCaseStatistic::kClassName);
  std::optional<Value> archived = vl::unarchive(bytes, classes);
  ASSERT_TRUE(archived && archived->asDictionary());
  for (const auto& key : kResumeKeys) EXPECT_TRUE(archived->asDictionary()->contains(key)) << key;

  // The file is removed through the file system, never by a shell command: a recording rm on PATH
  // sees nothing.
  vl::test::TempDir tools;
  const std::string rmLog = tools.file("rm.log");
  vl::test::writeFile(tools.file("rm"),
                      "#!/bin/sh\necho \"$@\" >> '" + rmLog + "'\nexec /bin/rm \"$@\"\n");
  fs::permissions(tools.file("rm"), fs::perms::owner_all);
  vl::test::ScopedEnv path("PATH", tools.path() + ":" + std::getenv("PATH"));

  auto resumed = VLResults::withResumeData();

  ASSERT_TRUE(resumed && resumed->resumed());
  EXPECT_FALSE(fs::exists(resumePath));
  EXPECT_FALSE(vl::test::fileExists(rmLog));
  // Everything the results file shows comes back (issue times to the whole second, as coded)...
  auto shown = [](const VLResults& r) {
    Dictionary file = r.resultsFileDictionary();
    for (const char* derived : {"LastUpdated", "RunTime", "MTBF"}) file.erase(derived);
    return file;
  };
  EXPECT_EQ(shown(*resumed), shown(*results));
  // ...and so does the state only the resume data keeps.
  EXPECT_EQ(resumed->resetStartDate(), results->resetStartDate());
  EXPECT_EQ(resumed->timelinePath(), results->timelinePath());
  EXPECT_EQ(resumed->stressSnapdumps(), 3u);
  EXPECT_EQ(resumed->failureCounts(), results->failureCounts());
  EXPECT_EQ(resumed->issueList().at(1)->wirelessProcess(),
            results->issueList()[1]->wirelessProcess());
  EXPECT_EQ(resumed->getHistory().size(), 3u);
  EXPECT_LT(resumed->runtime(), 60);  // counted from the reset, not from the start

  // The resumed run carries on: the next row is the fourth.
  resumed->addTestCaseResult(result("Ping", true), false);
  EXPECT_EQ(resumed->iterations(), iterations + 1);
}

TEST(ResumeDataTest, BadResumeDataGivesAFreshRunWithTheSystemsLines) {
  vl::test::RunSandbox run;
  auto original = run.results();
  original->addIssue(issue("Scan stalled", "Vorlund", "Failure", 5, *original));
  ASSERT_TRUE(original->suspend());
  const std::string resumePath = VLResults::resumeDataPath();
  const std::string good = vl::test::readFile(resumePath);

  struct Case {
    std::string name;
    std::optional<std::string> bytes;  // none: no file at all
    std::string errorLinePrefix;
  };
  auto archived = [](const Value& root) { return *vl::archive(root); };
  const std::string unarchiveError = "NSKeyedUnarchiver returned with error: ";
  const std::string exception = "Hit exception trying to unarchive resume plist: ";
  std::vector<Case> cases{
      {"missing", std::nullopt,
       "Failed to read data from resume data file: " + resumePath +
           " error: No such file or directory"},
      {"garbage", std::string("\x00\x01not a property list at all", 28), unarchiveError},
      {"truncated", good.substr(0, good.size() / 2), unarchiveError},
      {"plain plist",
       *vl::plist::serialize(Value(Dictionary{{"Issues", Array{}}}), vl::plist::Format::Xml),
       unarchiveError},
      {"archived array", archived(Value(Array{"a", "b"})),
       exception + "Resume data holds NSArray where a dictionary belongs"},
      {"issues of the wrong type", archived(Value(Dictionary{{"Issues", "none"}})),
       exception + "Resume data key \"Issues\" holds NSString where an array belongs"},
      {"a result among the issues",
       archived(Value(Dictionary{{"Issues", Array{Value(result("Ping", true))}}})),
       exception + "Resume data key \"Issues\" holds VLTestCaseResult where a VLIssue belongs"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(resumePath);
    if (c.bytes) vl::test::writeFile(resumePath, *c.bytes);
    vl::LogCapture capture;

    std::shared_ptr<VLResults> fresh;
    ASSERT_NO_THROW(fresh = VLResults::withResumeData());

    ASSERT_TRUE(fresh);
    EXPECT_FALSE(fresh->resumed());
    EXPECT_TRUE(fresh->issueList().empty());
    auto errors = linesStartingWith(capture, VLLogLevelError, "Framework", c.errorLinePrefix);
    EXPECT_EQ(errors.size(), 1u);
    if (c.errorLinePrefix == exception || !c.bytes) {
      ASSERT_EQ(errors.size(), 1u);
      EXPECT_EQ(errors[0], c.errorLinePrefix);
    }
    if (c.bytes) {
      EXPECT_TRUE(capture.contains(VLLogLevelNotice, "Framework",
                                   "Returning default results object so we're not completely "
                                   "hosed"));
      EXPECT_EQ(vl::test::readFile(resumePath), *c.bytes);  // left for inspection
    }
  }
}

TEST(ResultsFileTest, AResultsFileKeepsItsKeyOrderAndRestoresTheRunItWasSavedFrom) {
  vl::test::RunSandbox run;
  auto results = run.results();
  fillRun(*results);
  results->setConfig("Nightly");
  results->setRuntime(7200);
  results->setMergedResults(2);
  Dictionary crashes = results->wirelessCrashes();
  crashes.set("wifi", Dictionary{{"wpa_supplicant", 4}, {"Total", 4}});
  crashes.set("bluetooth", Dictionary{{"Total", 0}});
  results->setWirelessCrashes(crashes);
  const std::string path = run.device().path("out/device1.plist");
  ASSERT_TRUE(results->saveToFile(path));

  Dictionary first = *vl::plist::readDictionary(path);
  EXPECT_EQ(first.keys(), kResultsFileKeys);
  EXPECT_EQ(first.get("City"), Value("Cupertino"));
  EXPECT_EQ(first.get("StartTime").asDate()->secondsSince1970, wholeSeconds(results->startTime()));
  // One uwbd crash counts in "uwb" and "overall"; a count of 0 gives the run time.
  EXPECT_EQ(first.get("MTBF"),
            Value(Dictionary{
                {"uwb", 7200.0}, {"overall", 7200.0}, {"wifi", 1800.0}, {"bluetooth", 7200.0}}));
  EXPECT_EQ(first.get("TestCases").asDictionary()->get("Ping").asDictionary()->get("FailureRate"),
            Value(0.5));

  vl::LogCapture capture;
  auto restored = VLResults::withFile(path);
  ASSERT_TRUE(restored);
  EXPECT_TRUE(
      capture.contains(VLLogLevelDebug, "Results",
                       vl::format("Restored Crashes With : %@", restored->wirelessCrashes())));
  EXPECT_EQ(restored->plistPath(), path);
  // Every key came back: saving the restored aggregate writes the same file again (but for the
  // save date), and it has no timeline to mirror into.
  const std::string again = run.device().path("again.plist");
  ASSERT_TRUE(restored->saveToFile(again));
  Dictionary second = *vl::plist::readDictionary(again);
  first.erase("LastUpdated");
  second.erase("LastUpdated");
  EXPECT_EQ(first, second);
  EXPECT_EQ(first.keys(), second.keys());
  EXPECT_EQ(restored->timelinePath(), "");

  EXPECT_EQ(VLResults::withFile(run.device().path("missing.plist")), nullptr);
  vl::test::writeFile(run.device().path("list.plist"),
                      *vl::plist::serialize(Value(Array{"x"}), vl::plist::Format::Xml));
  EXPECT_EQ(VLResults::withFile(run.device().path("list.plist")), nullptr);
}

// --- Writes that fail or are killed midway ------------------------------------------------------
//
// A child run of this test binary (ResultsFileChild below) writes files larger than its
// RLIMIT_FSIZE: with SIGXFSZ ignored the write fails, with its default action the writer is killed
// in the middle of the write. Either way the previous file must stay whole.

constexpr const char* kChildModeVariable = "VORLUND_TEST_WRITE_CHILD_MODE";
constexpr const char* kChildTargetVariable = "VORLUND_TEST_WRITE_CHILD_TARGET";
constexpr rlim_t kChildFileSizeLimit = 64 * 1024;

// Settings and history that make both files several times larger than the limit; the history
// enters only the resume data.
Dictionary bigSettings() {
  Array blob;
  for (int i = 0; i < 4000; ++i) blob.push_back(vl::format("entry %d of the big settings", i));
  return Dictionary{{"StressType", "wifi"}, {"Blob", blob}};
}
Array bigHistory() {
  Array history;
  for (int i = 0; i < 21; ++i) {
    auto definition = VLTestCaseObject::make();
    definition->setName(vl::format("Test %d", i));
    definition->setSelector(std::string("run:"));
    definition->setOptions(Dictionary{{"Payload", std::string(8192, static_cast<char>('a' + i))}});
    history.push_back(Value(definition));
  }
  return history;
}

vl::test::ChildResult runWriteChild(const std::string& mode, const std::string& target) {
  vl::test::ScopedEnv modeEnv(kChildModeVariable, mode);
  vl::test::ScopedEnv targetEnv(kChildTargetVariable, target);
  return vl::test::runChild({fs::read_symlink("/proc/self/exe").string(),
                             "--gtest_also_run_disabled_tests",
                             "--gtest_filter=ResultsFileChild.DISABLED_WriteUnderFileSizeLimit"});
}

// Temporary files the atomic writer left beside path (a writer killed midway leaves one).
std::vector<std::string> leftoversBeside(const std::string& path) {
  std::vector<std::string> found;
  const std::string prefix = "." + fs::path(path).filename().string() + ".";
  for (const auto& entry : fs::directory_iterator(fs::path(path).parent_path())) {
    if (entry.path().filename().string().starts_with(prefix)) found.push_back(entry.path());
  }
  return found;
}

// How many results the periodic-save child adds, each followed by two saves, before it adds one
// more and kills itself.
constexpr int kSavedResults = 4;

// The stress service as kill -9 finds it: saving every interval, one result just added.
[[noreturn]] void addResultsWhileSavingThenDie(std::shared_ptr<VLResults> results) {
  vl::time::ScopedScale fast(0.001);
  auto saver = vl::startPeriodicSave(results);
  std::printf("interval %g\n", saver->intervalSeconds());
  for (int i = 0; i < kSavedResults; ++i) {
    results->addTestCaseResult(result("Ping", true), false);
    const size_t seen = saver->saveCount();
    for (int wait = 0; wait < 4000 && saver->saveCount() < seen + 2; ++wait)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  results->addTestCaseResult(result("Ping", true), false);
  std::fflush(stdout);
  std::raise(SIGKILL);
  std::abort();
}

TEST(ResultsFileChild, DISABLED_WriteUnderFileSizeLimit) {
  const char* mode = std::getenv(kChildModeVariable);
  const char* target = std::getenv(kChildTargetVariable);
  if (!mode || !target) GTEST_SKIP() << "runs only as the child of the atomic-write tests";
  const std::string m = mode;
  auto results = VLResults::make();
  rlimit noCore{0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  if (m == "periodic") addResultsWhileSavingThenDie(results);
  if (m == "fail") std::signal(SIGXFSZ, SIG_IGN);
  vl::LogCapture capture;
  // Only the soft limit, so that it can be lifted again before the child exits normally: a
  // coverage build writes its counts at exit, and a limited write would damage them.
  rlimit saved{};
  getrlimit(RLIMIT_FSIZE, &saved);
  rlimit limit{kChildFileSizeLimit, saved.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);

  if (m == "fail") {
    results->setTestSettings(bigSettings());
    results->setHistory(bigHistory());
    EXPECT_FALSE(results->saveToFile(target));
    EXPECT_EQ(linesStartingWith(capture, VLLogLevelError, "Results",
                                std::string("Failed to write out plist @ ") + target)
                  .size(),
              1u);
    EXPECT_FALSE(results->suspend());
    EXPECT_TRUE(capture.contains(VLLogLevelError, "Results",
                                 vl::format("Failed to write resume data to %@: %@",
                                            VLResults::resumeDataPath(), std::strerror(EFBIG))));
    setrlimit(RLIMIT_FSIZE, &saved);
  } else if (m == "kill-save") {
    results->setTestSettings(bigSettings());
    results->saveToFile(target);
    ADD_FAILURE() << "the writer should have been killed";
  } else if (m == "kill-suspend") {
    results->setHistory(bigHistory());
    results->suspend();
    ADD_FAILURE() << "the writer should have been killed";
  }
}

TEST(ResultsFileTest, AFailingOrKilledWriteLeavesThePreviousFilesWhole) {
  vl::test::RunSandbox run;
  auto results = run.results();
  results->addIssue(issue("Scan stalled", "Vorlund", "Failure", 5, *results));
  const std::string target = run.device().path("results.plist");
  ASSERT_TRUE(results->saveToFile(target));
  ASSERT_TRUE(results->suspend());
  const std::string savedResults = vl::test::readFile(target);
  const std::string resumePath = VLResults::resumeDataPath();
  const std::string savedResume = vl::test::readFile(resumePath);
  auto expectPreviousFilesWhole = [&] {
    EXPECT_EQ(vl::test::readFile(target), savedResults);
    EXPECT_EQ(vl::test::readFile(resumePath), savedResume);
  };

  vl::test::ChildResult failed = runWriteChild("fail", target);
  EXPECT_EQ(failed.exitStatus, 0) << failed.out << failed.err;
  EXPECT_NE(failed.out.find("[  PASSED  ] 1 test."), std::string::npos) << failed.out;
  expectPreviousFilesWhole();
  EXPECT_TRUE(leftoversBeside(target).empty());
  EXPECT_TRUE(leftoversBeside(resumePath).empty());

  vl::test::ChildResult killedSaving = runWriteChild("kill-save", target);
  EXPECT_EQ(killedSaving.exitStatus, 128 + SIGXFSZ) << killedSaving.out << killedSaving.err;
  expectPreviousFilesWhole();
  // The half-written temporary file shows that the kill came in the middle of the write.
  auto leftovers = leftoversBeside(target);
  ASSERT_EQ(leftovers.size(), 1u);
  EXPECT_EQ(fs::file_size(leftovers[0]), kChildFileSizeLimit);

  vl::test::ChildResult killedSuspending = runWriteChild("kill-suspend", target);
  EXPECT_EQ(killedSuspending.exitStatus, 128 + SIGXFSZ)
      << killedSuspending.out << killedSuspending.err;
  expectPreviousFilesWhole();
  EXPECT_EQ(leftoversBeside(resumePath).size(), 1u);
  EXPECT_EQ(VLResults::withResumeData()->issueList().size(), 1u);
}

TEST(ResumeDataTest, AServiceKilledWhileSavingPeriodicallyLosesAtMostTheLastInterval) {
  vl::test::RunSandbox run(Dictionary{{"StressType", "wifi"}, {"ResultsSaveInterval", 30}});
  vl::test::ChildResult killed = runWriteChild("periodic", "");
  ASSERT_EQ(killed.exitStatus, 128 + SIGKILL) << killed.out << killed.err;
  EXPECT_NE(killed.out.find("\ninterval 30\n"), std::string::npos) << killed.out;

  const vl::Date beforeResume{std::floor(vl::Date::now().secondsSince1970)};
  auto resumed = VLResults::withResumeData();
  ASSERT_TRUE(resumed->resumed());
  auto ping = resumed->statisticForName("Ping");
  ASSERT_TRUE(ping);
  EXPECT_GE(ping->instances(), uint64_t{kSavedResults});
  EXPECT_LE(ping->instances(), uint64_t{kSavedResults + 1});
  // The resumed run is on disk again at once, under the killed run's names.
  auto saved = vl::plist::readDictionary(resumed->plistPath());
  ASSERT_TRUE(saved && saved->get("LastUpdated").asDate());
  EXPECT_GE(*saved->get("LastUpdated").asDate(), beforeResume);

  // The saver the service starts writes the resume data again with its first, immediate save.
  EXPECT_FALSE(VLResults::hasResumeData());
  auto saver = vl::startPeriodicSave(resumed, 3600);
  for (int wait = 0; wait < 2000 && saver->saveCount() == 0; ++wait)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  saver.reset();
  EXPECT_TRUE(VLResults::hasResumeData());
}

TEST(ResultsFileTest, AFolderThatCannotBeMadeIsLoggedWithItsError) {
  vl::test::RunSandbox run;
  const std::string folder = run.device().home() + "/Library/Logs/Vorlund/Results";
  fs::remove_all(folder);
  vl::test::writeFile(folder, "a file where the results folder belongs");
  std::error_code expected;
  fs::create_directories(folder, expected);
  ASSERT_TRUE(expected);
  vl::LogCapture capture;
  run.results()->getResultsFilePath();
  EXPECT_TRUE(capture.contains(VLLogLevelError, "Default",
                               "Hit an error while creating directory structure: @% : " +
                                   expected.message() + " [" + folder + "]"));
}

}  // namespace
