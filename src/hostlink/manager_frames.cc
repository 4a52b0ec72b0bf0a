// The bridge's hello, the strict receiving of one frame and the decoding of manager frames.
#include "vorlund/hostlink/manager_frames.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "vorlund/catalogue/preferences.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/deviceinfo/device_identity.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/results/execution.h"

namespace vl::bridge {

namespace {

// Header bytes as a log can show them: printable ASCII as it is, everything else as \xNN.
std::string printable(std::string_view bytes) {
  std::string text;
  for (unsigned char c : bytes) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      text += static_cast<char>(c);
    } else {
      text += vl::format("\\x%02x", static_cast<int>(c));
    }
  }
  return text;
}

Receipt refused(FrameFault fault, std::string reason, long announcedLength = 0) {
  Receipt receipt{ReceiptStatus::Refused, {}, std::move(reason), fault};
  receipt.announcedLength = announcedLength;
  return receipt;
}

// Peeks at up to size bytes; what recv returned, EINTR retried.
ssize_t peek(int descriptor, char* buffer, size_t size, int flags) {
  ssize_t peeked;
  do {
    peeked = ::recv(descriptor, buffer, size, MSG_PEEK | flags);
  } while (peeked < 0 && errno == EINTR);
  return peeked;
}

// Peeks at the whole header once its first bytes have come, for at most
// kFrameHeaderCompletionSeconds: a receive time-out bounds MSG_WAITALL, which otherwise waits until
// the peer closes. The descriptor's own receive time-out is put back afterwards.
ssize_t peekRestOfHeader(int descriptor, char* header, size_t size) {
  timeval saved{};
  socklen_t savedSize = sizeof saved;
  if (::getsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &saved, &savedSize) != 0) return -1;
  auto limit = std::chrono::duration_cast<std::chrono::microseconds>(
      vl::time::scaled(kFrameHeaderCompletionSeconds));
  // A zero time-out would mean none at all.
  if (limit.count() <= 0) limit = std::chrono::microseconds(1);
  timeval bounded{static_cast<time_t>(limit.count() / 1000000),
                  static_cast<suseconds_t>(limit.count() % 1000000)};
  ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &bounded, sizeof bounded);
  ssize_t peeked = peek(descriptor, header, size, MSG_WAITALL);
  ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &saved, sizeof saved);
  return peeked;
}

}  // namespace

vl::Dictionary helloMessage() {
  vl::Dictionary hello;
  hello.set(kVLMessageKeyType, vl::Value(kHelloMessageType));
  hello.set(kRequestingDeviceKey, vl::Value(vl::deviceSerialNumber()));
  hello.set(kUDIDKey, vl::Value(vl::deviceUniqueIdentifier()));
  hello.set(kHostnameKey, vl::Value(VLGetHostname()));
  const vl::Value token = VLGetPreferences().get(kManagerTokenPreference);
  if (const std::string* text = token.asString()) {
    if (!text->empty()) hello.set(kTokenKey, token);
  } else if (token.isNumber()) {
    hello.set(kTokenKey, vl::Value(token.description()));
  }
  return hello;
}

std::optional<vl::Dictionary> decodeManagerFrame(const vl::Data& payload, std::string* reason) {
  vl::Error error;
  vl::Value object = VLConvertDataToObject(payload, &error);
  if (const vl::Dictionary* dictionary = object.asDictionary()) return *dictionary;
  if (object.isNone()) {
    *reason = "The frame does not decode";
    if (!error.localizedDescription().empty()) *reason += ": " + error.localizedDescription();
  } else {
    *reason = "The frame holds " + object.className() + ", not a dictionary";
  }
  return std::nullopt;
}

Receipt receiveFrame(int descriptor) {
  char header[kFrameHeaderLength];
  ssize_t peeked = peek(descriptor, header, sizeof header, 0);
  if (peeked == 0) return {};
  if (peeked < 0 && errno != ENOTSOCK) {
    Receipt receipt = refused(FrameFault::ReadFailed,
                              vl::format("The connection failed: %s", std::strerror(errno)));
    receipt.error = errno;
    return receipt;
  }
  if (peeked > 0 && peeked < static_cast<ssize_t>(sizeof header)) {
    peeked = peekRestOfHeader(descriptor, header, sizeof header);
  }
  if (peeked == static_cast<ssize_t>(sizeof header)) {
    std::string_view text(header, sizeof header);
    if (!isWellFormedFrameHeader(text)) {
      return refused(FrameFault::BadHeader,
                     "The frame header \"" + printable(text) + "\" is not eight digits");
    }
    if (long length = frameHeaderLength(text); length > kMaximumFramePayload) {
      return refused(FrameFault::OverLimit,
                     vl::format("The frame announces %ld bytes, more than the limit of %ld", length,
                                kMaximumFramePayload),
                     length);
    }
  } else if (peeked > 0) {
    // Left unread: the stream is not trusted past a header that did not complete.
    return refused(FrameFault::ShortHeader, "The frame header was cut short");
  }

  FrameReadReport report;
  std::optional<vl::Data> payload = VLReadDataFromSocket(descriptor, 0, &report);
  const long announced = report.announcedLength;
  switch (report.status) {
    case FrameReadStatus::Complete:
      // A descriptor that cannot be peeked at gets its header checked only here.
      if (!report.wellFormedHeader) {
        return refused(FrameFault::BadHeader, "The frame header is not eight digits");
      }
      return {ReceiptStatus::Frame, std::move(*payload), {}};
    case FrameReadStatus::Truncated:
      return refused(FrameFault::Truncated,
                     vl::format("The frame was cut short: %zu of %ld bytes came",
                                payload ? payload->size() : size_t{0}, announced),
                     announced);
    case FrameReadStatus::ShortHeader:
      return refused(FrameFault::ShortHeader, "The frame header was cut short");
    case FrameReadStatus::Excessive:
      return refused(FrameFault::OverLimit,
                     vl::format("The frame announces %ld bytes, more than the limit of %ld",
                                announced, kMaximumFramePayload),
                     announced);
    case FrameReadStatus::TimedOut:
    case FrameReadStatus::ReadError:
      break;
  }
  return refused(FrameFault::Truncated, "Reading the frame failed", announced);
}

std::optional<ManagerAddress> parseManagerAddress(std::string_view text, std::string* reason) {
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0) {
    *reason = "The manager's address \"" + std::string(text) + "\" is not HOST:PORT";
    return std::nullopt;
  }
  std::string_view host = text.substr(0, colon);
  std::string_view port = text.substr(colon + 1);
  long number = 0;
  bool digits = !port.empty() && port.size() <= 5;
  for (char c : port) {
    digits = digits && c >= '0' && c <= '9';
    if (digits) number = number * 10 + (c - '0');
  }
  if (!digits || number < 1 || number > 65535 || host.find(':') != std::string_view::npos) {
    *reason = "The manager's address \"" + std::string(text) +
              "\" is not HOST:PORT with a port from 1 to 65535";
    return std::nullopt;
  }
  return ManagerAddress{std::string(host), static_cast<int>(number)};
}

}  // namespace vl::bridge
