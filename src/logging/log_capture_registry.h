// The live LogCaptures, which VLLogMessage feeds before handing a line to the toolkit.
#pragma once

#include <string>

#include "vorlund/logging/log.h"

namespace vl {

// Records the line in every live LogCapture. category may be nullptr ("Default").
// True while at least one LogCapture lives.
bool logCapturesActive();

void recordInLogCaptures(VLLogLevel level, const char* category, const std::string& message);

}  // namespace vl
