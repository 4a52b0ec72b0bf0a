#include "vorlund/network/iperf_output.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "network/throughput_text.h"

namespace vl {

IperfClientReading readIperfClientOutput(std::string_view output, std::string_view errorOutput) {
  IperfClientReading reading;
  std::vector<std::string> lines = network::splitKeepingEmpty(output, "\n");
  if (lines.size() < 3) {
    reading.text = std::string(errorOutput);
    return reading;
  }
  // The report ends in a line feed, so the second-to-last part is the last line.
  reading.components = network::splitKeepingEmpty(lines[lines.size() - 2], network::kWhiteSpace);
  reading.idx = static_cast<long>(reading.components.size()) - 2;
  if (reading.idx < 1) {
    reading.text = "Malformed throughput line";
    return reading;
  }
  reading.succeeded = true;
  reading.text = reading.components[static_cast<size_t>(reading.idx)];
  reading.unit = reading.components.back();
  return reading;
}

std::optional<double> iperfMegabitsPerSecond(const IperfClientReading& reading) {
  if (!reading.succeeded) return std::nullopt;
  double value = 0;
  const std::string& text = reading.text;
  auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (failure != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
    return std::nullopt;
  }
  struct Unit {
    const char* name;
    double megabits;
  };
  static constexpr Unit kUnits[] = {
      {"bits/sec", 1e-6},
      {"Kbits/sec", 1e-3},
      {"Mbits/sec", 1},
      {"Gbits/sec", 1e3},
      {"Bytes/sec", 8e-6},
      {"KBytes/sec", 8 * 1024e-6},
      {"MBytes/sec", 8 * 1048576e-6},
      {"GBytes/sec", 8 * 1073741824e-6},
  };
  for (const Unit& unit : kUnits) {
    if (reading.unit == unit.name) return value * unit.megabits;
  }
  return std::nullopt;
}

std::string nullNonNumbersInJson(std::string_view text) {
  static constexpr std::string_view kTokens[] = {"-infinity", "infinity", "-nan",
                                                 "nan",       "-inf",     "inf"};
  auto isWordChar = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; };
  std::string cleaned;
  cleaned.reserve(text.size());
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (inString) {
      cleaned += c;
      if (c == '\\' && i + 1 < text.size()) {
        cleaned += text[++i];
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == '"') {
      inString = true;
      cleaned += c;
      continue;
    }
    bool replaced = false;
    if (c == '-' || c == 'n' || c == 'N' || c == 'i' || c == 'I') {
      for (std::string_view token : kTokens) {
        if (text.size() - i < token.size()) continue;
        bool same = true;
        for (size_t k = 0; k < token.size() && same; ++k) {
          same = std::tolower(static_cast<unsigned char>(text[i + k])) == token[k];
        }
        size_t after = i + token.size();
        // "-nan(0x8000)" is how some C libraries print a NaN with a payload.
        if (same && after < text.size() && text[after] == '(') {
          size_t close = text.find(')', after);
          if (close != std::string_view::npos) after = close + 1;
        }
        if (same && (after == text.size() || !isWordChar(text[after]))) {
          cleaned += "null";
          i = after - 1;
          replaced = true;
          break;
        }
      }
    }
    if (!replaced) cleaned += c;
  }
  return cleaned;
}

namespace {

std::optional<double> finiteNumber(const nlohmann::json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_number()) return std::nullopt;
  double value = it->get<double>();
  if (!std::isfinite(value)) return std::nullopt;
  return value;
}

const nlohmann::json* objectAt(const nlohmann::json& object, const char* key) {
  auto it = object.find(key);
  return it != object.end() && it->is_object() ? &*it : nullptr;
}

}  // namespace

Iperf3Summary parseIperf3Output(std::string_view text) {
  Iperf3Summary summary;
  nlohmann::json report = nlohmann::json::parse(nullNonNumbersInJson(text), nullptr, false);
  if (!report.is_object()) {
    summary.error = "Unreadable iperf3 output";
    return summary;
  }
  if (auto error = report.find("error"); error != report.end() && error->is_string()) {
    summary.error = error->get<std::string>();
  }
  if (const nlohmann::json* start = objectAt(report, "start")) {
    if (const nlohmann::json* test = objectAt(*start, "test_start")) {
      auto protocol = test->find("protocol");
      summary.udp = protocol != test->end() && *protocol == "UDP";
    }
  }
  const nlohmann::json* end = objectAt(report, "end");
  const nlohmann::json* sent = end ? objectAt(*end, "sum_sent") : nullptr;
  const nlohmann::json* received = end ? objectAt(*end, "sum_received") : nullptr;
  if (sent) {
    summary.sentBitsPerSecond = finiteNumber(*sent, "bits_per_second");
    if (auto retransmits = finiteNumber(*sent, "retransmits")) {
      summary.retransmits = static_cast<int64_t>(*retransmits);
    }
  }
  if (received) {
    summary.receivedBitsPerSecond = finiteNumber(*received, "bits_per_second");
    if (summary.udp) summary.jitterMilliseconds = finiteNumber(*received, "jitter_ms");
  }
  // Older reports of a UDP test carry the jitter in "sum" only.
  if (summary.udp && !summary.jitterMilliseconds && end) {
    if (const nlohmann::json* sum = objectAt(*end, "sum")) {
      summary.jitterMilliseconds = finiteNumber(*sum, "jitter_ms");
    }
  }
  if (!sent && !received && !summary.error) summary.error = "No totals in the iperf3 output";
  return summary;
}

}  // namespace vl
