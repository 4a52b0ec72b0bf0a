#include "relays.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "bridge_log.h"
#include "vorlund/conversion/ipm_conversion.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/manager_frames.h"
#include "vorlund/ipm/client.h"
#include "vorlund/results/execution.h"
#include "vorlund/results/test_case_result.h"

namespace vl::bridge {

namespace {

// True once descriptor has something to read (or has ended); false after the nominal seconds.
bool readableWithin(int descriptor, double seconds) {
  auto limit = std::chrono::ceil<std::chrono::milliseconds>(vl::time::scaled(seconds)).count();
  pollfd entry{descriptor, POLLIN, 0};
  int ready;
  do {
    ready = ::poll(&entry, 1, static_cast<int>(std::min<long long>(limit, 24LL * 3600 * 1000)));
  } while (ready < 0 && errno == EINTR);
  return ready != 0;
}

// The answer a requester gets when the stress service did not run its test case: a failed result
// under the request's UUID, rather than a wait until its own time-out. Empty for other messages.
vl::Dictionary failedTestCaseReply(const vl::Dictionary& request, const std::string& reason) {
  const vl::Value& uuid = request.get(kVLMessageKeyUUID);
  if (request.get(kVLMessageKeyType) != vl::Value(kVLMessageTypeTestCaseRequest) || uuid.isNone()) {
    return {};
  }
  std::shared_ptr<VLTestCaseObject> object;
  if (const vl::Data* archived = request.get(kVLMessageKeyTestCase).asData()) {
    object = VLConvertDataToObject(*archived).record<VLTestCaseObject>();
  }
  const std::string why = "The stress service did not run the test case: " + reason;
  std::shared_ptr<VLTestCaseResult> result;
  if (object) {
    result = VLTestCaseResult::quickFailWithTestCaseObject(object, why);
  } else {
    result = VLTestCaseResult::withName("Unknown test case");
    result->failWithReason(why);
  }
  std::optional<vl::Data> data = VLConvertObjectToData(vl::Value(result));
  if (!data) return {};
  return vl::Dictionary{{kVLMessageKeyUUID, uuid},
                        {kVLMessageKeyResult, vl::Value(std::move(*data))}};
}

}  // namespace

DeviceGateway::DeviceGateway(Relay relay) : relay_(std::move(relay)) {}

DeviceGateway::~DeviceGateway() { stop(); }

void DeviceGateway::start(int port) {
  server_ = std::make_unique<vl::ServerThread>(port, false,
                                               [this](int descriptor) { accept(descriptor); });
}

void DeviceGateway::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    for (const auto& [descriptor, unused] : open_) ::shutdown(descriptor, SHUT_RDWR);
  }
  // Closing the workers first also frees an accept loop that waits for one of them.
  workers_.close(std::chrono::nanoseconds::max());
  if (server_) server_->stop();
}

void DeviceGateway::accept(int descriptor) {
  if (descriptor < 0) return;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) {
      ::close(descriptor);
      return;
    }
    open_[descriptor] = descriptor;
  }
  if (!workers_.run([this, descriptor] { serve(descriptor); })) {
    std::lock_guard lock(mutex_);
    open_.erase(descriptor);
    ::close(descriptor);
  }
}

void DeviceGateway::serve(int descriptor) {
  size_t frames = 0;
  for (;;) {
    if (!readableWithin(descriptor, kDeviceReadTimeoutSeconds)) {
      if (frames == 0) {
        note(VLLogLevelError, "Closing a gateway connection that sent nothing in %d seconds",
             static_cast<int>(kDeviceReadTimeoutSeconds));
      }
      break;
    }
    Receipt receipt = receiveFrame(descriptor);
    if (receipt.status == ReceiptStatus::Closed) break;
    if (receipt.status == ReceiptStatus::Refused) {
      std::lock_guard lock(mutex_);
      if (!stopping_) note(VLLogLevelError, "Dropping a gateway connection: %@", receipt.reason);
      break;
    }
    ++frames;
    relay_(std::move(receipt.payload));
  }
  {
    std::lock_guard lock(mutex_);
    open_.erase(descriptor);
  }
  ::close(descriptor);
}

void ServiceRelay::deliver(vl::Dictionary message) {
  auto shared = std::make_shared<const vl::Dictionary>(std::move(message));
  if (!workers_.run([this, shared] { exchange(*shared); })) {
    note(VLLogLevelError, "Stopping: the manager's %@ message was not delivered",
         shared->get(kVLMessageKeyType).stringOr("untyped"));
  }
}

void ServiceRelay::exchange(const vl::Dictionary& message) {
  const std::string type = message.get(kVLMessageKeyType).stringOr("untyped");
  vl::Error error;
  std::optional<vl::IpmValue> reply =
      vl::ipm::sendMessage(VLNSDictionaryToIPMDictionary(message), vl::ipm::kNoTimeout, &error);
  vl::Dictionary answer;
  if (!reply) {
    note(VLLogLevelError, "The stress service did not take the manager's %@ message: %@", type,
         error.localizedDescription());
    answer = failedTestCaseReply(message, error.localizedDescription());
  } else if (std::optional<vl::Dictionary> converted = VLIPMDictionaryToNSDictionary(*reply)) {
    answer = std::move(*converted);
  }
  if (answer.empty()) return;
  std::optional<vl::Data> data = VLConvertObjectToData(vl::Value(answer), &error);
  if (!data) {
    note(VLLogLevelError, "Unable to pass the stress service's reply to the manager: %@",
         error.localizedDescription());
    return;
  }
  reply_(std::move(*data));
}

}  // namespace vl::bridge
