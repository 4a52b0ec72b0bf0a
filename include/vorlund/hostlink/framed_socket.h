// The framed socket transport of the host link: the device-side library, the stress service and the
// bridge exchange messages over plain IPv4 TCP, one message per frame. A frame is an 8-byte ASCII
// decimal length header ("%08ld") followed by the payload bytes; this layer never looks inside the
// payload (conversion/object_data.h turns dictionaries into data and back).
//
// Every call blocks its caller's thread. Failures are logged through VLLog in the category
// "Framework" and reported as -1 or none, never as an exception. The server loop lives in
// hostlink/socket_server.h.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "vorlund/foundation/value.h"

namespace vl {

inline constexpr size_t kFrameHeaderLength = 8;
// The largest payload a reader accepts; a header announcing more is refused.
inline constexpr long kMaximumFramePayload = 100000;
// Payload reads ask for at most this many bytes at a time.
inline constexpr size_t kFrameReadChunk = 2000;
// Pause between two connection attempts of a client (nominal seconds, through the time scale).
inline constexpr double kClientConnectRetrySeconds = 1;
// The relay process; it listens with a longer backlog and logs expected lengths as notices.
inline constexpr const char* kBridgeProcessName = "VorlundBridge";

// The length a frame header announces, read the forgiving way the protocol always has: leading
// white space skipped, an optional sign, then digits up to the first other character. Text that is
// not UTF-8 or holds no number gives 0. Pure; used by the reader and by tools that inspect frames.
long frameHeaderLength(std::string_view header);
// Whether header is exactly kFrameHeaderLength ASCII digits, as every well-behaved writer makes it.
bool isWellFormedFrameHeader(std::string_view header);

// How one VLReadDataFromSocket call ended, for callers that must tell a clean frame from a damaged
// stream (the reader itself answers only with data or none).
enum class FrameReadStatus {
  Complete,     // the whole announced payload was read (an empty one included)
  Truncated,    // the peer closed before the whole payload came; the shorter payload was returned
  TimedOut,     // no header within the time-out; the descriptor was closed; none returned
  ShortHeader,  // fewer than 8 header bytes in the first read (peer closed, split header); none
  Excessive,    // the header announced more than kMaximumFramePayload; stream drained; none
  ReadError,    // a payload read failed; none
};

struct FrameReadReport {
  FrameReadStatus status = FrameReadStatus::ShortHeader;
  // The header's length as frameHeaderLength reads it (0 when no header was read).
  long announcedLength = 0;
  // Whether the header was eight digits. A header such as "garbage!" announces 0 and yields an
  // empty payload with status Complete; this flag is how a relay recognises it as garbage.
  bool wellFormedHeader = false;
};

}  // namespace vl

// The connected descriptor of a client, or -1. hostName is resolved with the IPv4 host-entry
// lookup (the first address is used; "IP address is <address>" is logged at level 1). Connecting is
// tried up to attempts times on the same socket, each failure logged at level 16 and followed by a
// pause of kClientConnectRetrySeconds (scaled), the last one included: a port with no listener
// and 3 attempts costs about 3 seconds. An attempts below 1 never connects. The caller owns and
// closes the descriptor. Failures: "Unable to get a host entry for %@", "Unable to get IP for %@",
// "Error opening port %d at %@...%d", "Error connecting to port %d at %@ (%d)" (level 16).
int VLGetClientForServer(const std::string& hostName, int port, int attempts);

// Frames data and sends the frame with exactly one write; a short write is not retried. Returns what
// that write returned: the bytes written (header included) or -1. Logs "Sending Data of length
// <header>" at level 1. Writing to a peer that has gone away fails with -1 (EPIPE) rather than
// raising SIGPIPE. descriptor may be a socket or any other writable descriptor.
ssize_t VLWriteDataToSocket(const vl::Data& data, int descriptor);

// The frame of data (header, then payload) without writing it, for callers that send the bytes by
// other means. Payloads of 10^8 bytes or more get a longer header that no reader accepts anyway.
vl::Data VLPrependDataWithLength(const vl::Data& data);

// Reads one frame and returns its payload, or none.
//
// When timeoutSeconds > 0, the header must start arriving within that many seconds (scaled by the
// process time scale); otherwise "Did not receive data in %d seconds.  Closing socket %d" is logged
// at level 16, THE DESCRIPTOR IS CLOSED (the caller must not close it again), and none is returned.
// The time limit covers only the header; payload reads wait as long as the peer takes. A time-out of
// 0 or less waits for ever.
//
// The header is taken from a single read of 8 bytes: fewer (the peer closed, or the header was split
// over two segments) logs "Unable to get the first 8 bytes to know the size of expected data" and
// returns none. A length above kMaximumFramePayload is never read into memory: it is logged, the
// stream is read and dropped until the peer closes or the descriptor fails (this blocks), and none
// is returned. The payload is read in chunks of at most kFrameReadChunk bytes; the peer closing early
// ends it without error (a truncated payload is returned as it stands), a failed read returns none.
// A length of 0 or less (a header that holds no number included) returns empty data.
// report, when given, receives how the read ended.
std::optional<vl::Data> VLReadDataFromSocket(int descriptor, int timeoutSeconds,
                                             vl::FrameReadReport* report = nullptr);

// This machine's host name (gethostname), used to name this end in messages; "" when unknown.
std::string VLGetHostname();
