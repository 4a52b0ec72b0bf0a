// The one call the results layer makes when a run ends (VLResults::finish()): the finished run is
// handed to a handler that a layer above installs (the host link passes it to the block ledger).
// Without a handler, nothing happens beyond the save.
#pragma once

#include <functional>

class VLResults;

namespace vl {

using FinishedRunHandler = std::function<void(const VLResults& run)>;

// Installs (or, with an empty function, removes) the handler of finished runs.
void setFinishedRunHandler(FinishedRunHandler handler);
// Calls the installed handler, if any, on the calling thread. An exception it throws is logged at
// level 16 and dropped: ending a run never fails for what a handler does.
void announceFinishedRun(const VLResults& run);

}  // namespace vl
