// A timed HTTP download (libcurl): fetches a URL into a temporary file, removes the file, and
// reports the throughput in megabits per second. The caller is blocked until the download ends or
// its time-out passes.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "vorlund/foundation/error.h"

class VLHTTPDownload {
 public:
  static std::shared_ptr<VLHTTPDownload> make();

  // The URL to fetch; none until set.
  const std::optional<std::string>& urlString() const { return urlString_; }
  void setUrlString(std::optional<std::string> url) { urlString_ = std::move(url); }
  // Seconds to wait for the download (real seconds: the caller's own, not the time scale's);
  // -1.0 until set. See download() for what 0 or less does.
  double timeout() const { return timeout_; }
  void setTimeout(double seconds) { timeout_ = seconds; }
  // Kept for the caller; download() does not use it.
  const std::optional<std::string>& interface() const { return interface_; }
  void setInterface(std::optional<std::string> name) { interface_ = std::move(name); }
  // Whether the download may use a cellular link; true until set. Linux gives a program no such
  // switch, so it is only kept.
  bool allowCellular() const { return allowCellular_; }
  void setAllowCellular(bool allow) { allowCellular_ = allow; }

  // The error of the last download, none after a successful one.
  const std::optional<vl::Error>& error() const { return error_; }
  // Seconds from the start of the last download to its end; 0 before one and after a time-out.
  double downloadTime() const { return downloadTime_; }
  // Bytes of the body received by the last download.
  int64_t bytesReceived() const { return bytesReceived_; }

  // Downloads urlString into a temporary file (in $TMPDIR, else /tmp), removed when the transfer
  // ends, and returns bytes received x 8 x 2^-20 / downloadTime: megabits of 2^20 bits per second.
  // Returns 0 with error (domain "com.brindle.Vorlund", code 1, "Reason"):
  // - "No URL specified before -[VLHTTPDownload download]" when urlString is none;
  // - "Download timed out after %fs" (the timeout, "-1.000000" for the default) when the download
  //   has not ended after timeout seconds; it is then cancelled. A timeout of 0 or less waits as
  //   long as the download takes and then still ends in this error: a download must be given a
  //   time-out to report a figure, on purpose;
  // - "Download time was 0s" when the download ended in no measurable time;
  // - "Download failed: REASON" when the transfer failed (the URL could not be reached, the
  //   connection broke, the server answered with an HTTP status of 400 or more).
  double download();

 private:
  VLHTTPDownload() = default;

  std::optional<std::string> urlString_;
  double timeout_ = -1.0;
  std::optional<std::string> interface_;
  bool allowCellular_ = true;
  std::optional<vl::Error> error_;
  double downloadTime_ = 0;
  int64_t bytesReceived_ = 0;
};
