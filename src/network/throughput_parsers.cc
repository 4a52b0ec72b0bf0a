#include "vorlund/network/throughput_parsers.h"

#include <string>

#include "network/throughput_text.h"
#include "vorlund/logging/log.h"

namespace {

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || static_cast<unsigned char>(c) >= 0x80;
}

}  // namespace

double VLGetThroughputForStreamPerfOutput(std::string_view output) {
  std::string figure = "0.0";
  for (const std::string& line : vl::network::splitKeepingEmpty(output, "\n")) {
    if (line.find("Average Throughput") == std::string::npos) continue;
    figure.clear();
    for (char c : line) {
      if (!isLetter(c) && c != ':' && c != '\'' && c != ' ' && c != '\t') figure += c;
    }
    break;
  }
  double throughput = vl::network::leadingDouble(figure);
  if (!(throughput > 0 && throughput <= 100)) {
    VLLog(VLLogLevelError, nullptr, "Failing throughput from %@", std::string(output));
  }
  return throughput;
}

double VLGetThroughputFromCurlOutput(std::string_view output) {
  std::vector<std::string> parts = vl::network::splitKeepingEmpty(output, vl::network::kWhiteSpace);
  if (parts.size() < 2) return 0;
  return vl::network::leadingDouble(parts[1]) / 1048576.0;
}
