#include "vorlund/network/ping.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include "vorlund/catalogue/preferences.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/logging/log.h"
#include "vorlund/network/ping_command.h"
#include "vorlund/network/ping_summary.h"

namespace {

constexpr double kUserNameTimeout = 10;
constexpr const char* kPeerLinkInterfaceKey = "PeerLinkInterface";
constexpr const char* kDefaultPeerLinkInterface = "plnk0";

std::string peerLinkInterface() {
  vl::Dictionary preferences = VLGetPreferences();
  const std::string* name = preferences.get(kPeerLinkInterfaceKey).asString();
  return name && !name->empty() ? *name : kDefaultPeerLinkInterface;
}

}  // namespace

std::string VLGetPingStatisticsDescription(const VLPingStatistics& s) {
  return vl::format(
      "%ld packets transmitted, %ld packets received (%0.2f%% lost), round-trip "
      "min/avg/max/stddev = %0.3f/%0.3f/%0.3f/%0.3f ms",
      s.packetsTransmitted, s.packetsReceived, s.packetLoss, s.roundTripMin, s.roundTripAverage,
      s.roundTripMax, s.roundTripStdDev);
}

VLPing::VLPing() : password_(VLExecuteShellCommand("echo $USER", {}, true, kUserNameTimeout)) {}

VLPingStatistics VLPing::_initStats() { return VLPingStatistics{}; }

int VLPing::_convertAccessClassStringToInt(const std::string& accessClass) {
  if (accessClass == "BE") return 0;
  if (accessClass == "BK") return 1;
  if (accessClass == "VI") return 2;
  if (accessClass == "VO") return 3;
  return -1;
}

bool VLPing::hasIPV4Address() const {
  std::string address = "error";
  ifaddrs* list = nullptr;
  if (interface_ && getifaddrs(&list) == 0) {
    for (ifaddrs* entry = list; entry; entry = entry->ifa_next) {
      if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET || !entry->ifa_name ||
          *interface_ != entry->ifa_name) {
        continue;
      }
      char text[INET_ADDRSTRLEN] = {};
      const auto* ipv4 = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
      if (inet_ntop(AF_INET, &ipv4->sin_addr, text, sizeof text)) address = text;
    }
    freeifaddrs(list);
  }
  VLLog(VLLogLevelNotice, nullptr, "Got address: %@", address);
  return address.find('.') != std::string::npos;
}

VLPingStatistics VLPing::fail(const VLPingStatistics& statistics, std::string reason) {
  error_ = vl::Error::withReason(std::move(reason));
  return statistics;
}

VLPingStatistics VLPing::execute() {
  VLPingStatistics statistics = _initStats();
  error_.reset();
  if (!urlString_) return fail(statistics, "No URL specified before -[VLPing execute]");
  if (!hasIPV4Address()) isIPV6_ = true;

  vl::network::PingOptions options;
  options.host = *urlString_;
  options.ipv6 = isIPV6_;
  options.flood = isFloodPing_;
  options.interval = interval_;
  options.count = count_;
  options.size = size_;
  if (accessClass_) {
    int trafficClass = _convertAccessClassStringToInt(*accessClass_);
    if (trafficClass == -1) {
      return fail(statistics, vl::format("Invalid access class specified... %@", *accessClass_));
    }
    options.trafficClass = trafficClass;
  }
  if (interface_) options.interface = isIPV6_ && isPLNK_ ? peerLinkInterface() : *interface_;

  vl::network::PingFlavour flavour = vl::network::detectedPingFlavour();
  std::string command = vl::network::pingCommand(flavour, options);
  VLLog(VLLogLevelNotice, nullptr, "Running %@ ping: %@",
        std::string(vl::network::pingFlavourName(flavour)), command);
  std::string output = VLExecuteShellCommand(command, {}, true, timeout_);
  VLLog(VLLogLevelInfo, nullptr, "Output is \n%@", output);

  vl::network::PingSummary summary = vl::network::parsePingSummary(output);
  if (summary.failure) {
    if (*summary.failure != vl::network::kPingAllLost) {
      VLLog(VLLogLevelError, nullptr, "Output of failed ping was %@", output);
    }
    return fail(summary.statistics, *summary.failure);
  }
  return summary.statistics;
}
