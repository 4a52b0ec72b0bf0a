#include "vorlund/network/ping_command.h"

#include <mutex>

#include "devicetools/shell_quote.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/foundation/format.h"

namespace vl::network {

namespace {
constexpr double kVersionProbeTimeout = 10;
}  // namespace

std::string_view pingFlavourName(PingFlavour flavour) {
  switch (flavour) {
    case PingFlavour::kIputils:
      return "iputils";
    case PingFlavour::kBusyBox:
      return "BusyBox";
    case PingFlavour::kBsdStyle:
      break;
  }
  return "BSD-style";
}

PingFlavour pingFlavourFromVersionOutput(std::string_view text) {
  if (text.find("iputils") != std::string_view::npos) return PingFlavour::kIputils;
  if (text.find("BusyBox") != std::string_view::npos) return PingFlavour::kBusyBox;
  return PingFlavour::kBsdStyle;
}

PingFlavour detectedPingFlavour() {
  static std::once_flag once;
  static PingFlavour flavour = PingFlavour::kBsdStyle;
  std::call_once(once, [] {
    // "2>&1" would make the runner drop the output (it refuses commands with ">"); it joins the
    // two streams itself.
    flavour = pingFlavourFromVersionOutput(
        VLExecuteShellCommand("ping -V", {}, true, kVersionProbeTimeout));
  });
  return flavour;
}

int trafficClassTypeOfService(int trafficClass) {
  switch (trafficClass) {
    case 0:
      return 0x00;
    case 1:
      return 0x20;
    case 2:
      return 0xA0;
    case 3:
      return 0xC0;
    default:
      return -1;
  }
}

std::string pingCommand(PingFlavour flavour, const PingOptions& options) {
  bool bsd = flavour == PingFlavour::kBsdStyle;
  std::string command = !options.ipv6 ? "ping -q" : bsd ? "ping6 -q" : "ping -6 -q";
  if (options.trafficClass) {
    if (bsd) {
      command += vl::format(" -k %d", *options.trafficClass);
    } else if (flavour == PingFlavour::kIputils) {
      command += vl::format(" -Q %d", trafficClassTypeOfService(*options.trafficClass));
    }
  }
  if (options.interface) {
    // BSD's -b binds to an interface; Linux pings take -I for that (their -b allows broadcasts).
    command +=
        (bsd && !options.ipv6 ? " -b " : " -I ") + vl::devicetools::shellQuoted(*options.interface);
  }
  if (options.flood) {
    command += flavour == PingFlavour::kBusyBox ? " -A" : " -f";
  } else {
    command += vl::format(" -i %f", options.interval);
  }
  command += vl::format(" -c %ld -s %ld ", options.count, options.size);
  return command + vl::devicetools::shellQuoted(options.host);
}

}  // namespace vl::network
