// vorlundctl results: records results and issues in the current run of this user and shows it.
// The run is the stress service's while it runs, else the one in this user's files (user_run.h).
// Input is checked before the run is touched: an invalid result or issue is refused with the
// system's reason and the run is left as it was.
#include <cmath>
#include <cstdio>

#include "commands.h"
#include "user_run.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/json.h"
#include "vorlund/results/issue.h"
#include "vorlund/results/test_case_result.h"
#include "vorlund/results/test_case_statistic.h"

namespace vorlundctl {

namespace {

std::pair<std::string, std::string> splitPair(const std::string& text, const char* option) {
  size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0) {
    throw UsageFailure(std::string(option) + " takes KEY=VALUE, not '" + text + "'");
  }
  return {text.substr(0, equals), text.substr(equals + 1)};
}

// A metric value: a number when it looks like one (and then it must be one whole), else text.
vl::Value metricValue(const std::string& key, const std::string& text) {
  bool looksNumeric = !text.empty() && (std::isdigit(static_cast<unsigned char>(text[0])) ||
                                        text[0] == '-' || text[0] == '+' || text[0] == '.');
  if (!looksNumeric) return vl::Value(text);
  std::optional<vl::Value> parsed = vl::json::parse(text[0] == '+' ? text.substr(1) : text);
  if (!parsed || !parsed->isNumber() || !std::isfinite(parsed->asNumber()->doubleValue())) {
    throw UsageFailure("metric " + key + ": malformed number '" + text + "'");
  }
  return *parsed;
}

vl::Date parseDate(const std::string& text, const char* option) {
  std::optional<vl::Date> date = vl::dateFromString(text);
  if (!date)
    throw UsageFailure(std::string(option) + " takes a date as yyyy-MM-dd-HH-mm-ss, not '" + text +
                       "'");
  return *date;
}

struct AddOptions {
  std::string name, type, failReason, start, end;
  bool pass = false;
  std::vector<std::string> metrics, tags;
};

std::shared_ptr<VLTestCaseResult> buildResult(const AddOptions& o) {
  static const std::vector<std::string> kTypes = {
      kVLTestCaseResultTypePassFail, kVLTestCaseResultTypeAverage,
      kVLTestCaseResultTypeTimeHistogram, kVLTestCaseResultTypeInstanceHistogram};
  if (std::find(kTypes.begin(), kTypes.end(), o.type) == kTypes.end()) {
    throw UsageFailure("unknown result type '" + o.type +
                       "' (PassFail, Average, HistogramByTime or HistogramByInstance)");
  }
  auto result = VLTestCaseResult::withName(o.name);
  result->setType(o.type);
  if (o.pass) result->pass();
  if (!o.failReason.empty()) result->failWithReason(o.failReason);
  for (const auto& text : o.metrics) {
    auto [key, value] = splitPair(text, "--metric");
    result->addMetric(metricValue(key, value), key);
  }
  for (const auto& text : o.tags) {
    auto [key, value] = splitPair(text, "--tag");
    result->addTag(vl::Value(value), key);
  }
  vl::Date now = vl::Date::now();
  result->setStartTime(o.start.empty() ? now : parseDate(o.start, "--start"));
  result->setEndTime(o.end.empty() ? now : parseDate(o.end, "--end"));
  if (std::optional<std::string> reason = result->validationFailure()) throw UsageFailure(*reason);
  return result;
}

void printRun(const vl::Dictionary& run, bool asJson) {
  if (asJson) {
    std::printf("%s\n", vl::json::displayString(run).c_str());
    return;
  }
  const vl::Array* statistics = run.get("TestCases").asArray();
  const vl::Array* issues = run.get("Issues").asArray();
  std::printf("Run started %s, run time %.0f s, QI %.2f, estimated QI %.2f\n",
              run.get("StartTime").stringOr("-").c_str(), run.get("RunTime").doubleOr(0),
              run.get("QI").doubleOr(0), run.get("EstimatedQI").doubleOr(0));
  std::printf("\nTest cases (%zu)\n", statistics ? statistics->size() : 0);
  for (size_t n = 0; statistics && n < statistics->size(); ++n) {
    const vl::Value& v = (*statistics)[n];
    const vl::Dictionary& s = *v.asDictionary();
    std::printf("  %-32s %-20s instances %-6lld failure rate %.2f\n",
                s.get("Name").stringOr("").c_str(), s.get("Type").stringOr("-").c_str(),
                static_cast<long long>(s.get("Instances").int64Or(0)),
                s.get("FailureRate").doubleOr(0));
    const vl::Dictionary* failures = s.get("Failures").asDictionary();
    for (size_t i = 0; failures && i < failures->size(); ++i) {
      auto [bucket, share] = failures->entry(i);
      std::printf("      failure  %-40s %s\n", bucket.c_str(), share.description().c_str());
    }
    if (const vl::Dictionary* metrics = s.get("Metrics").asDictionary()) {
      for (size_t i = 0; i < metrics->size(); ++i) {
        auto [metric, figures] = metrics->entry(i);
        const vl::Dictionary* f = figures.asDictionary();
        if (!f) continue;
        std::printf("      metric   %-24s mean %g  deviation %g  min %s  max %s\n", metric.c_str(),
                    f->get(kVLTestCaseStatisticMetricMean).doubleOr(0),
                    f->get(kVLTestCaseStatisticMetricStdDeviation).doubleOr(0),
                    f->get(kVLTestCaseStatisticMetricMin).description().c_str(),
                    f->get(kVLTestCaseStatisticMetricMax).description().c_str());
      }
    }
    if (const vl::Dictionary* buckets = s.get("Buckets").asDictionary()) {
      for (size_t i = 0; i < buckets->size(); ++i) {
        auto [bucket, share] = buckets->entry(i);
        std::printf("      bucket   %-40s %s\n", bucket.c_str(), share.description().c_str());
      }
    }
  }
  std::printf("\nIssues (%zu)\n", issues ? issues->size() : 0);
  for (size_t n = 0; issues && n < issues->size(); ++n) {
    const vl::Dictionary* issue = (*issues)[n].asDictionary();
    if (!issue) continue;
    std::printf("  %-8s %-24s %s (x%lld)\n", issue->get(kVLIssueKeyType).stringOr("-").c_str(),
                issue->get(kVLIssueKeyProcess).stringOr("-").c_str(),
                issue->get(kVLIssueKeyReason).stringOr("").c_str(),
                static_cast<long long>(issue->get(kVLIssueKeyInstances).int64Or(0)));
  }
  std::printf("\nResults file: %s\nTimeline:     %s\n", run.get("ResultsFile").stringOr("").c_str(),
              run.get("Timeline").stringOr("").c_str());
}

}  // namespace

void addResultsCommand(CLI::App& app) {
  auto* results =
      app.add_subcommand("results", "Record results and issues in this user's run, and show it");
  results->require_subcommand(1);

  static AddOptions add;
  auto* addCommand = results->add_subcommand("add", "Add one test case result to the current run");
  addCommand->add_option("--name", add.name, "Test case name")->required();
  addCommand
      ->add_option("--type", add.type, "PassFail, Average, HistogramByTime or HistogramByInstance")
      ->required();
  auto* passFlag = addCommand->add_flag("--pass", add.pass, "The test case passed");
  addCommand->add_option("--fail", add.failReason, "The test case failed for REASON")
      ->excludes(passFlag);
  addCommand->add_option("--metric", add.metrics, "A measurement KEY=VALUE (repeatable)");
  addCommand->add_option("--tag", add.tags, "A label KEY=VALUE (repeatable)");
  addCommand->add_option("--start", add.start, "Start time, yyyy-MM-dd-HH-mm-ss (default now)");
  addCommand->add_option("--end", add.end, "End time, yyyy-MM-dd-HH-mm-ss (default now)");
  setAction(addCommand, [] {
    auto result = buildResult(add);
    addResultToUserRun(result);
    std::printf("%s %s\n", add.name.c_str(),
                result->didPass() ? "passed" : (result->didFail() ? "failed" : "recorded"));
    return 0;
  });

  static std::string issueProcess, issueReason, issueType, issueTime;
  auto* issueCommand =
      results->add_subcommand("add-issue", "Add one issue (a crash or failure) to the current run");
  issueCommand->add_option("--process", issueProcess, "The process concerned")->required();
  issueCommand->add_option("--reason", issueReason, "What happened")->required();
  issueCommand->add_option("--type", issueType, "Crash or Failure")
      ->required()
      ->check(CLI::IsMember({"Crash", "Failure"}));
  issueCommand->add_option("--time", issueTime, "When, yyyy-MM-dd-HH-mm-ss (default now)");
  setAction(issueCommand, [] {
    auto issue = VLIssue::make();
    issue->setProcess(issueProcess);
    issue->setReason(issueReason);
    issue->setType(issueType);
    issue->setTime(issueTime.empty() ? vl::Date::now() : parseDate(issueTime, "--time"));
    issue->setInstances(1);
    try {
      issue->isValid();
    } catch (const VLException& e) {
      throw UsageFailure(e.reason());
    }
    addIssueToUserRun(issue);
    std::printf("issue recorded: %s %s\n", issueType.c_str(), issueProcess.c_str());
    return 0;
  });

  static bool showJson = false;
  auto* showCommand =
      results->add_subcommand("show", "Show the run's statistics, issues and quality figures");
  showCommand->add_flag("--json", showJson, "Print as JSON");
  setAction(showCommand, [] {
    printRun(userRunSummary(), showJson);
    return 0;
  });

  auto* saveCommand = results->add_subcommand(
      "save", "Write the current run to its results file and print where it is; the run goes on");
  setAction(saveCommand, [] {
    vl::ipm::RunFiles files = saveUserRun();
    std::printf("Results file: %s\nTimeline:     %s\n", files.resultsFile.c_str(),
                files.timeline.c_str());
    return 0;
  });

  auto* resetCommand = results->add_subcommand("reset", "Save the current run and start a new one");
  setAction(resetCommand, [] {
    std::string saved = resetUserRun();
    std::printf("saved %s; the next result starts a new run\n", saved.c_str());
    return 0;
  });
}

}  // namespace vorlundctl
