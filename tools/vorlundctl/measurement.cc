#include "measurement.h"

#include <cstdio>

#include "user_run.h"
#include "vorlund/foundation/json.h"
#include "vorlund/results/test_case_result.h"

namespace vorlundctl {

// A measurement runs from the command's start to its report; a result without times is refused.
static const vl::Date kCommandStart = vl::Date::now();

int reportMeasurement(const Measurement& measurement, bool asJson) {
  auto result = VLTestCaseResult::withName(measurement.name);
  result->setType(std::string(kVLTestCaseResultTypeAverage));
  result->setStartTime(kCommandStart);
  result->setEndTime(vl::Date::now());
  for (const auto& [metric, value] : measurement.figures) result->addMetric(value, metric);
  if (measurement.failure) {
    result->failWithReason(*measurement.failure);
  } else {
    result->pass();
  }
  addResultToUserRun(result);

  if (asJson) {
    std::printf("%s\n", vl::json::displayString(vl::Value(result->dictionaryValue())).c_str());
  } else {
    for (const auto& [metric, value] : measurement.figures) {
      std::printf("%-24s %g\n", metric.c_str(), value);
    }
    if (measurement.failure) {
      std::printf("%s failed: %s\n", measurement.name.c_str(), measurement.failure->c_str());
    } else {
      std::printf("%s recorded\n", measurement.name.c_str());
    }
  }
  return measurement.failure ? 1 : 0;
}

}  // namespace vorlundctl
