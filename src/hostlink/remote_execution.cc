#include "vorlund/hostlink/remote_execution.h"

#include <cstdio>
#include <cstdlib>

#include "hostlink/pending_request.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/logging/log.h"

namespace {

using vl::hostlink::PendingRequest;

constexpr const char* kRequestingDeviceKey = "RequestingDevice";

std::string timerExpired(double timeout) { return vl::format("%f second timer expired", timeout); }

void endWithFailure(VLTestCaseResult& result, const std::string& reason) {
  result.setEndTime(std::nullopt);
  result.failWithReason(reason);
}

std::shared_ptr<VLTestCaseResult> unarchivedResult(const vl::Dictionary& response) {
  return VLConvertDataToObject(response.get("Result").asData()).record<VLTestCaseResult>();
}

// Adds key = value unless value is none, as a dictionary literal cannot hold a missing field.
void setPresent(vl::Dictionary& dictionary, std::string key,
                const std::optional<std::string>& value) {
  if (value) dictionary.set(std::move(key), vl::Value(*value));
}

// A host command's outcome: "Success!" when the reply succeeded, else its "error" (none when it has
// none).
std::optional<std::string> kingOutcome(const vl::Dictionary& reply) {
  if (reply.get("succeeded").boolOr(false)) return vl::kKingCommandSucceeded;
  const vl::Value& error = reply.get("error");
  if (error.isNone()) return std::nullopt;
  if (const std::string* text = error.asString()) return *text;
  return error.description();
}

}  // namespace

std::shared_ptr<VLTestCaseResult> VLExecuteRemoteTestCase(
    const std::shared_ptr<VLPendingReplyOwner>& holder,
    const std::shared_ptr<VLTestCaseObject>& testCase) {
  if (!testCase) return VLTestCaseResult::asNoOp();
  if (testCase->timeout() == 0) {
    // A remote test case without a time-out is a caller's bug that has always stopped the
    // process. It stops before anything is sent, and says why.
    std::fprintf(stderr,
                 "VLExecuteRemoteTestCase: %s has a time-out of 0; a remote test case needs a "
                 "time-out in seconds, or -1 to wait for ever\n",
                 testCase->name().value_or("(null)").c_str());
    std::abort();
  }
  auto local = VLTestCaseResult::make();
  local->setName(testCase->name());
  local->setType(testCase->type());
  if (holder) {
    if (std::optional<int64_t> technology = holder->technology()) {
      local->setTechnologiesInvolved(*technology);
    }
  }
  local->setStartTime(std::nullopt);
  if (!holder) {
    endWithFailure(*local, "No reply holder");
    return local;
  }

  const int descriptor = vl::hostlink::connectToGateway();
  if (descriptor < 0) {
    endWithFailure(*local, vl::kNoHostConnection);
    return local;
  }
  const std::string serialNumber = vl::deviceSerialNumber();
  vl::Dictionary options = testCase->options().value_or(vl::Dictionary());
  options.set(kRequestingDeviceKey, vl::Value(serialNumber));
  testCase->setOptions(std::move(options));

  PendingRequest request(holder, VLLogLevelInfo);
  vl::Dictionary envelope{
      {"MessageType", "TestCaseRequest"},
      {"UUID", request.uuid()},
  };
  if (std::optional<vl::Data> archived = VLConvertObjectToData(vl::Value(testCase))) {
    envelope.set("TestCase", vl::Value(*archived));
  }
  envelope.set(kRequestingDeviceKey, vl::Value(serialNumber));
  setPresent(envelope, "destination", testCase->destinationClass());
  setPresent(envelope, "identifier", testCase->destinationIdentifier());
  vl::hostlink::sendEnvelope(descriptor, envelope);

  const double timeout = testCase->timeout();
  std::shared_ptr<VLTestCaseResult> remote;
  if (std::optional<vl::Dictionary> response = request.wait({timeout, false})) {
    remote = unarchivedResult(*response);
    VLLog(VLLogLevelInfo, nullptr, "Remote result was %@", remote);
  }
  request.unlock();
  if (remote) return remote;

  if (std::optional<vl::Dictionary> response = request.takeAfterTimeout(
          vl::hostlink::kRemoteExecutionLostUuidStatistic, /*showResponse=*/false)) {
    if ((remote = unarchivedResult(*response))) return remote;
  }
  VLLog(VLLogLevelError, nullptr, "Timed out waiting for %@ to finish.  Waited %f seconds",
        testCase->name() ? vl::Value(*testCase->name()) : vl::Value(), timeout);
  endWithFailure(*local, timerExpired(timeout));
  return local;
}

std::optional<std::string> VLExecuteKingCommandOnHost(
    const std::shared_ptr<VLPendingReplyOwner>& holder, int request, const vl::Value& command,
    double timeout) {
  if (!holder) return std::nullopt;
  const int descriptor = vl::hostlink::connectToGateway();
  if (descriptor < 0) return vl::kNoHostConnection;

  PendingRequest pending(holder, VLLogLevelNotice);
  const vl::Dictionary envelope{
      {"UUID", pending.uuid()},
      {"request", request},
      {"command", command},
      {kRequestingDeviceKey, vl::deviceSerialNumber()},
      {"destination", vl::kKingRequestDestination},
      {"identifier", vl::kKingRequestIdentifier},
  };
  vl::hostlink::sendEnvelope(descriptor, envelope);
  if (timeout == 0) {
    VLLog(VLLogLevelNotice, nullptr, "No timeout requested for king request");
    return std::nullopt;
  }

  std::optional<std::string> outcome;
  if (std::optional<vl::Dictionary> reply = pending.wait({timeout, false})) {
    VLLog(VLLogLevelNotice, nullptr, "Response: %@", *reply);
    outcome = kingOutcome(*reply);
    VLLog(VLLogLevelNotice, nullptr, "Remote result: %@",
          outcome ? vl::Value(*outcome) : vl::Value());
  }
  pending.unlock();
  if (outcome) return outcome;

  if (std::optional<vl::Dictionary> reply = pending.takeAfterTimeout(
          vl::hostlink::kRemoteExecutionLostUuidStatistic, /*showResponse=*/false)) {
    if ((outcome = kingOutcome(*reply))) return outcome;
  }
  VLLog(VLLogLevelError, nullptr, "Timed out waiting for king to finish.  Waited %f seconds",
        timeout);
  return timerExpired(timeout);
}
