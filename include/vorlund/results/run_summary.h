// What a front end shows of a run, as one dictionary of plain values (strings, numbers, arrays and
// dictionaries), the same whether the run is read in this process or sent by the stress service:
//   "StartTime"    the run's start, yyyy-MM-dd-HH-mm-ss
//   "RunTime", "QI", "EstimatedQI"   numbers, as the run reports them
//   "ResultsFile", "Timeline"        where the run is written
//   "TestCases"    one dictionary per test case statistic: "Name", "Type" (absent when unknown),
//                  "Instances", "FailureRate", "Failures", and "Metrics" for an Average test case
//                  or "Buckets" for a histogram
//   "Issues"       each issue's dictionary representation
#pragma once

#include "vorlund/foundation/value.h"
#include "vorlund/results/results.h"

namespace vl {

// The summary of run as it stands; the caller brings the run time up to date first if it wants.
Dictionary runSummary(VLResults& run);

}  // namespace vl
