#include "connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "manager_log.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/hostlink/manager_frames.h"

namespace manager {

Connection::Connection(int descriptor, std::string peer)
    : descriptor_(descriptor), peer_(std::move(peer)) {
  auto limit =
      std::chrono::duration_cast<std::chrono::microseconds>(vl::time::scaled(kSendTimeoutSeconds));
  timeval timeout{static_cast<time_t>(limit.count() / 1000000),
                  static_cast<suseconds_t>(limit.count() % 1000000)};
  setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  writer_ = std::thread([this] { writeLoop(); });
}

Connection::~Connection() {
  close();
  if (writer_.joinable()) writer_.join();
  ::close(descriptor_);
}

std::string Connection::serialNumber() const {
  std::lock_guard lock(mutex_);
  return serialNumber_;
}

void Connection::setSerialNumber(const std::string& serialNumber) {
  std::lock_guard lock(mutex_);
  serialNumber_ = serialNumber;
}

std::optional<vl::Dictionary> Connection::readMessage(double firstByteSeconds) {
  if (firstByteSeconds > 0) {
    pollfd entry{descriptor_, POLLIN, 0};
    auto limit = std::chrono::ceil<std::chrono::milliseconds>(vl::time::scaled(firstByteSeconds));
    int ready;
    do {
      ready = ::poll(&entry, 1, static_cast<int>(limit.count()));
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) {
      log(VLLogLevelNotice, "Dropping %s: nothing arrived within %.1f seconds", peer_,
          firstByteSeconds);
      return std::nullopt;
    }
  }
  vl::bridge::Receipt receipt = vl::bridge::receiveFrame(descriptor_);
  switch (receipt.status) {
    case vl::bridge::ReceiptStatus::Closed:
      return std::nullopt;
    case vl::bridge::ReceiptStatus::Refused:
      logRefusal(receipt);
      return std::nullopt;
    case vl::bridge::ReceiptStatus::Frame:
      break;
  }
  std::string reason;
  if (auto message = vl::bridge::decodeManagerFrame(receipt.payload, &reason)) return message;
  log(VLLogLevelError, "Dropping %s: its frame of %zu bytes does not decode to a dictionary", peer_,
      receipt.payload.size());
  return std::nullopt;
}

void Connection::logRefusal(const vl::bridge::Receipt& receipt) {
  using vl::bridge::FrameFault;
  switch (receipt.fault) {
    case FrameFault::ReadFailed: {
      std::lock_guard lock(mutex_);
      // A read that fails because this side closed the connection is no news.
      if (!closing_) {
        log(VLLogLevelNotice, "Dropping %s: reading failed (%s)", peer_,
            std::strerror(receipt.error));
      }
      return;
    }
    case FrameFault::BadHeader:
      log(VLLogLevelError, "Dropping %s: it sent a frame header that is not %zu digits", peer_,
          vl::kFrameHeaderLength);
      return;
    case FrameFault::ShortHeader:
      log(VLLogLevelError, "Dropping %s: its frame header was cut short", peer_);
      return;
    case FrameFault::OverLimit:
      log(VLLogLevelError, "Dropping %s: it announced a frame of %ld bytes, over the limit of %ld",
          peer_, receipt.announcedLength, vl::kMaximumFramePayload);
      return;
    case FrameFault::Truncated:
    case FrameFault::None:
      log(VLLogLevelError, "Dropping %s: its frame of %ld bytes ended early", peer_,
          receipt.announcedLength);
      return;
  }
}

bool Connection::send(const vl::Dictionary& message) {
  std::optional<vl::Data> data = VLConvertObjectToData(message);
  if (!data) {
    log(VLLogLevelError, "Cannot archive a message for %s: %@", peer_, message);
    return false;
  }
  std::unique_lock lock(mutex_);
  if (closing_ || finishing_) return false;
  if (queue_.size() >= kMaximumQueuedFrames) {
    lock.unlock();
    log(VLLogLevelError, "Dropping %s: %zu frames wait for it to read", peer_,
        kMaximumQueuedFrames);
    close();
    return false;
  }
  queue_.push_back(std::move(*data));
  queueChanged_.notify_all();
  return true;
}

void Connection::finish() {
  {
    std::lock_guard lock(mutex_);
    finishing_ = true;
    queueChanged_.notify_all();
  }
  if (writer_.joinable() && writer_.get_id() != std::this_thread::get_id()) writer_.join();
  close();
}

void Connection::close() {
  std::lock_guard lock(mutex_);
  if (closing_) return;
  closing_ = true;
  queue_.clear();
  // shutdown, unlike close, wakes a thread blocked in a read of this descriptor.
  ::shutdown(descriptor_, SHUT_RDWR);
  queueChanged_.notify_all();
}

void Connection::writeLoop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    queueChanged_.wait(lock, [this] { return closing_ || finishing_ || !queue_.empty(); });
    if (closing_ || queue_.empty()) return;
    vl::Data frame = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    ssize_t written = VLWriteDataToSocket(frame, descriptor_);
    lock.lock();
    if (written != static_cast<ssize_t>(frame.size() + vl::kFrameHeaderLength)) {
      bool quiet = closing_;
      lock.unlock();
      if (!quiet) log(VLLogLevelError, "Dropping %s: a frame could not be written", peer_);
      close();
      return;
    }
  }
}

}  // namespace manager
