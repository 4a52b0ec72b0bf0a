// VLHTTPDownload against a python3 http.server on loopback and a server that never answers: the
// figure, the time-out rules (-1.0 default included), failures, no temporary file left behind.
#include "vorlund/network/http_download.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "network/loopback_server.h"
#include "support/test_support.h"

namespace vl {
namespace {

class HTTPDownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::writeFile(site_.file("blob.bin"), std::string(kSize, 'x'));
    ASSERT_TRUE(test::waitUntilListening(port_));
  }
  static std::string url(int port, const std::string& path = "") {
    return "http://127.0.0.1:" + std::to_string(port) + "/" + path;
  }

  static constexpr size_t kSize = 3 << 20;
  test::TempDir site_;
  test::TempDir temporary_;
  test::ScopedEnv tmpdir_{"TMPDIR", temporary_.path()};
  int port_ = test::freePort();
  test::ServerProcess server_{"python3 -m http.server " + std::to_string(port_) +
                              " --bind 127.0.0.1 --directory " + site_.path()};
};

// Every failure gives 0 and leaves no temporary file, a time-out no time either; without a positive
// time-out (-1 is the default) the body still arrives whole but the download counts as timed out.
TEST_F(HTTPDownloadTest, FailuresTimeOutsAndTheFigure) {
  test::SilentServer silent;
  const struct {
    std::optional<std::string> url;
    std::optional<double> timeout;
    std::string reason;
    int64_t bytes;
  } cases[] = {
      {std::nullopt, 10, "No URL specified before -[VLHTTPDownload download]", 0},
      {url(port_, "missing.bin"), 10, "Download failed: HTTP status 404", -1},
      {url(test::freePort()), 10, "Download failed: ", 0},
      {url(port_, "blob.bin"), std::nullopt, "Download timed out after -1.000000s", kSize},
      {url(port_, "blob.bin"), 0, "Download timed out after 0.000000s", kSize},
      // Never answered: cancelled at the time-out, not left waiting.
      {url(silent.port()), 0.25, "Download timed out after 0.250000s", 0},
  };
  auto download = VLHTTPDownload::make();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    download = VLHTTPDownload::make();
    download->setUrlString(c.url);
    if (c.timeout) download->setTimeout(*c.timeout);
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(download->download(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    ASSERT_TRUE(download->error());
    EXPECT_EQ(download->error()->userInfo.get("Reason").stringOr("").rfind(c.reason, 0), 0u);
    if (c.bytes >= 0) {
      EXPECT_EQ(download->bytesReceived(), c.bytes);
    }
    if (c.reason.find("timed out") != std::string::npos) {
      EXPECT_EQ(download->downloadTime(), 0);
    }
    EXPECT_TRUE(std::filesystem::is_empty(temporary_.path()));
  }
  // A later success clears the error; the figure is megabits per second of the body.
  download->setUrlString(url(port_, "blob.bin"));
  download->setTimeout(30);
  double megabits = download->download();
  ASSERT_FALSE(download->error()) << download->error()->description();
  EXPECT_EQ(download->bytesReceived(), static_cast<int64_t>(kSize));
  EXPECT_DOUBLE_EQ(megabits, kSize * 8 / 1048576.0 / download->downloadTime());
  EXPECT_TRUE(std::filesystem::is_empty(temporary_.path()));
}

}  // namespace
}  // namespace vl
