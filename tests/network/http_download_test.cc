// VLHTTPDownload against a real python3 http.server on loopback and a server that never answers:
// the figure and its formula, the time-out rules (the -1.0 default included), failures, and the
// temporary file that must not stay behind.
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
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/" + path;
  }
  bool temporaryFolderIsEmpty() const { return std::filesystem::is_empty(temporary_.path()); }
  std::string reason(const VLHTTPDownload& download) const {
    return download.error() ? download.error()->userInfo.get("Reason").stringOr("") : "";
  }

  static constexpr size_t kSize = 3 << 20;
  test::TempDir site_;
  test::TempDir temporary_;
  test::ScopedEnv tmpdir_{"TMPDIR", temporary_.path()};
  int port_ = test::freePort();
  test::ServerProcess server_{"python3 -m http.server " + std::to_string(port_) +
                              " --bind 127.0.0.1 --directory " + site_.path()};
};

TEST_F(HTTPDownloadTest, FigureIsMegabitsPerSecondOfTheBody) {
  auto download = VLHTTPDownload::make();
  EXPECT_EQ(download->timeout(), -1.0);
  EXPECT_TRUE(download->allowCellular());
  EXPECT_EQ(download->downloadTime(), 0);
  download->setUrlString(url("blob.bin"));
  download->setTimeout(30);
  double megabits = download->download();
  ASSERT_FALSE(download->error()) << download->error()->description();
  EXPECT_EQ(download->bytesReceived(), static_cast<int64_t>(kSize));
  EXPECT_GT(download->downloadTime(), 0);
  EXPECT_DOUBLE_EQ(megabits, kSize * 8 / 1048576.0 / download->downloadTime());
  EXPECT_TRUE(temporaryFolderIsEmpty());
}

TEST_F(HTTPDownloadTest, WithoutAPositiveTimeoutTheDownloadCompletesButTimesOut) {
  for (double timeout : {-1.0, 0.0}) {
    auto download = VLHTTPDownload::make();
    download->setUrlString(url("blob.bin"));
    if (timeout == 0) download->setTimeout(0);
    EXPECT_EQ(download->download(), 0);
    EXPECT_EQ(download->bytesReceived(), static_cast<int64_t>(kSize)) << "it ran to the end";
    EXPECT_EQ(download->downloadTime(), 0);
    EXPECT_EQ(reason(*download), timeout < 0 ? "Download timed out after -1.000000s"
                                             : "Download timed out after 0.000000s");
    EXPECT_EQ(download->error()->domain, "com.brindle.Vorlund");
    EXPECT_TRUE(temporaryFolderIsEmpty());
  }
}

TEST_F(HTTPDownloadTest, AServerThatNeverAnswersIsCancelledAtTheTimeout) {
  test::SilentServer silent;
  auto download = VLHTTPDownload::make();
  download->setUrlString("http://127.0.0.1:" + std::to_string(silent.port()) + "/");
  download->setTimeout(0.25);
  auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(download->download(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
  EXPECT_EQ(reason(*download), "Download timed out after 0.250000s");
  EXPECT_EQ(download->downloadTime(), 0);
  EXPECT_TRUE(temporaryFolderIsEmpty());
}

TEST_F(HTTPDownloadTest, FailuresAndAMissingURL) {
  auto download = VLHTTPDownload::make();
  EXPECT_EQ(download->download(), 0);
  EXPECT_EQ(reason(*download), "No URL specified before -[VLHTTPDownload download]");

  download->setTimeout(10);
  download->setUrlString(url("missing.bin"));
  EXPECT_EQ(download->download(), 0);
  EXPECT_EQ(reason(*download), "Download failed: HTTP status 404");

  download->setUrlString("http://127.0.0.1:" + std::to_string(test::freePort()) + "/");
  EXPECT_EQ(download->download(), 0);
  EXPECT_EQ(reason(*download).rfind("Download failed: ", 0), 0u) << reason(*download);

  // A later success clears the error.
  download->setUrlString(url("blob.bin"));
  EXPECT_GT(download->download(), 0);
  EXPECT_FALSE(download->error());
  EXPECT_TRUE(temporaryFolderIsEmpty());
}

}  // namespace
}  // namespace vl
