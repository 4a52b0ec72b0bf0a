// Framing: the writer, the header parser and the reader of one frame.
#include "vorlund/hostlink/framed_socket.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "hostlink/descriptor_wait.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/foundation/utf8.h"
#include "vorlund/logging/log.h"

namespace vl {

namespace {

constexpr const char* kCategory = "Framework";

std::string headerText(size_t length) { return vl::format("%08ld", static_cast<long>(length)); }

// One read that EINTR does not break: a signal is not the peer's doing.
ssize_t readOnce(int descriptor, void* buffer, size_t size) {
  ssize_t result;
  do {
    result = ::read(descriptor, buffer, size);
  } while (result < 0 && errno == EINTR);
  return result;
}

}  // namespace

long frameHeaderLength(std::string_view header) {
  if (!isValidUtf8(header)) return 0;
  size_t i = 0;
  while (i < header.size() && std::isspace(static_cast<unsigned char>(header[i]))) ++i;
  bool negative = false;
  if (i < header.size() && (header[i] == '+' || header[i] == '-')) negative = header[i++] == '-';
  long value = 0;
  // Headers are 8 bytes, so the value cannot overflow; the bound keeps longer text safe as well.
  for (; i < header.size() && std::isdigit(static_cast<unsigned char>(header[i])); ++i) {
    if (value < 100'000'000'000L) value = value * 10 + (header[i] - '0');
  }
  return negative ? -value : value;
}

bool isWellFormedFrameHeader(std::string_view header) {
  if (header.size() != kFrameHeaderLength) return false;
  for (char c : header) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

}  // namespace vl

vl::Data VLPrependDataWithLength(const vl::Data& data) {
  std::string header = vl::headerText(data.size());
  std::vector<uint8_t> frame;
  frame.reserve(header.size() + data.size());
  frame.insert(frame.end(), header.begin(), header.end());
  frame.insert(frame.end(), data.bytes.begin(), data.bytes.end());
  return vl::Data(std::move(frame));
}

ssize_t VLWriteDataToSocket(const vl::Data& data, int descriptor) {
  std::string header = vl::headerText(data.size());
  VLLog(VLLogLevelNotice, vl::kCategory, "Sending Data of length %@", header);
  // Header and payload go out in one call without first being copied into one buffer.
  iovec parts[2] = {{header.data(), header.size()},
                    {const_cast<uint8_t*>(data.bytes.data()), data.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  ssize_t written = ::sendmsg(descriptor, &message, MSG_NOSIGNAL);
  if (written < 0 && errno == ENOTSOCK) written = ::writev(descriptor, parts, 2);
  return written;
}

std::optional<vl::Data> VLReadDataFromSocket(int descriptor, int timeoutSeconds,
                                             vl::FrameReadReport* report) {
  using vl::FrameReadStatus;
  vl::FrameReadReport local;
  vl::FrameReadReport& outcome = report ? *report : local;
  outcome = vl::FrameReadReport{};

  vl::Data payload;

  std::array<char, vl::kFrameHeaderLength> header{};
  ssize_t headerRead;
  // The wait comes before the read, instead of a timer closing the descriptor under a blocked read:
  // on Linux a close from another thread does not wake the read, and the number could be handed to a
  // new descriptor before the reader gets to it.
  if (timeoutSeconds > 0 &&
      !vl::hostlink::waitUntilReadable(descriptor, vl::time::scaled(timeoutSeconds))) {
    VLLog(VLLogLevelError, vl::kCategory, "Did not receive data in %d seconds.  Closing socket %d",
          timeoutSeconds, descriptor);
    ::close(descriptor);
    outcome.status = FrameReadStatus::TimedOut;
    // The descriptor is gone; reading it now could read a stranger's descriptor of the same number.
    headerRead = -1;
  } else {
    headerRead = vl::readOnce(descriptor, header.data(), header.size());
  }
  if (headerRead != static_cast<ssize_t>(header.size())) {
    VLLog(VLLogLevelError, vl::kCategory,
          "Unable to get the first 8 bytes to know the size of expected data");
    return std::nullopt;
  }

  std::string_view headerView(header.data(), header.size());
  const long length = vl::frameHeaderLength(headerView);
  outcome.announcedLength = length;
  outcome.wellFormedHeader = vl::isWellFormedFrameHeader(headerView);
  const bool bridge = vl::process::name() == vl::kBridgeProcessName;
  VLLog(bridge ? VLLogLevelNotice : VLLogLevelDebug, nullptr, "Expecting %zd bytes",
        static_cast<ssize_t>(length));

  if (length > vl::kMaximumFramePayload) {
    VLLog(VLLogLevelError, vl::kCategory,
          "Got expected length of %zd which is a bit excessive; we're going down and trying again",
          static_cast<ssize_t>(length));
    std::array<uint8_t, vl::kFrameReadChunk> scratch;
    ssize_t count;
    do {
      count = vl::readOnce(descriptor, scratch.data(), scratch.size());
      VLLog(VLLogLevelNotice, vl::kCategory, "Read in %zd bytes while clearing buffer", count);
    } while (count > 0);
    outcome.status = FrameReadStatus::Excessive;
    return std::nullopt;
  }

  outcome.status = FrameReadStatus::Complete;
  // The chunks are read straight into the payload; it is cut back to what came if the peer closes.
  size_t received = 0;
  payload.bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
  while (received < payload.size()) {
    size_t wanted = std::min(payload.size() - received, vl::kFrameReadChunk);
    ssize_t count = vl::readOnce(descriptor, payload.bytes.data() + received, wanted);
    if (count < 0) {
      VLLog(VLLogLevelError, vl::kCategory, "Error reading from socket");
      outcome.status = FrameReadStatus::ReadError;
      return std::nullopt;
    }
    if (count == 0) {
      outcome.status = FrameReadStatus::Truncated;
      break;
    }
    VLLog(VLLogLevelDebug, vl::kCategory, "Adding %zd bytes", count);
    received += static_cast<size_t>(count);
  }
  payload.bytes.resize(received);
  VLLog(VLLogLevelInfo, vl::kCategory, "Read data of length %ld", static_cast<long>(payload.size()));
  return payload;
}

std::string VLGetHostname() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return "";
  return name;
}
