// The host-link sample bundle: test cases that work with other devices and the host through the
// run's manager, reached over the gateway on this device.
//   FindPeers    advertises the characteristic of the option "Characteristic" and asks the manager
//                for the devices that have it; passes when at least "MinimumPeers" other devices
//                do. Metric "Peers".
//   RemoteEcho   runs "Echo" on the device whose serial number is the option "peer" and passes when
//                that run passes; "Timeout" bounds the wait (seconds, -1 for ever). Metric
//                "RoundTrip" (seconds).
//   Echo         the peer's half of RemoteEcho: passes when it knows who asked (the requesting
//                device travels in its options) and tags its result with the requester and message.
//   KingCommand  sends "Command" to the host as request number "Request" and passes when the host
//                answers "Success!"; otherwise fails with the host's answer as its reason.
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "vorlund/catalogue/bundle_registration.h"
#include "vorlund/catalogue/lookup.h"
#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/hostlink/manager_commands.h"
#include "vorlund/hostlink/remote_execution.h"
#include "vorlund/results/test_case_result.h"

namespace {

constexpr double kDefaultRemoteTimeout = 60;
constexpr double kDefaultKingTimeout = 30;

// The instance the registry made of this bundle's class: the reply holder of the calls below, so
// that late replies still find it.
std::shared_ptr<VLPendingReplyOwner> replyHolderFor(
    const std::shared_ptr<VLTestCaseObject>& testCase) {
  return VLGetClassForTestCase(testCase);
}

}  // namespace

class HostLinkStress : public VLTestCaseClass {
 public:
  std::shared_ptr<VLTestCaseResult> findPeers(std::shared_ptr<VLTestCaseObject> testCase) {
    auto result = VLTestCaseResult::withTestCaseObject(testCase);
    std::string characteristic =
        testCase->stringOption("Characteristic").value_or("hostlink-sample");
    VLManagerAddCharacteristic(vl::Value(characteristic));
    vl::Dictionary find;
    find.set("FindDevices",
             vl::Dictionary{{"characteristics", vl::Array{vl::Value(characteristic)}}});
    std::optional<vl::Dictionary> answer = VLManagerCommand(replyHolderFor(testCase), find);
    if (!answer) return vl::finishResult(result, "The manager did not answer FindDevices");
    const vl::Array* devices = answer->get("Result").asArray();
    if (!devices)
      return vl::finishResult(result,
                              "The manager's answer lists no devices: " + answer->description());
    const std::string self = vl::deviceSerialNumber();
    auto peers = std::count_if(devices->begin(), devices->end(), [&](const vl::Value& device) {
      const std::string* serial = device.asString();
      return serial && *serial != self;
    });
    result->addMetric(vl::Value(static_cast<double>(peers)), "Peers");
    const double minimum = testCase->numberOption("MinimumPeers").value_or(1);
    if (static_cast<double>(peers) < minimum) {
      return vl::finishResult(result, "Found " + std::to_string(peers) + " peers with " +
                                          characteristic + ", expected at least " +
                                          vl::Value(minimum).description());
    }
    return vl::finishResult(result, std::nullopt);
  }

  std::shared_ptr<VLTestCaseResult> remoteEcho(std::shared_ptr<VLTestCaseObject> testCase) {
    auto result = VLTestCaseResult::withTestCaseObject(testCase);
    std::optional<std::string> peer = testCase->stringOption("peer");
    if (!peer)
      return vl::finishResult(result, "No peer given: set the option peer to its serial number");
    std::shared_ptr<VLTestCaseObject> echo = VLGetObjectForTestCase("Echo");
    if (!echo) return vl::finishResult(result, "This device has no Echo test case to send");
    vl::Dictionary options = echo->options().value_or(vl::Dictionary{});
    options.set("Message", vl::Value(testCase->stringOption("Message").value_or("")));
    echo->setOptions(options);
    echo->setDestinationClass("device");
    echo->setDestinationIdentifier(*peer);
    double timeout = testCase->numberOption("Timeout").value_or(kDefaultRemoteTimeout);
    // 0 means "no time-out requested", which a remote test case may not be.
    echo->setTimeout(timeout == 0 ? kDefaultRemoteTimeout : timeout);

    const auto started = std::chrono::steady_clock::now();
    std::shared_ptr<VLTestCaseResult> remote =
        VLExecuteRemoteTestCase(replyHolderFor(testCase), echo);
    const std::chrono::duration<double> roundTrip = std::chrono::steady_clock::now() - started;
    result->addMetric(vl::Value(roundTrip.count()), "RoundTrip");
    if (!remote) return vl::finishResult(result, "No result came back from " + *peer);
    if (!remote->didPass()) {
      return vl::finishResult(result,
                              *peer + ": " + remote->getFailureReason().value_or("did not pass"));
    }
    return vl::finishResult(result, std::nullopt);
  }

  std::shared_ptr<VLTestCaseResult> echo(std::shared_ptr<VLTestCaseObject> testCase) {
    auto result = VLTestCaseResult::withTestCaseObject(testCase);
    std::optional<std::string> requester = testCase->stringOption("RequestingDevice");
    if (!requester) return vl::finishResult(result, "Echo was not asked by another device");
    result->addTag(vl::Value(*requester), "RequestingDevice");
    result->addTag(vl::Value(testCase->stringOption("Message").value_or("")), "Message");
    return vl::finishResult(result, std::nullopt);
  }

  std::shared_ptr<VLTestCaseResult> kingCommand(std::shared_ptr<VLTestCaseObject> testCase) {
    auto result = VLTestCaseResult::withTestCaseObject(testCase);
    const int request = static_cast<int>(testCase->numberOption("Request").value_or(1));
    const std::string command = testCase->stringOption("Command").value_or("");
    const double timeout = testCase->numberOption("Timeout").value_or(kDefaultKingTimeout);
    std::optional<std::string> outcome =
        VLExecuteKingCommandOnHost(replyHolderFor(testCase), request, vl::Value(command), timeout);
    if (outcome == "Success!") return vl::finishResult(result, std::nullopt);
    return vl::finishResult(result, outcome.value_or("The host gave no outcome"));
  }
};

VORLUND_BUNDLE_CLASS(HostLinkStress);
VORLUND_TEST_METHOD(HostLinkStress, findPeers);
VORLUND_TEST_METHOD(HostLinkStress, remoteEcho);
VORLUND_TEST_METHOD(HostLinkStress, echo);
VORLUND_TEST_METHOD(HostLinkStress, kingCommand);
