#include "results/logging_summary.h"

#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"

namespace vl::results {

Dictionary loggingSummary() {
  Dictionary summary;
  summary.set("LogDirectory", paths::expandTilde("~/Library/Logs/Vorlund"));
  std::string name = process::name();
  if (!name.empty()) summary.set("ProcessName", name);
  return summary;
}

}  // namespace vl::results
