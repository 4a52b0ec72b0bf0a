// vorlundctl measure ping: pings a host as a test case would (VLPing) and records the figures as an
// "Average" result of the user's run. vorlundctl parse ping: reads ping output from a file or
// standard input with the same summary parser and prints the figures.
#include <cstdio>

#include "commands.h"
#include "measurement.h"
#include "vorlund/foundation/json.h"
#include "vorlund/network/ping.h"
#include "vorlund/network/ping_summary.h"
#include "vorlund/network/routes.h"

namespace vorlundctl {

namespace {

std::vector<std::pair<std::string, double>> pingFigures(const VLPingStatistics& s, bool timed) {
  std::vector<std::pair<std::string, double>> figures = {
      {"PacketsTransmitted", static_cast<double>(s.packetsTransmitted)},
      {"PacketsReceived", static_cast<double>(s.packetsReceived)},
      {"PacketLoss", s.packetLoss}};
  if (!timed) return figures;
  figures.insert(figures.end(), {{"RoundTripMin", s.roundTripMin},
                                 {"RoundTripAverage", s.roundTripAverage},
                                 {"RoundTripMax", s.roundTripMax}});
  if (vl::network::hasRoundTripStdDev(s))
    figures.emplace_back("RoundTripStdDev", s.roundTripStdDev);
  return figures;
}

struct MeasurePingOptions {
  std::string host;
  int64_t count = 10;
  double interval = 1.0;
  int64_t size = 56;
  std::string interface;
  bool ipv6 = false;
  std::string accessClass;
  bool flood = false;
  double timeout = -1.0;
  bool json = false;
};

int measurePing(const MeasurePingOptions& o) {
  Measurement measurement{"Ping " + o.host, {}, std::nullopt};
  VLPing ping;
  ping.setUrlString(o.host);
  ping.setCount(o.count);
  ping.setInterval(o.interval);
  ping.setSize(o.size);
  ping.setIsIPV6(o.ipv6);
  ping.setIsFloodPing(o.flood);
  ping.setTimeout(o.timeout);
  if (!o.accessClass.empty()) ping.setAccessClass(o.accessClass);
  // Without an interface a ping switches to IPv6, so an IPv4 run names the one that reaches the
  // host.
  if (!o.interface.empty()) {
    ping.setInterface(o.interface);
  } else if (!o.ipv6) {
    ping.setInterface(vl::network::interfaceForIPv4Host(o.host));
  }
  VLPingStatistics statistics = ping.execute();
  if (ping.error()) measurement.failure = ping.error()->userInfo.get("Reason").stringOr("");
  // The counts of a summary that had them (all packets lost) are figures all the same.
  bool counted = !ping.error() || statistics.packetsTransmitted > 0;
  if (counted) measurement.figures = pingFigures(statistics, !ping.error());
  return reportMeasurement(measurement, o.json);
}

int parsePing(const std::string& file, bool asJson) {
  std::string text = readInputText(file);
  vl::network::PingSummary summary = vl::network::parsePingSummary(text);
  const VLPingStatistics& s = summary.statistics;
  if (asJson) {
    vl::Dictionary object;
    object.set("packetsTransmitted", vl::Value(s.packetsTransmitted));
    object.set("packetsReceived", vl::Value(s.packetsReceived));
    object.set("packetLoss", vl::Value(s.packetLoss));
    object.set("roundTripMin", vl::Value(s.roundTripMin));
    object.set("roundTripAverage", vl::Value(s.roundTripAverage));
    object.set("roundTripMax", vl::Value(s.roundTripMax));
    object.set("roundTripStdDev",
               vl::network::hasRoundTripStdDev(s) ? vl::Value(s.roundTripStdDev) : vl::Value());
    object.set("error", summary.failure ? vl::Value(*summary.failure) : vl::Value());
    std::printf("%s\n", vl::json::displayString(vl::Value(std::move(object))).c_str());
  } else {
    std::printf("%s\n", VLGetPingStatisticsDescription(s).c_str());
    if (summary.failure) std::printf("error: %s\n", summary.failure->c_str());
  }
  return summary.failure ? 1 : 0;
}

}  // namespace

void addPingCommands(CLI::App& app) {
  static MeasurePingOptions measure;
  CLI::App* measureParent = parentCommand(app, "measure", "Measure the network and record it");
  CLI::App* ping = measureParent->add_subcommand("ping", "Ping a host and record the figures");
  ping->add_option("HOST", measure.host, "Host name or address")->required();
  ping->add_option("--count", measure.count, "Packets to send (default 10)")
      ->check(CLI::PositiveNumber);
  ping->add_option("--interval", measure.interval, "Seconds between packets (default 1)")
      ->check(CLI::PositiveNumber);
  ping->add_option("--size", measure.size, "Payload bytes per packet (default 56)")
      ->check(CLI::NonNegativeNumber);
  ping->add_option("--interface", measure.interface,
                   "Interface to send on (default: the one that reaches the host)");
  ping->add_flag("--ipv6", measure.ipv6, "Use IPv6");
  ping->add_option("--access-class", measure.accessClass, "Traffic class: BE, BK, VI or VO");
  ping->add_flag("--flood", measure.flood, "Flood mode instead of an interval");
  ping->add_option("--timeout", measure.timeout,
                   "Seconds before the ping is killed (default none)");
  ping->add_flag("--json", measure.json, "Print the recorded result as JSON");
  setAction(ping, [] { return measurePing(measure); });

  static std::string file;
  static bool asJson = false;
  CLI::App* parseParent = parentCommand(app, "parse", "Parse a network tool's output");
  CLI::App* parse = parseParent->add_subcommand("ping", "Parse ping output (a file or stdin)");
  parse->add_option("FILE", file, "The output (default: standard input)");
  parse->add_flag("--json", asJson, "Print the figures as one JSON object");
  setAction(parse, [] { return parsePing(file, asJson); });
}

}  // namespace vorlundctl
