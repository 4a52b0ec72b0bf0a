// The callback-style manager exchange over the shared event registry.
#include "vorlund/hostlink/manager_remote.h"

#include <atomic>
#include <semaphore>

#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/manager_commands.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/execution.h"

vl::Error ManagerRemote::errorWithMessage(const std::string& message) {
  VLLog(VLLogLevelError, "ManagerRemote", "%@", message);
  return vl::Error::withDescription(vl::kManagerRemoteErrorDomain, -1, message);
}

void ManagerRemote::processAsyncRequest(const vl::Dictionary& request, double timeout,
                                        const AsyncHandler& handler) {
  const vl::Value& uuidValue = request.get(kVLMessageKeyUUID);
  if (uuidValue.isNone()) {
    handler(request, errorWithMessage("Unable to parse manager result: Missing UUID?"));
    return;
  }
  std::string uuid = vl::format("%@", uuidValue);

  const auto& registry = AsyncEventRegistry::sharedInstance();
  auto source = AsyncManagerEventSource::withUUID(uuid);
  registry->registerSource(source);
  std::string key = std::string(kVLManagerCommandResultNotificationPrefix) + "." + uuid;
  VLLog(VLLogLevelInfo, "ManagerRemote", "Registering for event with UUID %@", key);

  // The completion holds both weakly: once this call has returned, a late answer calls nothing.
  auto strongHandler = std::make_shared<const AsyncHandler>(handler);
  auto event = std::make_shared<std::binary_semaphore>(0);
  auto fired = std::make_shared<std::atomic<bool>>(false);
  std::weak_ptr<const AsyncHandler> weakHandler = strongHandler;
  std::weak_ptr<std::binary_semaphore> weakEvent = event;
  auto completion = std::make_shared<const AsyncHandler>(
      [weakHandler, weakEvent, fired](const std::optional<vl::Dictionary>& dictionary,
                                      const std::optional<vl::Error>& error) {
        if (auto callback = weakHandler.lock()) {
          // Set before the call: a handler still running when the wait ends is not followed by
          // a second call with an error.
          fired->store(true);
          (*callback)(dictionary, error);
        } else {
          VLLog(VLLogLevelError, "ManagerRemote", "Could not get a strong handler!");
        }
        if (auto signal = weakEvent.lock()) {
          signal->release();
        } else {
          VLLog(VLLogLevelError, "ManagerRemote", "Could not get a strong event!");
        }
      });

  if (!registry->registerForEventWithUUID(key, timeout, completion)) {
    handler(std::nullopt, errorWithMessage("Could not register for event listener"));
  } else {
    event->try_acquire_for(vl::time::scaled(timeout + vl::kManagerRemoteGraceSeconds));
    if (!fired->load()) handler(std::nullopt, errorWithMessage("Peding event never fired!"));
  }

  registry->unregiserSource(source);
  registry->unregisterForEventWithUUID(key);
  registry->clean();
}

void ManagerRemote::processEnvelope(const std::optional<vl::Dictionary>& envelope, double timeout,
                                    const AsyncHandler& handler) {
  if (!envelope) {
    // One text for commands and test cases alike: callers match on it.
    handler(std::nullopt, errorWithMessage("Did not get result for runTest"));
    return;
  }
  processAsyncRequest(*envelope, timeout, handler);
}

void ManagerRemote::runCommand(const vl::Dictionary& command, double timeout,
                               const AsyncHandler& handler) {
  processEnvelope(VLManagerCommand(nullptr, command), timeout, handler);
}

void ManagerRemote::runTest(const std::string& name, const vl::Dictionary& options,
                            const vl::Value& characteristics, double timeout,
                            const AsyncHandler& handler) {
  processEnvelope(VLManagerRunTestCase(nullptr, name, options, characteristics), timeout, handler);
}

void ManagerRemote::run(const AsyncHandler& handler) {
  runTest(testCase_, options_, characteristics_, vl::kManagerRemoteTimeoutSeconds, handler);
}

void ManagerRemote::findDevicesWith(const vl::Value& characteristics, const AsyncHandler& handler) {
  runCommand({{"FindDevices", vl::Dictionary{{"characteristics", characteristics}}}},
             vl::kManagerRemoteTimeoutSeconds, handler);
}

void ManagerRemote::findDevicesWithout(const vl::Value& characteristics,
                                       const AsyncHandler& handler) {
  runCommand({{"FindDevicesWithout", vl::Dictionary{{"characteristics", characteristics}}}},
             vl::kManagerRemoteTimeoutSeconds, handler);
}

void ManagerRemote::findDevicesWithAttributes(const vl::Value& attributes,
                                              const AsyncHandler& handler) {
  runCommand({{"FindDevicesWithAttributes", vl::Dictionary{{"attributes", attributes}}}},
             vl::kManagerRemoteTimeoutSeconds, handler);
}
