// Text helpers of the throughput parsers: splitting that keeps empty parts and the lenient reading
// of a leading number, so that "4.28\r" or "12abc" read as their number and junk reads as 0.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vl::network {

// The parts between separators; consecutive separators give empty parts, as do leading and
// trailing ones.
std::vector<std::string> splitKeepingEmpty(std::string_view text, std::string_view separators);

// The number at the start of text after leading white space ("+" or "-" allowed, decimal or
// exponent form; not "inf" or "nan"), or 0 when the text does not start with one. A number too
// large for a double reads as infinity.
double leadingDouble(std::string_view text);

inline constexpr std::string_view kWhiteSpace = " \t\n\r\v\f";

}  // namespace vl::network
