#include "hostlink/pending_request.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/hostlink/gateway.h"
#include "vorlund/results/issue_reporting.h"

namespace vl::hostlink {

namespace {

constexpr const char* kUuidKey = "UUID";

Date secondsFromNow(double seconds) {
  return Date{Date::now().secondsSince1970 +
              std::chrono::duration<double>(time::scaled(seconds)).count()};
}

}  // namespace

int connectToGateway() {
  const int descriptor = VLGetClientForServer(kGatewayHost, gatewayPort(), kGatewayConnectAttempts);
  // Descriptor 0 has always counted as a failed connection (it is where an unset descriptor
  // points); it is closed rather than leaked.
  if (descriptor == 0) {
    ::close(descriptor);
    return -1;
  }
  return descriptor;
}

void sendEnvelope(int descriptor, const Dictionary& envelope) {
  // An envelope that cannot be archived is logged by the conversion; the connection is still
  // closed, so that the gateway sees the request end.
  if (std::optional<Data> payload = VLConvertObjectToData(Value(envelope))) {
    VLWriteDataToSocket(*payload, descriptor);
  }
  if (::close(descriptor) != 0) {
    VLLog(VLLogLevelError, nullptr, "Socket close error...%d", errno);
  }
}

PendingRequest::PendingRequest(std::shared_ptr<VLPendingReplyOwner> owner, VLLogLevel level)
    : owner_(std::move(owner)), condition_(owner_->lock()), level_(level) {
  // An owner without a condition still gets its replies, through the time-out check.
  if (!condition_) condition_ = std::make_shared<Condition>();
  condition_->lock();
  locked_ = true;
  uuid_ = Uuid::randomString();
  owner_->updatePendingMessageIDs([&](Array& pending) { pending.push_back(Value(uuid_)); });
  // Listed before the request goes out, not once it is sent: the router only looks at listed
  // owners, and a quick reply would otherwise be dropped before its sender had begun to wait.
  addRemoteExecutionObject(owner_);
  VLLog(level_, nullptr, "Adding a pending message with UUID %@ to %@", uuid_,
        owner_->description());
}

PendingRequest::~PendingRequest() { unlock(); }

void PendingRequest::unlock() {
  if (!locked_) return;
  locked_ = false;
  condition_->unlock();
}

std::optional<Dictionary> PendingRequest::takeResponse() {
  std::optional<Dictionary> taken;
  owner_->updateResponses([&](Array& responses) {
    for (size_t i = 0; i < responses.size(); ++i) {
      const Dictionary* response = responses[i].asDictionary();
      const std::string* uuid = response ? response->get(kUuidKey).asString() : nullptr;
      if (uuid && *uuid == uuid_) {
        taken = *response;
        responses.erase(i);
        return;
      }
    }
  });
  return taken;
}

bool PendingRequest::dropPendingUuid() {
  bool wasPending = false;
  owner_->updatePendingMessageIDs([&](Array& pending) {
    for (size_t i = 0; i < pending.size(); ++i) {
      if (const std::string* listed = pending[i].asString(); listed && *listed == uuid_) {
        pending.erase(i);
        wasPending = true;
        return;
      }
    }
  });
  return wasPending;
}

std::optional<Dictionary> PendingRequest::wait(ReplyDeadline deadline) {
  const bool forever = deadline.seconds == -1;
  Date limit = forever ? Date{} : secondsFromNow(deadline.seconds);
  for (;;) {
    if (forever) {
      condition_->wait();
    } else if (!condition_->waitUntil(limit)) {
      return std::nullopt;
    }
    if (std::optional<Dictionary> response = takeResponse()) {
      VLLog(level_, nullptr, "Received a response to %@", uuid_);
      dropPendingUuid();
      return response;
    }
    // Also what a spurious wake-up logs: it cannot be told from a reply for another request.
    VLLog(level_, nullptr, "Received a response, but it was not %@", uuid_);
    if (deadline.renewedByOtherReplies && !forever) limit = secondsFromNow(deadline.seconds);
  }
}

std::optional<Dictionary> PendingRequest::takeAfterTimeout(const char* lostUuidStatistic,
                                                           bool showResponse) {
  if (!dropPendingUuid()) VLAddStatisticToResults(lostUuidStatistic);

  std::optional<Dictionary> response = takeResponse();
  if (!response) return std::nullopt;
  if (showResponse) {
    VLLog(level_, nullptr, "Received a response to %@ : %@", uuid_, *response);
  } else {
    VLLog(level_, nullptr, "Received a response to %@", uuid_);
  }
  VLAddStatisticToResults(kFoundInTimeoutCheckStatistic);
  return response;
}

}  // namespace vl::hostlink
