// Framed round trips over a loopback TCP connection (VLWriteDataToSocket and VLReadDataFromSocket
// on both ends, logging included), beside the raw baseline of echoing the same bytes (header and
// payload) with plain write and read calls. Each size compares with the baseline of the same size:
// 64 bytes, where system calls and wake-ups dominate, and 100000 bytes, the largest frame. A third
// figure echoes raw bytes with the framing's own pattern of reads, to tell what those reads cost
// from what the framing layer adds to them.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench_sandbox.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/hostlink/socket_server.h"

namespace {

void framedEcho(int fd) {
  while (std::optional<vl::Data> frame = VLReadDataFromSocket(fd, 0)) {
    if (frame->size() == 0) break;  // the client's empty frame, or its close
    VLWriteDataToSocket(*frame, fd);
  }
  ::close(fd);
}

// Reads one whole frame of frame.size() bytes the way a program without the framing layer would:
// as many bytes as each read gives. False when the peer closes first.
bool readWhole(int fd, std::vector<char>& frame, bool) {
  for (size_t done = 0; done < frame.size();) {
    ssize_t count = ::read(fd, frame.data() + done, frame.size() - done);
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

// Reads one frame with the system calls the framing is bound to (an 8-byte header read, then
// payload reads of at most kFrameReadChunk bytes), without anything else the reader does.
bool readFrameRaw(int fd, std::vector<char>& frame, bool waitFirst) {
  if (waitFirst) {
    pollfd entry{fd, POLLIN, 0};
    if (::poll(&entry, 1, 10000) != 1) return false;
  }
  const auto header = static_cast<ssize_t>(vl::kFrameHeaderLength);
  if (::read(fd, frame.data(), vl::kFrameHeaderLength) != header) return false;
  for (size_t done = vl::kFrameHeaderLength; done < frame.size();) {
    ssize_t count =
        ::read(fd, frame.data() + done, std::min(frame.size() - done, vl::kFrameReadChunk));
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

using FrameReader = bool (*)(int fd, std::vector<char>& frame, bool waitFirst);

// Round trips of raw frames of the benchmark's size, each end reading with read.
void rawRoundTrips(benchmark::State& state, FrameReader read) {
  vl::bench::sandbox();
  const vl::Data frame = VLPrependDataWithLength(
      vl::Data(std::vector<uint8_t>(static_cast<size_t>(state.range(0)), 'v')));
  const size_t size = frame.size();
  vl::ServerThread server(0, false, [size, read](int fd) {
    std::vector<char> buffer(size);
    while (read(fd, buffer, false)) {
      if (::send(fd, buffer.data(), size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) break;
    }
    ::close(fd);
  });
  std::vector<char> reply(size);
  int fd = VLGetClientForServer("127.0.0.1", server.port(), 1);
  for (auto _ : state) {
    if (::send(fd, frame.bytes.data(), size, MSG_NOSIGNAL) != static_cast<ssize_t>(size) ||
        !read(fd, reply, true)) {
      state.SkipWithError("echo failed");
      break;
    }
  }
  ::close(fd);
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * 2 * static_cast<int64_t>(state.range(0)));
}

void BM_FramedRoundTrip(benchmark::State& state) {
  vl::bench::sandbox();
  const vl::Data payload(std::vector<uint8_t>(static_cast<size_t>(state.range(0)), 'v'));
  vl::ServerThread server(0, false, framedEcho);
  int fd = VLGetClientForServer("127.0.0.1", server.port(), 1);
  for (auto _ : state) {
    VLWriteDataToSocket(payload, fd);
    std::optional<vl::Data> reply = VLReadDataFromSocket(fd, 10);
    if (!reply || reply->size() != payload.size()) {
      state.SkipWithError("echo failed");
      break;
    }
  }
  ::close(fd);
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * 2 * static_cast<int64_t>(payload.size()));
}
BENCHMARK(BM_FramedRoundTrip)->Arg(64)->Arg(100000)->UseRealTime();

void BM_RawEchoBaseline(benchmark::State& state) { rawRoundTrips(state, readWhole); }
BENCHMARK(BM_RawEchoBaseline)->Arg(64)->Arg(100000)->UseRealTime();

// The raw echo again, but read the way the framing must read (header, chunks, and the client's
// wait for readability that its time-out needs): what the reads the protocol orders cost, apart
// from the logging and the rest of the framing layer.
void BM_RawEchoWithFramingReads(benchmark::State& state) { rawRoundTrips(state, readFrameRaw); }
BENCHMARK(BM_RawEchoWithFramingReads)->Arg(64)->Arg(100000)->UseRealTime();

}  // namespace
