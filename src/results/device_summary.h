// The device and logging summaries a new run records ("Hardware Info", "Software Info", "Logging
// Info"), read from the device root. Unknown values are left out.
#pragma once

#include "vorlund/foundation/value.h"

namespace vl::results {

// "SerialNumber", "HardwareModel" (DMI product name or device-tree model), "Architecture".
Dictionary hardwareSummary();
// "OSName" and "BuildVersion" (/etc/os-release PRETTY_NAME and VERSION_ID), "Kernel" (release).
Dictionary softwareSummary();
// "LogDirectory": the folder of the log files; "ProcessName": the process that made the run.
Dictionary loggingSummary();

}  // namespace vl::results
