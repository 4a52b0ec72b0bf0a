// Throughput figures read from the text other throughput tools print: a stream-performance tool's
// report and curl's write-out. Both are pure functions over the text; neither runs anything.
#pragma once

#include <string_view>

// The throughput of a stream-performance tool's report. The first line containing "Average
// Throughput" is taken; every letter is removed from it (units included: any non-ASCII character
// counts as a letter), then every ":", "'" and blank, and what remains is read as a number the way
// a leading number is read from text (0 when there is none). Without such a line the figure is
// 0.0. A figure outside (0, 100] is still returned, but logged at level 16 as "Failing throughput
// from <the whole output>"; that includes the 0 of a report without the line.
double VLGetThroughputForStreamPerfOutput(std::string_view output);

// The throughput of curl's write-out "X SPEED": the output is split at every white-space character
// (runs of blanks give empty parts, which count), and with at least two parts the second, read as
// a number of bytes per second, is returned in megabytes (of 1048576 bytes) per second. Fewer
// parts: 0. Meant for `curl -w "%{time_total} %{speed_download}"`.
double VLGetThroughputFromCurlOutput(std::string_view output);
