#include "vorlund/results/run_summary.h"

#include "vorlund/foundation/date_string.h"
#include "vorlund/results/issue.h"
#include "vorlund/results/test_case_result.h"
#include "vorlund/results/test_case_statistic.h"

namespace vl {
namespace {

Dictionary statisticSummary(const VLTestCaseStatistic& statistic) {
  Dictionary summary{{"Name", statistic.name()}};
  if (statistic.type()) summary.set("Type", *statistic.type());
  summary.set("Instances", statistic.instances());
  summary.set("FailureRate", statistic.failureRate());
  summary.set("Failures", statistic.failures());
  if (statistic.type() == std::optional<std::string>(kVLTestCaseResultTypeAverage)) {
    summary.set("Metrics", statistic.metrics());
  } else if (statistic.isHistogram()) {
    summary.set("Buckets", statistic.metrics());
  }
  return summary;
}

}  // namespace

Dictionary runSummary(VLResults& run) {
  Array testCases;
  const Dictionary statistics = run.testCaseStatistics();
  for (const Value& value : statistics.values()) {
    if (auto statistic = value.record<VLTestCaseStatistic>()) {
      testCases.push_back(statisticSummary(*statistic));
    }
  }
  Array issues;
  for (const auto& issue : run.issueList()) issues.push_back(issue->getDictionaryRepresentation());
  return Dictionary{{"StartTime", dateString(run.startTime())},
                    {"RunTime", run.runtime()},
                    {"QI", run.QI()},
                    {"EstimatedQI", run.estimatedQI()},
                    {"ResultsFile", run.getResultsFilePath()},
                    {"Timeline", run.timelinePath()},
                    {"TestCases", testCases},
                    {"Issues", issues}};
}

}  // namespace vl
