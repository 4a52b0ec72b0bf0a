// Feeds arbitrary bytes to the bridge as the stream a manager sends: frames are received one by
// one over a socket whose writer has closed, each decoded into a dictionary. Whatever the stream
// holds, receiving ends; every frame taken is exactly the next bytes of the stream, within the
// limit; a stream taken whole ends cleanly; and a payload is decoded exactly when it is the archive
// of a dictionary, with a reason otherwise.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/format.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/hostlink/manager_frames.h"

namespace {

// Streams larger than a socket buffer holds unread are not worth the time.
constexpr size_t kLargestStream = 150000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  if (size > kLargestStream) return 0;
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 0;
  int buffer = static_cast<int>(kLargestStream * 2);
  ::setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  ::setsockopt(ends[0], SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  bool written = input.empty() ||
                 ::write(ends[1], input.data(), input.size()) == static_cast<ssize_t>(input.size());
  ::close(ends[1]);
  if (!written) {
    ::close(ends[0]);
    return 0;
  }

  size_t taken = 0;
  for (;;) {
    vl::bridge::Receipt receipt = vl::bridge::receiveFrame(ends[0]);
    if (receipt.status == vl::bridge::ReceiptStatus::Closed) {
      vl::fuzz::require(taken == input.size(), "the stream ends cleanly only when taken whole");
      break;
    }
    if (receipt.status == vl::bridge::ReceiptStatus::Refused) {
      vl::fuzz::require(!receipt.reason.empty(), "a refusal says why");
      break;
    }
    const vl::Data& payload = receipt.payload;
    vl::fuzz::require(payload.size() <= static_cast<size_t>(vl::kMaximumFramePayload),
                      "payload within the limit");
    const std::string header = vl::format("%08ld", static_cast<long>(payload.size()));
    vl::fuzz::require(input.substr(taken, header.size()) == header, "the header is the stream's");
    taken += header.size();
    vl::fuzz::require(input.substr(taken, payload.size()) == payload.view(),
                      "the payload is the stream's next bytes");
    taken += payload.size();

    std::string reason;
    std::optional<vl::Dictionary> message = vl::bridge::decodeManagerFrame(payload, &reason);
    vl::fuzz::require(message.has_value() == VLConvertDataToObject(payload).isDictionary(),
                      "decoded exactly when the payload archives a dictionary");
    vl::fuzz::require(message.has_value() || !reason.empty(), "a refused payload says why");
  }
  ::close(ends[0]);
  return 0;
}
