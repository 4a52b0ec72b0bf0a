// The figures an engineer asks of a fleet after days of stress: per test case how often it ran,
// how often and how it failed, where, and what its metrics were; which issues happened on which
// device; the quality figures of the whole. One summary feeds the text, JSON, HTML and JUnit views.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "vorlund/reports/fleet.h"

namespace vl {

// A metric's figures pooled over every passing instance of every device.
struct MetricSummary {
  std::string name;
  double mean = 0;
  double deviation = 0;
  double minimum = 0;
  double maximum = 0;
};

// One test case on one device.
struct DeviceFigures {
  uint64_t instances = 0;
  // Failed instances (failure rate × instances, rounded) and failure rate.
  uint64_t failures = 0;
  double failureRate = 0;
  // Failed instances per failure bucket (reason).
  std::map<std::string, uint64_t> failuresByBucket;
  // "Average" test cases: the metrics of this device's passing instances (of all devices' in
  // TestCaseSummary::total).
  std::vector<MetricSummary> metrics;
};

struct TestCaseSummary {
  std::string name;
  // "Average", "PassFail", "HistogramByTime", ...; empty when unknown.
  std::string type;
  // Across every device: instances (seconds for "HistogramByTime"), failed instances, failure rate
  // and failed instances per bucket.
  DeviceFigures total;
  std::map<std::string, DeviceFigures> perDevice;
  // "Average" test cases: pooled metrics, in the aggregate's metric order.
  std::vector<MetricSummary> metrics;
};

struct IssueSummary {
  std::string reason;
  std::string process;
  std::string type;
  // Instances across the fleet and per device.
  uint64_t total = 0;
  std::map<std::string, uint64_t> perDevice;
};

struct FleetSummary {
  std::vector<std::string> devices;
  // Of the aggregate: run time (seconds, summed over devices), merged results, QI figures.
  double runtime = 0;
  int64_t mergedResults = 0;
  double testcaseQI = 0;
  double QI = 0;
  double estimatedQI = 0;
  // Area -> run time per wireless crash (seconds), as the results file's "MTBF".
  std::map<std::string, double> mtbf;
  // Sorted by name.
  std::vector<TestCaseSummary> testCases;
  // Most instances first.
  std::vector<IssueSummary> issues;
};

FleetSummary summarizeFleet(const Fleet& fleet);

// A plain-text table for a terminal: the quality figures, one line per test case with its
// failures by bucket and per-device failure rates, the pooled metrics, the issues per device.
std::string fleetSummaryText(const FleetSummary& summary);
// The same as one JSON object. Numbers that are not finite are null.
nlohmann::json fleetSummaryJson(const FleetSummary& summary);

}  // namespace vl
