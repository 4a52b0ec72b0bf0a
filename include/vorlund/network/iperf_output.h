// Reading what an iperf client printed: iperf 2's text report and iperf 3's JSON report. Pure
// functions over the text; VLIperf (network/iperf.h) runs the tools and hands their output here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vl {

// How iperf 2's client output reads.
struct IperfClientReading {
  // True with the throughput figure as text in `text` (the number before the unit of the last
  // line, "94.1" of "... 94.1 Mbits/sec"); false with the reason in `text`.
  bool succeeded = false;
  std::string text;
  // The last line split at every white-space character (runs give empty parts) and the index
  // taken, number of parts - 2; both empty / 0 when the output had fewer than 3 lines.
  std::vector<std::string> components;
  long idx = 0;
  // The part after the figure ("Mbits/sec"), when there is one.
  std::string unit;
};

// Reads the client's standard output. It is split at line feeds; fewer than 3 parts is a failure
// whose text is errorOutput (the client's standard error, as it is). Otherwise the second-to-last
// part (the last line, the text ending in a line feed) is split at white space and the part at
// idx = parts - 2 is the figure; idx < 1 is the failure "Malformed throughput line". The figure is
// not checked to be a number: the text is the tool's own.
IperfClientReading readIperfClientOutput(std::string_view output, std::string_view errorOutput);

// The figure of a successful reading in megabits (10^6 bits) per second, from its number and its
// unit (bits/sec, Kbits/sec, Mbits/sec, Gbits/sec; and Bytes/sec to GBytes/sec for "-f" in upper
// case, with bytes of 8 bits and the binary prefixes iperf gives those). None when the reading
// failed, the figure is not a number or the unit is none of these.
std::optional<double> iperfMegabitsPerSecond(const IperfClientReading& reading);

// The figures of an iperf 3 client's JSON report ("--json"), taken from its "end" object: the
// sender's and the receiver's totals, the sender's retransmits (TCP) and the receiver's jitter
// (UDP). A figure the report does not hold, or holds as not-a-number, is none.
struct Iperf3Summary {
  std::optional<double> sentBitsPerSecond;
  std::optional<double> receivedBitsPerSecond;
  std::optional<int64_t> retransmits;
  std::optional<double> jitterMilliseconds;
  bool udp = false;  // the report is of a UDP test
  // The report's own "error" text, or why the text is no report; none for a complete report.
  std::optional<std::string> error;
};

// Parses the report. iperf 3 writes not-a-number figures as bare nan, -nan, inf or -inf, which
// JSON does not allow; those tokens (outside strings) are read as null first. Text that is no JSON
// object is the error "Unreadable iperf3 output"; a report without an "end" total carries its own
// "error" text when it has one, else "No totals in the iperf3 output".
Iperf3Summary parseIperf3Output(std::string_view text);

// The text with every bare nan, -nan, inf, -inf (any case; "infinity" too) outside JSON strings
// replaced by null, everything else left as it is.
std::string nullNonNumbersInJson(std::string_view text);

}  // namespace vl
