// Feeds arbitrary bytes to the frame reader through a pipe whose writer has closed: whatever the
// stream holds, the reader ends, never hands out more than the limit, and returns exactly the bytes
// after the header up to the announced length. An empty input also runs into the header time-out.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"

namespace {

// Whole input in the pipe before reading, so the reader never waits on a writer.
bool pipeHolding(std::string_view bytes, int ends[2]) {
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  if (bytes.size() > 65536) ::fcntl(ends[1], F_SETPIPE_SZ, static_cast<int>(bytes.size()));
  bool written = bytes.empty() ||
                 ::write(ends[1], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  if (!written) {
    ::close(ends[0]);
    ::close(ends[1]);
  }
  return written;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool scaled = (vl::time::setScale(0.001), true);  // a time-out of 1 s lasts 1 ms
  (void)scaled;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  int ends[2];
  // Inputs larger than a pipe can hold unread are not frames worth the time.
  if (!pipeHolding(input, ends)) return 0;
  if (input.empty()) {
    vl::FrameReadReport report;
    vl::fuzz::require(!VLReadDataFromSocket(ends[0], 1, &report), "silence gives no frame");
    vl::fuzz::require(report.status == vl::FrameReadStatus::TimedOut, "silence times out");
    ::close(ends[1]);
    return 0;  // the reader closed ends[0]
  }
  ::close(ends[1]);

  vl::FrameReadReport report;
  std::optional<vl::Data> payload = VLReadDataFromSocket(ends[0], 1, &report);
  ::close(ends[0]);

  const bool headerRead = input.size() >= vl::kFrameHeaderLength;
  vl::fuzz::require(headerRead == (report.status != vl::FrameReadStatus::ShortHeader),
                    "the header is read whenever the stream holds 8 bytes");
  if (!headerRead) return 0;
  const std::string_view header = input.substr(0, vl::kFrameHeaderLength);
  vl::fuzz::require(report.announcedLength == vl::frameHeaderLength(header), "announced length");
  vl::fuzz::require(report.wellFormedHeader == vl::isWellFormedFrameHeader(header), "header form");
  vl::fuzz::require((report.status == vl::FrameReadStatus::Excessive) ==
                        (report.announcedLength > vl::kMaximumFramePayload),
                    "only lengths above the limit are refused");
  if (!payload) return 0;
  const size_t announced = static_cast<size_t>(std::max(report.announcedLength, 0L));
  const std::string_view expected = input.substr(vl::kFrameHeaderLength, announced);
  vl::fuzz::require(payload->size() <= static_cast<size_t>(vl::kMaximumFramePayload),
                    "payload within the limit");
  vl::fuzz::require(payload->view() == expected, "payload is the bytes after the header");
  vl::fuzz::require((report.status == vl::FrameReadStatus::Complete) == (payload->size() == announced),
                    "complete exactly when the announced length came");
  return 0;
}
