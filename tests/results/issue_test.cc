#include "vorlund/results/issue.h"

#include <gtest/gtest.h>

#include <cmath>

#include "catalogue/value_printers.h"
#include "results/run_sandbox.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/devicetools/crash_scanner.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/error.h"
#include "vorlund/logging/log_hooks.h"
#include "vorlund/results/issue_reporting.h"

namespace {

using vl::Dictionary;
using vl::Value;

std::shared_ptr<VLIssue> crashIssue(double seconds = 1700000000.75) {
  auto issue = VLIssue::make();
  issue->setReason(std::string("wpa_supplicant - Crash"));
  issue->setProcess(std::string("wpa_supplicant"));
  issue->setType(std::string("Crash"));
  issue->setTime(vl::Date{seconds});
  return issue;
}

std::string invalidReason(const VLIssue& issue) {
  try {
    issue.isValid();
  } catch (const VLException& exception) {
    EXPECT_EQ(exception.name(), "VLIssueInvalid");
    return exception.reason();
  }
  return "valid";
}

TEST(IssueTest, ValidityNamesTheFirstMissingFieldInOrder) {
  auto issue = VLIssue::make();
  EXPECT_EQ(invalidReason(*issue), issue->description() + " did not have a reason set");

  issue->setReason(std::string("r"));
  issue->setType(std::string("Crash"));
  EXPECT_EQ(invalidReason(*issue), issue->description() + " did not have a process set");
  issue->setProcess(std::string("p"));
  EXPECT_EQ(invalidReason(*issue), issue->description() + " did not have a time set");

  auto complete = crashIssue();
  complete->setType(std::nullopt);
  EXPECT_EQ(invalidReason(*complete), complete->description() + " did not have a type set");
  complete->setType(std::string("Crash"));
  complete->setInstances(0);
  EXPECT_EQ(invalidReason(*complete), complete->description() + " cannot have instances set to 0");
  complete->setInstances(3);
  EXPECT_TRUE(complete->isValid());
}

TEST(IssueTest, EqualityAndTheDictionaryForm) {
  // Equal on time, reason and process only; two issues without them are never equal.
  auto a = crashIssue();
  auto b = crashIssue();
  b->setType(std::string("Failure"));
  b->setInstances(9);
  EXPECT_TRUE(Value(a) == Value(b));
  b->setProcess(std::string("iwd"));
  EXPECT_FALSE(a->isEqualToIssue(*b));
  EXPECT_FALSE(VLIssue::make()->isEqualToIssue(*VLIssue::make()));

  Dictionary dictionary = a->getDictionaryRepresentation();
  std::vector<std::string> keys{"Reason",        "Process",         "Type",      "Time",
                                "MTBFImpacting", "WirelessProcess", "Instances", "Class"};
  EXPECT_EQ(dictionary.keys(), keys);
  EXPECT_EQ(VLIssue::withDictionary(dictionary)->getDictionaryRepresentation(), dictionary);
  // A key of another type keeps the default.
  EXPECT_FALSE(VLIssue::withDictionary(Dictionary{{"Reason", 5}})->reason());
}

TEST(IssueTest, ReportingFunctionsAddToTheCurrentResults) {
  vl::test::RunSandbox run;
  VLAddCrashToResults("bluetoothd", "bluetoothd - Crash");
  VLAddFailureToResults("disk full");
  VLAddStatisticToResults("Sample requested but not implemented in any bundles");
  vl::logging::recordStatisticIssue("malformed event");

  std::vector<std::string> seen;
  for (const auto& issue : run.results()->issueList()) {
    seen.push_back(*issue->reason() + "|" + *issue->process() + "|" + *issue->type() +
                   (issue->primaryProcess() ? "|primary" : ""));
  }
  EXPECT_EQ(seen, (std::vector<std::string>{
                      "bluetoothd - Crash|bluetoothd|Crash|primary", "disk full|Vorlund|Failure",
                      "Sample requested but not implemented in any bundles|Vorlund|Statistic",
                      "malformed event|Vorlund|Statistic"}));
}

// The crash scanner beneath hands its finds to the results layer: into the current results, or to
// the recorder of a program that keeps the run elsewhere.
TEST(IssueTest, CrashScansReachTheCurrentResultsOrTheInstalledRecorder) {
  vl::test::RunSandbox run;
  std::string folder = vl::faultbinFoldersForUser("tmp").front();
  std::filesystem::create_directories(folder);
  // The run takes no issue older than itself: the report is dated a minute from now.
  const std::string date =
      vl::formatLocalTime(vl::Date{vl::Date::now().secondsSince1970 + 60}, "%Y-%m-%d-%H%M%S");
  std::filesystem::copy_file(
      std::string(VORLUND_TESTDATA_DIR) + "/faultbin/wpa_supplicant_2023-05-01-123456.ips",
      folder + "wpa_supplicant_" + date + ".ips");
  const vl::Date reportTime = *vl::parseFaultbinFileName("x_" + date).time;

  _VLProcessCrashesInFaultbinFolder("tmp");
  auto issues = run.results()->issueList();
  ASSERT_EQ(issues.size(), 1u);
  EXPECT_EQ(issues[0]->reason(), "wpa_supplicant - Crash");
  EXPECT_EQ(issues[0]->process(), "wpa_supplicant");
  EXPECT_EQ(issues[0]->type(), "Crash");
  EXPECT_EQ(issues[0]->time(), reportTime);

  std::vector<std::shared_ptr<VLIssue>> recorded;
  vl::setIssueRecorder([&](const std::shared_ptr<VLIssue>& issue) { recorded.push_back(issue); });
  _VLProcessCrashesInFaultbinFolder("tmp");
  vl::setIssueRecorder(nullptr);
  ASSERT_EQ(recorded.size(), 1u);
  EXPECT_TRUE(recorded[0]->isEqualToIssue(*issues[0]));
  EXPECT_EQ(run.results()->issueList()[0]->instances(), 1u);
}

}  // namespace
