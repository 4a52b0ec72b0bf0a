// A network test bundle that measures for real: a ping of a host (the default gateway when none is
// given), an HTTP download of a URL and an iperf run against a server, each an "Average" result
// with its figures as metrics, failed with the tool's reason. Options (strings or numbers):
//   Network Ping      Host, Interface, Count, Interval, Size
//   Network Download  URL, Timeout (seconds; the bundle's default is 60)
//   Network Iperf     Server, Port, Tool ("iperf": iperf 2's 120-second run, or "iperf3"),
//                     Seconds (iperf3 only), IPv6 ("YES")
#include <optional>
#include <string>

#include "vorlund/catalogue/bundle_registration.h"
#include "vorlund/network/http_download.h"
#include "vorlund/network/iperf.h"
#include "vorlund/network/ping.h"
#include "vorlund/network/ping_summary.h"
#include "vorlund/network/routes.h"
#include "vorlund/results/test_case_result.h"

namespace {

// An "Average" result of the test case that has run from its start until now.
std::shared_ptr<VLTestCaseResult> averageResult(const std::shared_ptr<VLTestCaseObject>& testCase) {
  auto result = VLTestCaseResult::withTestCaseObject(testCase);
  result->setType(std::string(kVLTestCaseResultTypeAverage));
  return result;
}

std::string reasonOf(const vl::Error& error) {
  return error.userInfo.get("Reason").stringOr(error.localizedDescription());
}

}  // namespace

class NetworkStress : public VLTestCaseClass {
 public:
  std::shared_ptr<VLTestCaseResult> pingHost(std::shared_ptr<VLTestCaseObject> testCase) {
    auto result = averageResult(testCase);
    std::optional<std::string> host = testCase->stringOption("Host");
    if (!host) {
      std::optional<vl::network::DefaultRoute> route = vl::network::defaultRoute();
      if (!route) return vl::finishResult(result, "No host given and no default gateway to ping");
      host = route->gateway;
    }
    VLPing ping;
    ping.setUrlString(*host);
    // Without an interface the ping would switch to IPv6: name the one that reaches the host.
    std::optional<std::string> interface = testCase->stringOption("Interface");
    ping.setInterface(interface ? interface : vl::network::interfaceForIPv4Host(*host));
    if (auto count = testCase->numberOption("Count")) ping.setCount(static_cast<int64_t>(*count));
    if (auto interval = testCase->numberOption("Interval")) ping.setInterval(*interval);
    if (auto size = testCase->numberOption("Size")) ping.setSize(static_cast<int64_t>(*size));
    VLPingStatistics statistics = ping.execute();
    if (ping.error()) return vl::finishResult(result, reasonOf(*ping.error()));
    result->addMetric(static_cast<double>(statistics.packetsReceived), "PacketsReceived");
    result->addMetric(statistics.packetLoss, "PacketLoss");
    result->addMetric(statistics.roundTripMin, "RoundTripMin");
    result->addMetric(statistics.roundTripAverage, "RoundTripAverage");
    result->addMetric(statistics.roundTripMax, "RoundTripMax");
    if (vl::network::hasRoundTripStdDev(statistics)) {
      result->addMetric(statistics.roundTripStdDev, "RoundTripStdDev");
    }
    return vl::finishResult(result, std::nullopt);
  }

  std::shared_ptr<VLTestCaseResult> downloadURL(std::shared_ptr<VLTestCaseObject> testCase) {
    auto result = averageResult(testCase);
    auto download = VLHTTPDownload::make();
    download->setUrlString(testCase->stringOption("URL"));
    download->setTimeout(testCase->numberOption("Timeout").value_or(60));
    double throughput = download->download();
    if (download->error()) return vl::finishResult(result, reasonOf(*download->error()));
    result->addMetric(throughput, "Throughput");
    result->addMetric(download->downloadTime(), "DownloadTime");
    result->addMetric(static_cast<double>(download->bytesReceived()), "Bytes");
    return vl::finishResult(result, std::nullopt);
  }

  std::shared_ptr<VLTestCaseResult> iperfThroughput(std::shared_ptr<VLTestCaseObject> testCase) {
    auto result = averageResult(testCase);
    std::optional<std::string> server = testCase->stringOption("Server");
    if (!server) return vl::finishResult(result, "No iperf server given");
    const bool ipv6 = testCase->stringOption("IPv6") == "YES";
    VLIperf& iperf = VLIperf::sharedIperf();
    iperf.setPort(static_cast<int>(testCase->numberOption("Port").value_or(0)));
    if (testCase->stringOption("Tool") == "iperf3") {
      VLIperf3Options options;
      options.seconds = testCase->numberOption("Seconds");
      vl::Iperf3Summary summary = iperf.runIperf3Client(*server, ipv6, options);
      if (summary.error) return vl::finishResult(result, summary.error);
      if (summary.receivedBitsPerSecond) {
        result->addMetric(*summary.receivedBitsPerSecond / 1e6, "Throughput");
      }
      if (summary.sentBitsPerSecond) {
        result->addMetric(*summary.sentBitsPerSecond / 1e6, "SentThroughput");
      }
      if (summary.retransmits) {
        result->addMetric(static_cast<double>(*summary.retransmits), "Retransmits");
      }
      return vl::finishResult(result, std::nullopt);
    }
    vl::IperfClientReading reading = iperf.runIperfClient(*server, ipv6);
    std::optional<double> megabits = vl::iperfMegabitsPerSecond(reading);
    if (!megabits)
      return vl::finishResult(result, reading.succeeded
                                          ? "Unreadable throughput figure: " + reading.text
                                          : reading.text);
    result->addMetric(*megabits, "Throughput");
    return vl::finishResult(result, std::nullopt);
  }
};

VORLUND_BUNDLE_CLASS(NetworkStress);
VORLUND_TEST_METHOD(NetworkStress, pingHost);
VORLUND_TEST_METHOD(NetworkStress, downloadURL);
VORLUND_TEST_METHOD(NetworkStress, iperfThroughput);
