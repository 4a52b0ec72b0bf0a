// The send-and-wait core shared by the manager commands and remote execution: reaching the
// gateway, sending one envelope, and one waited request's life in its reply owner (UUID listed,
// wait, reply matched and taken, time-out check). The callers differ only in their envelopes, their
// deadlines, the level of their lines and what they make of the reply.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "vorlund/catalogue/pending_reply_owner.h"
#include "vorlund/foundation/value.h"
#include "vorlund/logging/log.h"

namespace vl::hostlink {

inline constexpr const char* kGatewayHost = "localhost";
inline constexpr int kGatewayConnectAttempts = 3;

// The statistics of the time-out check. The remote-execution text is also the host command's.
inline constexpr const char* kFoundInTimeoutCheckStatistic = "Found response in timeout check";
inline constexpr const char* kManagerCommandLostUuidStatistic =
    "Reached ManagerCommand timeout without the uuid in the pending uuid list";
inline constexpr const char* kRemoteExecutionLostUuidStatistic =
    "Reached ExecuteRemoteTestCase timeout without the uuid in the pending uuid list";

// A descriptor connected to the gateway ("localhost", vl::gatewayPort(), 3 attempts), or -1 when
// there is none (the client logs why).
int connectToGateway();

// Sends envelope, archived, as one frame on descriptor and closes it. A failing close is logged at
// level 16 ("Socket close error...%d"); the request still counts as sent.
void sendEnvelope(int descriptor, const Dictionary& envelope);

// How long a wait lasts.
struct ReplyDeadline {
  // Nominal seconds from the start of the wait (scaled by the time scale); -1 waits for ever.
  double seconds;
  // Whether a reply meant for another request of the owner starts the time again.
  bool renewedByOtherReplies;
};

// One waited request, from the moment its UUID is listed to the end of its wait. Construction
// locks the owner's condition (so that no reply can be broadcast before the wait begins), lists a
// new UUID in pendingMessageIDs, logs "Adding a pending message with UUID %@ to %@" and adds the
// owner to the loaded remote-execution objects. The condition stays locked until unlock() or
// destruction.
class PendingRequest {
 public:
  // The caller's routine lines go out at level, with no category.
  PendingRequest(std::shared_ptr<VLPendingReplyOwner> owner, VLLogLevel level);
  ~PendingRequest();
  PendingRequest(const PendingRequest&) = delete;
  PendingRequest& operator=(const PendingRequest&) = delete;

  const std::string& uuid() const { return uuid_; }

  // Waits on the owner's condition. Each wake
  // looks for the first response whose "UUID" is this request's: found, it is logged ("Received a
  // response to %@"), taken out of responses, the UUID is dropped from pendingMessageIDs, and it is
  // returned; otherwise "Received a response, but it was not %@" is logged and the wait goes on.
  // None when the deadline passes first.
  std::optional<Dictionary> wait(ReplyDeadline deadline);

  // Releases the owner's condition; idempotent.
  void unlock();

  // The check after a time-out (the condition released): drops the UUID from pendingMessageIDs, or,
  // when someone else already had, records lostUuidStatistic; then takes a reply that arrived in
  // the meantime, logged "Received a response to %@" (with ": %@" and the reply when
  // showResponse) and counted "Found response in timeout check". None when there is none.
  std::optional<Dictionary> takeAfterTimeout(const char* lostUuidStatistic, bool showResponse);

 private:
  // The first response for this request, taken out of responses.
  std::optional<Dictionary> takeResponse();
  // Drops this request's UUID from pendingMessageIDs; whether it was listed.
  bool dropPendingUuid();

  std::shared_ptr<VLPendingReplyOwner> owner_;
  std::shared_ptr<Condition> condition_;
  std::string uuid_;
  VLLogLevel level_;
  bool locked_ = false;
};

}  // namespace vl::hostlink
