// The frames between a device's bridge (VorlundBridge, the gateway) and the run's manager: one TCP
// connection per bridge, framed both ways as in hostlink/framed_socket.h, every payload the keyed
// archive of a dictionary (VLConvertObjectToData). The bridge opens every connection with its
// hello; after that it relays the device's frames unchanged and hands the manager's to the stress
// service. This header holds the pieces both ends of that connection share: the hello, the
// receiving of one whole frame from a peer that may send garbage, its decoding, and the address.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "vorlund/foundation/value.h"

namespace vl::bridge {

inline constexpr const char* kHelloMessageType = "BridgeHello";
// The manager's answer to a hello it does not accept; it closes the connection after it.
inline constexpr const char* kRefusedMessageType = "BridgeRefused";
inline constexpr const char* kRequestingDeviceKey = "RequestingDevice";
inline constexpr const char* kUDIDKey = "UDID";
inline constexpr const char* kHostnameKey = "Hostname";
inline constexpr const char* kTokenKey = "Token";
inline constexpr const char* kErrorKey = "error";
// "HOST:PORT" of the manager, when no address is given on the command line.
inline constexpr const char* kManagerAddressPreference = "ManagerAddress";
// The shared secret the hello carries when the manager asks for one.
inline constexpr const char* kManagerTokenPreference = "ManagerToken";

// The bridge's first frame on every connection: {"MessageType": "BridgeHello", "RequestingDevice":
// deviceSerialNumber(), "UDID": deviceUniqueIdentifier(), "Hostname": VLGetHostname(), "Token":
// the preference "ManagerToken"}. "Token" is left out when the preference is unset or empty (a
// number is sent as its text). Read afresh on every call, so a reconnect sends current values.
vl::Dictionary helloMessage();

// The dictionary a manager frame's payload holds (VLConvertDataToObject, so only the classes of
// VLValidExternalClassesForCoding()). None, with the reason in *reason, when the payload is not a
// keyed archive, holds a refused class, or holds anything but a dictionary.
std::optional<vl::Dictionary> decodeManagerFrame(const vl::Data& payload, std::string* reason);

enum class ReceiptStatus {
  Frame,    // one whole, well-formed frame; its payload is in the receipt
  Closed,   // the peer closed the connection between frames
  Refused,  // the stream is damaged; the reason says how. The connection cannot be trusted further
};

// What was wrong with a refused frame, for callers that word their own messages.
enum class FrameFault {
  None,
  ReadFailed,   // the connection failed before a frame began; Receipt::error holds the errno
  BadHeader,    // the header is not eight digits
  ShortHeader,  // the header did not complete: the peer closed, or went silent, inside it
  OverLimit,    // the header announces more than kMaximumFramePayload
  Truncated,    // the payload ended early: the peer closed inside it or a read failed
};

struct Receipt {
  ReceiptStatus status = ReceiptStatus::Closed;
  vl::Data payload;
  std::string reason;
  FrameFault fault = FrameFault::None;
  // The length the header announced, when one was read.
  long announcedLength = 0;
  int error = 0;
};

// How long (nominal seconds, scaled) the rest of a header that has begun to arrive is waited for.
inline constexpr double kFrameHeaderCompletionSeconds = 10;

// Reads the next frame of descriptor, stricter than VLReadDataFromSocket: a header that is not
// eight digits or announces more than kMaximumFramePayload is refused at once, without reading on
// (the reader would drain a peer that never closes for ever); a payload cut short by the peer
// closing and a failed read are refused too. On TCP a header split over several segments is waited
// for, up to kFrameHeaderCompletionSeconds after its first bytes; one that does not complete by
// then, or before the peer closes, is refused (a local stream socket cannot wait for it: the kernel
// ends a peek there at the data it holds, so a split header is refused at once). Otherwise blocks until the frame (or the end of the stream)
// arrives: callers wait for readability, with their own time-out or stop signal, before calling. A
// descriptor that is not a socket is read without the early header check, its header in one read.
// Never closes descriptor.
Receipt receiveFrame(int descriptor);

struct ManagerAddress {
  std::string host;
  int port = 0;
};

// "HOST:PORT" (an IPv4 address or a host name, then a port from 1 to 65535). None, with the
// reason in *reason, for anything else.
std::optional<ManagerAddress> parseManagerAddress(std::string_view text, std::string* reason);

}  // namespace vl::bridge
