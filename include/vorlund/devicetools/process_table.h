// Queries of the processes on the device: the number of processor cores, a process identifier by
// short command name (from /proc), and the resident memory of a process by name (from the memory
// table tool "culler_rank").
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vorlund/foundation/error.h"

// The number of processors online on the host.
int64_t VLGetNumberOfCoresOnHost();

// The identifier of the first process, in ascending order of identifiers, whose short command name
// (/proc/PID/comm, at most 15 characters) equals name exactly; -1 when there is none or the process
// table cannot be read. A name longer than 15 characters therefore never matches.
int32_t VLGetPIDForProcess(const std::string& name);

// The first megabyte column of the process's line in the output of "culler_rank" (run through the
// shell runner with a 10 second time-out). 0.0, logged at level 1, when the tool is missing or no
// line names the process. The name is put into the line's pattern as it is: its regular-expression
// characters keep their meaning.
double VLGetMemoryForProcess(const std::string& name);

namespace vl {
// The identifiers of the processes in /proc, ascending; empty when /proc cannot be read.
std::vector<int32_t> processIdentifiers();

// The parser behind VLGetMemoryForProcess, a pure function over the memory table's text: the first
// megabyte figure of the first line that matches the line pattern with name put in as it is. None
// when nothing matches, with *matched left alone, or when the pattern does not compile (name holds
// a broken expression), with *error set. *matched gets the whole matching text.
std::optional<double> memoryFromMemoryTable(std::string_view output, const std::string& name,
                                            std::string* matched = nullptr, Error* error = nullptr);
}  // namespace vl
