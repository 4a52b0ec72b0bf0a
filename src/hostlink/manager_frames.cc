// The bridge's hello, the strict receiving of one frame and the decoding of manager frames.
#include "vorlund/hostlink/manager_frames.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "vorlund/catalogue/preferences.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/deviceinfo/device_identity.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/foundation/format.h"
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

Receipt refused(std::string reason) { return {ReceiptStatus::Refused, {}, std::move(reason)}; }

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
  ssize_t peeked;
  do {
    peeked = ::recv(descriptor, header, sizeof header, MSG_PEEK);
  } while (peeked < 0 && errno == EINTR);
  if (peeked == 0) return {};
  if (peeked < 0 && errno != ENOTSOCK) {
    return refused(vl::format("The connection failed: %s", std::strerror(errno)));
  }
  if (peeked == static_cast<ssize_t>(sizeof header)) {
    std::string_view text(header, sizeof header);
    if (!isWellFormedFrameHeader(text)) {
      return refused("The frame header \"" + printable(text) + "\" is not eight digits");
    }
    if (frameHeaderLength(text) > kMaximumFramePayload) {
      return refused(vl::format("The frame announces %ld bytes, more than the limit of %ld",
                                frameHeaderLength(text), kMaximumFramePayload));
    }
  }

  FrameReadReport report;
  std::optional<vl::Data> payload = VLReadDataFromSocket(descriptor, 0, &report);
  switch (report.status) {
    case FrameReadStatus::Complete:
      // The header came in a later read than the check above looked at.
      if (!report.wellFormedHeader) return refused("The frame header is not eight digits");
      return {ReceiptStatus::Frame, std::move(*payload), {}};
    case FrameReadStatus::Truncated:
      return refused(vl::format("The frame was cut short: %zu of %ld bytes came",
                                payload ? payload->size() : size_t{0}, report.announcedLength));
    case FrameReadStatus::ShortHeader:
      return refused("The frame header was cut short");
    case FrameReadStatus::Excessive:
      return refused(vl::format("The frame announces %ld bytes, more than the limit of %ld",
                                report.announcedLength, kMaximumFramePayload));
    case FrameReadStatus::TimedOut:
    case FrameReadStatus::ReadError:
      break;
  }
  return refused("Reading the frame failed");
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
