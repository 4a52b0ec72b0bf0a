#include "vorlund/reports/fleet_summary.h"

#include <algorithm>
#include <cmath>

#include "vorlund/foundation/format.h"
#include "vorlund/results/test_case_statistic.h"

namespace vl {

namespace {

uint64_t roundedCount(double value) {
  return std::isfinite(value) && value > 0 ? static_cast<uint64_t>(std::llround(value)) : 0;
}

// A statistic keeps its failures as each bucket's share of the failed instances; a report counts
// instances.
DeviceFigures figuresOf(const VLTestCaseStatistic& statistic) {
  DeviceFigures figures;
  figures.instances = statistic.instances();
  figures.failureRate = statistic.failureRate();
  figures.failures = roundedCount(statistic.failureRate() * static_cast<double>(figures.instances));
  const Dictionary& failures = statistic.failures();
  for (size_t i = 0; i < failures.size(); ++i) {
    auto [bucket, share] = failures.entry(i);
    figures.failuresByBucket[bucket] =
        roundedCount(share.doubleOr(0) * static_cast<double>(figures.failures));
  }
  return figures;
}

std::vector<MetricSummary> metricsOf(const VLTestCaseStatistic& statistic) {
  std::vector<MetricSummary> metrics;
  if (statistic.type().value_or("") != "Average") return metrics;
  const Dictionary& all = statistic.metrics();
  for (size_t i = 0; i < all.size(); ++i) {
    auto [name, value] = all.entry(i);
    const Dictionary* figures = value.asDictionary();
    if (!figures) continue;
    auto figure = [&](const char* key) {
      const Value* v = figures->find(key);
      return v ? v->doubleOr(NAN) : NAN;
    };
    metrics.push_back({name, figure(kVLTestCaseStatisticMetricMean),
                       figure(kVLTestCaseStatisticMetricStdDeviation),
                       figure(kVLTestCaseStatisticMetricMin),
                       figure(kVLTestCaseStatisticMetricMax)});
  }
  return metrics;
}

std::shared_ptr<VLTestCaseStatistic> statisticAt(const Dictionary& statistics,
                                                 const std::string& key) {
  const Value* value = statistics.find(key);
  return value ? value->record<VLTestCaseStatistic>() : nullptr;
}

std::vector<IssueSummary> issuesOf(const Fleet& fleet) {
  std::vector<IssueSummary> issues;
  for (const std::shared_ptr<VLIssue>& issue : fleet.aggregate->issueList()) {
    IssueSummary summary;
    summary.reason = issue->reason().value_or("");
    summary.process = issue->process().value_or("");
    summary.type = issue->type().value_or("");
    for (const DeviceRun& device : fleet.devices) {
      uint64_t count = 0;
      for (const std::shared_ptr<VLIssue>& own : device.results->issueList()) {
        if (own->reason().value_or("") == summary.reason) count += own->instances();
      }
      if (count) summary.perDevice[device.device] += count;
      summary.total += count;
    }
    // An aggregate read from its own file may hold issues no device file still has.
    if (summary.total == 0) summary.total = issue->instances();
    issues.push_back(std::move(summary));
  }
  std::stable_sort(issues.begin(), issues.end(),
                   [](const IssueSummary& a, const IssueSummary& b) { return a.total > b.total; });
  return issues;
}

std::map<std::string, double> mtbfOf(VLResults& aggregate) {
  std::map<std::string, double> mtbf;
  Dictionary file = aggregate.resultsFileDictionary();
  if (const Dictionary* areas = file.get("MTBF").asDictionary()) {
    for (size_t i = 0; i < areas->size(); ++i) {
      auto [area, seconds] = areas->entry(i);
      mtbf[area] = seconds.doubleOr(NAN);
    }
  }
  return mtbf;
}

std::string percent(double rate) {
  return std::isfinite(rate) ? format("%.1f%%", rate * 100.0) : "-";
}

std::string number(double value) { return std::isfinite(value) ? format("%.3f", value) : "nan"; }

std::string hours(double seconds) {
  return std::isfinite(seconds) ? format("%.2f h", seconds / 3600.0) : "-";
}

std::string padded(const std::string& text, size_t width) {
  return text.size() >= width ? text + " " : text + std::string(width - text.size(), ' ');
}

nlohmann::json finiteOrNull(double value) {
  return std::isfinite(value) ? nlohmann::json(value) : nlohmann::json(nullptr);
}

nlohmann::json figuresJson(const DeviceFigures& figures) {
  return {{"instances", figures.instances},
          {"failures", figures.failures},
          {"failureRate", finiteOrNull(figures.failureRate)},
          {"failuresByBucket", figures.failuresByBucket}};
}

}  // namespace

FleetSummary summarizeFleet(const Fleet& fleet) {
  FleetSummary summary;
  // Sorted by name, so a device with two runs is listed once.
  for (const DeviceRun& device : fleet.devices) {
    if (summary.devices.empty() || summary.devices.back() != device.device) {
      summary.devices.push_back(device.device);
    }
  }
  if (!fleet.aggregate) return summary;
  VLResults& aggregate = *fleet.aggregate;
  summary.runtime = aggregate.runtime();
  summary.mergedResults = aggregate.mergedResults();
  summary.testcaseQI = aggregate.testcaseQI();
  summary.QI = aggregate.QI();
  summary.estimatedQI = aggregate.estimatedQI();
  summary.mtbf = mtbfOf(aggregate);

  const Dictionary statistics = aggregate.testCaseStatistics();
  std::vector<Dictionary> deviceStatistics;
  for (const DeviceRun& device : fleet.devices) {
    deviceStatistics.push_back(device.results->testCaseStatistics());
  }
  for (size_t i = 0; i < statistics.size(); ++i) {
    const std::string& key = statistics.keys()[i];
    std::shared_ptr<VLTestCaseStatistic> statistic = statisticAt(statistics, key);
    if (!statistic) continue;
    TestCaseSummary row;
    row.name = statistic->name();
    row.type = statistic->type().value_or("");
    row.total = figuresOf(*statistic);
    row.metrics = metricsOf(*statistic);
    // Two runs of one device count as that device's together: their counts add up and their
    // metrics are pooled as the aggregate pools runs (a run whose metrics cannot be pooled with
    // the first's adds its counts only).
    std::map<std::string, std::shared_ptr<VLTestCaseStatistic>> pooled;
    for (size_t d = 0; d < fleet.devices.size(); ++d) {
      std::shared_ptr<VLTestCaseStatistic> own = statisticAt(deviceStatistics[d], key);
      if (!own) continue;
      const std::string& device = fleet.devices[d].device;
      DeviceFigures more = figuresOf(*own);
      auto [held, first] = row.perDevice.emplace(device, more);
      if (first) {
        pooled[device] = std::make_shared<VLTestCaseStatistic>(*own);
        continue;
      }
      DeviceFigures& figures = held->second;
      figures.instances += more.instances;
      figures.failures += more.failures;
      figures.failureRate = figures.instances ? static_cast<double>(figures.failures) /
                                                    static_cast<double>(figures.instances)
                                              : 0.0;
      for (const auto& [bucket, count] : more.failuresByBucket) {
        figures.failuresByBucket[bucket] += count;
      }
      pooled[device]->mergeWithStatistic(*own);
    }
    for (auto& [device, figures] : row.perDevice) figures.metrics = metricsOf(*pooled[device]);
    summary.testCases.push_back(std::move(row));
  }
  std::sort(summary.testCases.begin(), summary.testCases.end(),
            [](const TestCaseSummary& a, const TestCaseSummary& b) { return a.name < b.name; });
  summary.issues = issuesOf(fleet);
  return summary;
}

std::string fleetSummaryText(const FleetSummary& summary) {
  std::string devices;
  for (const std::string& device : summary.devices)
    devices += (devices.empty() ? "" : ", ") + device;
  std::string text = format("%lu device(s): %@\n", summary.devices.size(), devices);
  text += format("Merged results %lld, run time %@\n",
                 static_cast<long long>(summary.mergedResults), hours(summary.runtime));
  text += format("QI %@  estimated QI %@  test case QI %@\n", number(summary.QI),
                 number(summary.estimatedQI), number(summary.testcaseQI));
  std::string mtbf;
  for (const auto& [area, seconds] : summary.mtbf) mtbf += format("  %@ %@", area, hours(seconds));
  text += "MTBF" + (mtbf.empty() ? std::string("  no wireless crash") : mtbf) + "\n\n";

  size_t nameWidth = 10;
  for (const TestCaseSummary& row : summary.testCases)
    nameWidth = std::max(nameWidth, row.name.size() + 2);
  text += padded("Test case", nameWidth) + padded("Instances", 11) + padded("Failures", 10) +
          padded("Rate", 8);
  for (const std::string& device : summary.devices)
    text += padded(device, std::max<size_t>(9, device.size() + 2));
  text += "\n";
  for (const TestCaseSummary& row : summary.testCases) {
    text += padded(row.name, nameWidth) +
            padded(format("%llu", (unsigned long long)row.total.instances), 11) +
            padded(format("%llu", (unsigned long long)row.total.failures), 10) +
            padded(percent(row.total.failureRate), 8);
    for (const std::string& device : summary.devices) {
      auto it = row.perDevice.find(device);
      text += padded(it == row.perDevice.end() ? "-" : percent(it->second.failureRate),
                     std::max<size_t>(9, device.size() + 2));
    }
    text += "\n";
    for (const auto& [bucket, count] : row.total.failuresByBucket) {
      std::string where;
      for (const auto& [device, figures] : row.perDevice) {
        auto own = figures.failuresByBucket.find(bucket);
        if (own != figures.failuresByBucket.end() && own->second) {
          where += format("%@%@ %llu", where.empty() ? "" : ", ", device,
                          (unsigned long long)own->second);
        }
      }
      text += format("    failed %llu x \"%@\" (%@)\n", (unsigned long long)count, bucket, where);
    }
    for (const MetricSummary& metric : row.metrics) {
      text += format("    %@: mean %@  deviation %@  min %@  max %@\n", metric.name,
                     number(metric.mean), number(metric.deviation), number(metric.minimum),
                     number(metric.maximum));
    }
  }
  if (summary.issues.empty()) return text + "\nNo issues\n";
  text += "\nIssues\n";
  for (const IssueSummary& issue : summary.issues) {
    std::string where;
    for (const auto& [device, count] : issue.perDevice) {
      where += format("%@%@ %llu", where.empty() ? "" : ", ", device, (unsigned long long)count);
    }
    text += format("  %llu x %@ %@: %@ (%@)\n", (unsigned long long)issue.total, issue.type,
                   issue.process, issue.reason, where);
  }
  return text;
}

nlohmann::json fleetSummaryJson(const FleetSummary& summary) {
  nlohmann::json json;
  json["devices"] = summary.devices;
  json["runTime"] = finiteOrNull(summary.runtime);
  json["mergedResults"] = summary.mergedResults;
  json["QI"] = finiteOrNull(summary.QI);
  json["estimatedQI"] = finiteOrNull(summary.estimatedQI);
  json["testCaseQI"] = finiteOrNull(summary.testcaseQI);
  nlohmann::json mtbf = nlohmann::json::object();
  for (const auto& [area, seconds] : summary.mtbf) mtbf[area] = finiteOrNull(seconds);
  json["MTBF"] = mtbf;
  json["testCases"] = nlohmann::json::array();
  for (const TestCaseSummary& row : summary.testCases) {
    nlohmann::json entry = figuresJson(row.total);
    entry["name"] = row.name;
    entry["type"] = row.type;
    nlohmann::json perDevice = nlohmann::json::object();
    for (const auto& [device, figures] : row.perDevice) perDevice[device] = figuresJson(figures);
    entry["devices"] = perDevice;
    nlohmann::json metrics = nlohmann::json::object();
    for (const MetricSummary& metric : row.metrics) {
      metrics[metric.name] = {{"mean", finiteOrNull(metric.mean)},
                              {"deviation", finiteOrNull(metric.deviation)},
                              {"min", finiteOrNull(metric.minimum)},
                              {"max", finiteOrNull(metric.maximum)}};
    }
    entry["metrics"] = metrics;
    json["testCases"].push_back(std::move(entry));
  }
  json["issues"] = nlohmann::json::array();
  for (const IssueSummary& issue : summary.issues) {
    json["issues"].push_back({{"reason", issue.reason},
                              {"process", issue.process},
                              {"type", issue.type},
                              {"total", issue.total},
                              {"devices", issue.perDevice}});
  }
  return json;
}

}  // namespace vl
