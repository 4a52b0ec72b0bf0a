// What the measure commands share: a measurement's figures are printed and recorded as one
// "Average" result of the user's run, so that measurements taken from a shell script join the run
// and its timeline like any test case's.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vorlund/foundation/value.h"

namespace vorlundctl {

struct Measurement {
  std::string name;  // the result's name, e.g. "Ping 127.0.0.1"
  // Metric name and value, in the order printed; a figure the tool did not give is left out.
  std::vector<std::pair<std::string, double>> figures;
  std::optional<std::string> failure;  // the tool's error reason when the measurement failed
  // When the tool started: the result runs from here to the report. A run refuses a result
  // without a start, so the record is made before the tool runs.
  vl::Date start = vl::Date::now();
};

// Prints the figures, one "NAME VALUE" line each and then the outcome (or, with asJson, the
// recorded result's dictionary form as JSON), and adds the result to the user's run: passed, or
// failed with the failure's reason. Returns the exit status: 0, or 1 for a failed measurement.
// Throws UsageFailure when the run refuses the result.
int reportMeasurement(const Measurement& measurement, bool asJson);

}  // namespace vorlundctl
