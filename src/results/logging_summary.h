// The logging summary a new run records ("Logging Info"); the device summaries come from
// deviceinfo (vorlund/deviceinfo/device_identity.h).
#pragma once

#include "vorlund/foundation/value.h"

namespace vl::results {

// "LogDirectory": the folder of the log files; "ProcessName": the process that made the run.
Dictionary loggingSummary();

}  // namespace vl::results
