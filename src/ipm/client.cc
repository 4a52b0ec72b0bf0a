#include "vorlund/ipm/client.h"

#include <cerrno>
#include <cstdint>
#include <string_view>

#include "vorlund/foundation/format.h"
#include "vorlund/ipm/bus.h"
#include "vorlund/ipm/message_codec.h"

namespace vl::ipm {
namespace {

struct ScopedBusError {
  sd_bus_error error{};  // SD_BUS_ERROR_NULL, without the C compound literal
  ~ScopedBusError() { sd_bus_error_free(&error); }
};

// The errors with which the bus says that nobody owns the name and nobody can be started for it.
bool meansNotRunning(const sd_bus_error& error) {
  static constexpr std::string_view kNames[] = {
      "org.freedesktop.DBus.Error.ServiceUnknown",
      "org.freedesktop.DBus.Error.NameHasNoOwner",
      "org.freedesktop.DBus.Error.Spawn.ServiceNotFound",
      "org.freedesktop.systemd1.NoSuchUnit",
  };
  if (!error.name) return false;
  std::string_view name(error.name);
  for (std::string_view known : kNames) {
    if (name == known) return true;
  }
  return false;
}

uint64_t timeoutUsec(std::chrono::microseconds timeout) {
  if (timeout == kNoTimeout) return UINT64_MAX;
  if (timeout.count() <= 0) return 0;  // sd-bus's default
  return static_cast<uint64_t>(timeout.count());
}

}  // namespace

std::optional<IpmValue> sendMessage(const IpmValue& message, std::chrono::microseconds timeout,
                                    Error* error) {
  ScopedBus bus = openBus(error);
  if (!bus) return std::nullopt;

  sd_bus_message* rawCall = nullptr;
  int r = sd_bus_message_new_method_call(bus.get(), &rawCall, kServiceName, kObjectPath,
                                         kInterfaceName, kMethodName);
  ScopedMessage call(rawCall);
  if (r < 0) {
    setError(error, ipmError(IpmErrorCode::kTransport,
                             vl::format("Unable to create a message: %s", errnoText(r).c_str())));
    return std::nullopt;
  }
  if (!appendDictionary(call.get(), message, error)) return std::nullopt;

  ScopedBusError callError;
  sd_bus_message* rawReply = nullptr;
  r = sd_bus_call(bus.get(), call.get(), timeoutUsec(timeout), &callError.error, &rawReply);
  ScopedMessage reply(rawReply);
  if (r < 0) {
    const sd_bus_error& e = callError.error;
    if (meansNotRunning(e)) {
      setError(error, ipmError(IpmErrorCode::kNotRunning, kNotRunningDescription));
    } else if (r == -ETIMEDOUT && !sd_bus_error_is_set(&e)) {
      setError(error,
               ipmError(IpmErrorCode::kTimedOut, "The stress service did not reply in time"));
    } else if (sd_bus_error_is_set(&e)) {
      IpmErrorCode code =
          sd_bus_error_has_name(&e, SD_BUS_ERROR_TIMEOUT) ||
                  (sd_bus_error_has_name(&e, SD_BUS_ERROR_NO_REPLY) && r == -ETIMEDOUT)
              ? IpmErrorCode::kTimedOut
              : IpmErrorCode::kRemote;
      Error out = ipmError(code, e.message ? e.message : e.name);
      out.userInfo.set("DBusErrorName", std::string(e.name));
      setError(error, std::move(out));
    } else {
      setError(error, ipmError(IpmErrorCode::kTransport,
                               vl::format("Unable to send a message to the stress service: %s",
                                          errnoText(r).c_str())));
    }
    return std::nullopt;
  }
  Error readError;
  auto dictionary = readDictionary(reply.get(), &readError);
  if (!dictionary) {
    readError.userInfo.set("Context", std::string("reply"));
    setError(error, std::move(readError));
  }
  return dictionary;
}

}  // namespace vl::ipm
