#include "vorlund/network/http_download.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <mutex>

#include "vorlund/foundation/format.h"

namespace {

using Clock = std::chrono::steady_clock;

struct EasyDeleter {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct MultiDeleter {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};

// The downloaded body's file: made with mkostemp, closed and removed with the object.
class TemporaryFile {
 public:
  TemporaryFile() {
    const char* folder = std::getenv("TMPDIR");
    path_ = std::string(folder && *folder ? folder : "/tmp") + "/VLHTTPDownload.XXXXXX";
    fd_ = mkostemp(path_.data(), O_CLOEXEC);
  }
  ~TemporaryFile() { remove(); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  int fd() const { return fd_; }
  void remove() {
    if (fd_ < 0) return;
    ::close(fd_);
    ::unlink(path_.c_str());
    fd_ = -1;
  }

 private:
  std::string path_;
  int fd_ = -1;
};

size_t writeBody(char* data, size_t size, size_t count, void* context) {
  int fd = *static_cast<int*>(context);
  size_t total = size * count;
  for (size_t written = 0; written < total;) {
    ssize_t n = ::write(fd, data + written, total - written);
    if (n <= 0) return 0;  // a short count makes curl end the transfer with a write error
    written += static_cast<size_t>(n);
  }
  return total;
}

void initialiseCurl() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

std::shared_ptr<VLHTTPDownload> VLHTTPDownload::make() {
  return std::shared_ptr<VLHTTPDownload>(new VLHTTPDownload());
}

double VLHTTPDownload::download() {
  error_.reset();
  downloadTime_ = 0;
  bytesReceived_ = 0;
  if (!urlString_) {
    error_ = vl::Error::withReason("No URL specified before -[VLHTTPDownload download]");
    return 0;
  }
  initialiseCurl();
  TemporaryFile file;
  std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
  std::unique_ptr<CURLM, MultiDeleter> multi(curl_multi_init());
  if (file.fd() < 0 || !easy || !multi) {
    error_ = vl::Error::withReason("Download failed: no temporary file or transfer could be made");
    return 0;
  }
  int fd = file.fd();
  char curlError[CURL_ERROR_SIZE] = "";
  curl_easy_setopt(easy.get(), CURLOPT_URL, urlString_->c_str());
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, writeBody);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &fd);
  curl_easy_setopt(easy.get(), CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_ERRORBUFFER, curlError);
  curl_multi_add_handle(multi.get(), easy.get());

  const Clock::time_point start = Clock::now();
  std::optional<Clock::time_point> deadline;
  if (timeout_ > 0) {
    deadline = start + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(std::min(timeout_, 1e9)));
  }
  std::optional<Clock::time_point> end;
  CURLcode result = CURLE_OK;
  while (!end) {
    int running = 0;
    curl_multi_perform(multi.get(), &running);
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi.get(), &queued)) {
      if (message->msg == CURLMSG_DONE) {
        end = Clock::now();
        result = message->data.result;
      }
    }
    if (end) break;
    Clock::time_point now = Clock::now();
    if (deadline && now >= deadline) break;
    auto wait = std::chrono::milliseconds(100);
    if (deadline) {
      wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(*deadline - now));
    }
    curl_multi_poll(multi.get(), nullptr, 0, static_cast<int>(wait.count()), nullptr);
  }
  // Ended or cancelled, the transfer is over: its file goes.
  curl_multi_remove_handle(multi.get(), easy.get());
  file.remove();
  curl_off_t bytes = 0;
  curl_easy_getinfo(easy.get(), CURLINFO_SIZE_DOWNLOAD_T, &bytes);
  bytesReceived_ = static_cast<int64_t>(bytes);

  // Without a positive time-out the wait counts as never signalled (see the header).
  if (!end || timeout_ <= 0) {
    error_ = vl::Error::withReason(vl::format("Download timed out after %fs", timeout_));
    return 0;
  }
  downloadTime_ = std::chrono::duration<double>(*end - start).count();
  long status = 0;
  curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
  if (result != CURLE_OK) {
    error_ = vl::Error::withReason(
        vl::format("Download failed: %s", *curlError ? curlError : curl_easy_strerror(result)));
    return 0;
  }
  if (status >= 400) {
    error_ = vl::Error::withReason(vl::format("Download failed: HTTP status %ld", status));
    return 0;
  }
  if (downloadTime_ == 0) {
    error_ = vl::Error::withReason("Download time was 0s");
    return 0;
  }
  return static_cast<double>(bytesReceived_) * 8 / 1048576.0 / downloadTime_;
}
