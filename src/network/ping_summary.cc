#include "vorlund/network/ping_summary.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <vector>

namespace vl::network {

namespace {

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

std::string_view trimmedStart(std::string_view text) {
  size_t start = text.find_first_not_of(" \t");
  return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (size_t start = 0;;) {
    size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end == std::string_view::npos ? end : end - start));
    if (end == std::string_view::npos) return parts;
    start = end + 1;
  }
}

// The number a part begins with (after blanks), whatever follows it ("33.3333% packet loss",
// "0.062 ms"). Plain unsigned decimals only: a ping never prints signs, "nan", "inf" or exponents
// (from_chars would take the last ones even in fixed format).
template <typename T>
std::optional<T> leadingNumber(std::string_view part) {
  part = trimmedStart(part);
  if (part.empty() || part.front() < '0' || part.front() > '9') return std::nullopt;
  T value{};
  auto [end, status] = [&] {
    if constexpr (std::is_floating_point_v<T>) {
      return std::from_chars(part.data(), part.data() + part.size(), value,
                             std::chars_format::fixed);
    } else {
      return std::from_chars(part.data(), part.data() + part.size(), value);
    }
  }();
  if (status != std::errc()) return std::nullopt;
  return value;
}

// Fills the counts from a line such as "3 packets transmitted, 3 received, 0% packet loss". The
// received part is "M received" on iputils and "M packets received" elsewhere.
bool readCounts(std::string_view line, VLPingStatistics& statistics) {
  std::optional<int64_t> transmitted, received;
  std::optional<double> loss;
  for (std::string_view part : split(line, ',')) {
    if (contains(part, "packets transmitted")) {
      transmitted = leadingNumber<int64_t>(part);
    } else if (contains(part, "received")) {
      received = leadingNumber<int64_t>(part);
    } else if (contains(part, "packet loss")) {
      loss = leadingNumber<double>(part);
    }
  }
  if (!transmitted || !received || !loss) return false;
  statistics.packetsTransmitted = *transmitted;
  statistics.packetsReceived = *received;
  statistics.packetLoss = *loss;
  return true;
}

// Fills the times from "LABEL min/avg/max[/DEV] = a/b/c[/d] ms[, ...]". The label says whether a
// deviation follows; iputils' flood summary appends ", ipg/ewma x/y ms", which the fourth number
// ends before.
bool readRoundTrip(std::string_view line, VLPingStatistics& statistics) {
  size_t label = line.find("min/avg/max");
  size_t equals = line.find('=', label);
  if (equals == std::string_view::npos) return false;
  bool hasDeviation =
      line.substr(label, equals - label).find("min/avg/max/") != std::string_view::npos;
  std::vector<std::string_view> parts = split(line.substr(equals + 1), '/');
  size_t needed = hasDeviation ? 4 : 3;
  if (parts.size() < needed) return false;
  double times[4] = {0, 0, 0, std::numeric_limits<double>::quiet_NaN()};
  for (size_t i = 0; i < needed; ++i) {
    std::optional<double> time = leadingNumber<double>(parts[i]);
    if (!time) return false;
    times[i] = *time;
  }
  statistics.roundTripMin = times[0];
  statistics.roundTripAverage = times[1];
  statistics.roundTripMax = times[2];
  statistics.roundTripStdDev = times[3];
  return true;
}

}  // namespace

PingSummary parsePingSummary(std::string_view output) {
  PingSummary summary;
  std::vector<std::string_view> lines = split(output, '\n');
  for (std::string_view& line : lines) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  }
  auto header = std::find_if(lines.begin(), lines.end(), [](std::string_view line) {
    return contains(line, "statistics ---");
  });
  if (header == lines.end()) {
    summary.failure = kPingNoStatistics;
    return summary;
  }
  std::vector<std::string_view> tail(header + 1, lines.end());

  bool counted = false;
  for (std::string_view line : tail) {
    if (contains(line, "packets transmitted")) {
      counted = readCounts(line, summary.statistics);
      break;
    }
  }
  if (!counted) {
    summary.failure = kPingNoCounts;
    return summary;
  }
  if (summary.statistics.packetLoss == 100.0) {
    summary.failure = kPingAllLost;
    return summary;
  }
  bool timed = false;
  for (std::string_view line : tail) {
    if (contains(line, "min/avg/max")) {
      timed = readRoundTrip(line, summary.statistics);
      break;
    }
  }
  if (!timed) summary.failure = kPingNoRoundTrip;
  return summary;
}

bool hasRoundTripStdDev(const VLPingStatistics& statistics) {
  return !std::isnan(statistics.roundTripStdDev);
}

}  // namespace vl::network
