// vorlundctl sync, run as the user runs it on a sandboxed device: publishing, listing, withdrawing
// and collecting, and a collection whose destination fills up.
#include <gtest/gtest.h>

#include <filesystem>

#include "tools/ctl.h"

namespace vl {
namespace {

namespace fs = std::filesystem;
using test::ctl;

class VorlundctlSyncTest : public ::testing::Test {
 protected:
  // No "Config" preference: the configuration is "None".
  std::string keptRoot() const { return sandbox_.home() + "/Library/Logs/StressSync/None/SER-9"; }
  std::string deletingRoot() const {
    return sandbox_.home() + "/Library/Logs/StressSyncAndDelete/None/SER-9";
  }
  std::string sha256(const std::string& path) {
    auto result = test::runChild({"sha256sum", path});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    return result.out.substr(0, 64);
  }

  test::Sandbox sandbox_;
  test::ScopedEnv serial_{"VORLUND_SERIAL_NUMBER", "SER-9"};
  test::TempDir work_;
};

TEST_F(VorlundctlSyncTest, PublishListCollectAndWithdraw) {
  std::string logs = work_.file("logs");
  fs::create_directories(logs + "/sub");
  test::writeFile(logs + "/a.txt", "alpha");
  test::writeFile(logs + "/sub/b.txt", "beta");
  fs::create_directory_symlink(logs, logs + "/again");
  test::writeFile(work_.file("kept.txt"), "kept");
  test::writeFile(work_.file("report.txt"), "report");

  auto added = ctl({"sync", "add", logs});
  ASSERT_EQ(added.exitStatus, 0) << added.err;
  EXPECT_EQ(added.out, "published logs -> " + logs + "\n");
  auto taken = ctl({"sync", "add", work_.path(), "--name", "logs"});
  EXPECT_EQ(taken.exitStatus, 1);
  EXPECT_NE(taken.err.find("cannot publish " + work_.path()), std::string::npos) << taken.err;

  auto copied = ctl({"sync", "file", work_.file("kept.txt"), "Extra"});
  ASSERT_EQ(copied.exitStatus, 0) << copied.err;
  EXPECT_EQ(copied.out, "copied " + work_.file("kept.txt") + " into " + keptRoot() + "/Extra\n");
  auto moved = ctl({"sync", "file", work_.file("report.txt"), "Reports", "--move", "--delete"});
  ASSERT_EQ(moved.exitStatus, 0) << moved.err;
  EXPECT_FALSE(fs::exists(work_.file("report.txt")));

  auto listed = ctl({"sync", "list"});
  ASSERT_EQ(listed.exitStatus, 0) << listed.err;
  EXPECT_EQ(listed.out, "logs -> " + logs + "\n");

  std::string destination = work_.file("collected");
  auto collected = ctl({"sync", "collect", "--to", destination});
  ASSERT_EQ(collected.exitStatus, 0) << collected.out << collected.err;
  std::string reportCopy = destination + "/StressSyncAndDelete/None/SER-9/Reports/report.txt";
  std::string alphaCopy = destination + "/StressSync/None/SER-9/logs/a.txt";
  EXPECT_EQ(collected.out,
            "copied " + keptRoot() + "/Extra/kept.txt -> " + destination +
                "/StressSync/None/SER-9/Extra/kept.txt (4 bytes, sha256 " +
                sha256(work_.file("kept.txt")) + ")\n" + "copied " + keptRoot() +
                "/logs/a.txt -> " + alphaCopy + " (5 bytes, sha256 " + sha256(logs + "/a.txt") +
                ")\n" + "copied " + keptRoot() + "/logs/sub/b.txt -> " + destination +
                "/StressSync/None/SER-9/logs/sub/b.txt (4 bytes, sha256 " +
                sha256(logs + "/sub/b.txt") + ")\n" + "copied " + deletingRoot() +
                "/Reports/report.txt -> " + reportCopy + " (6 bytes, sha256 " + sha256(reportCopy) +
                "), source removed\n" + "collected 4 files (19 bytes), 0 failed, 1 removed\n");
  EXPECT_EQ(test::readFile(reportCopy), "report");
  EXPECT_FALSE(fs::exists(deletingRoot() + "/Reports/report.txt"));
  EXPECT_EQ(test::readFile(logs + "/a.txt"), "alpha");

  auto removed = ctl({"sync", "remove", "logs"});
  ASSERT_EQ(removed.exitStatus, 0) << removed.err;
  EXPECT_TRUE(fs::exists(logs + "/a.txt"));
  EXPECT_EQ(ctl({"sync", "list"}).out, "");
  EXPECT_EQ(ctl({"sync", "remove", "logs"}).exitStatus, 1);
}

TEST_F(VorlundctlSyncTest, ListingBeforeAnythingIsPublishedIsEmpty) {
  auto listed = ctl({"sync", "list"});
  EXPECT_EQ(listed.exitStatus, 0) << listed.err;
  EXPECT_EQ(listed.out, "");
}

TEST_F(VorlundctlSyncTest, ADestinationThatFillsUpKeepsTheSourcesItCouldNotTake) {
  test::writeFile(work_.file("small.txt"), "small");
  test::writeFile(work_.file("big.bin"), std::string(64 * 1024, 'x'));
  for (const char* name : {"small.txt", "big.bin"}) {
    auto published = ctl({"sync", "file", work_.file(name), "Reports", "--delete"});
    ASSERT_EQ(published.exitStatus, 0) << published.err;
  }
  // A file-size limit of 16 KiB stands in for a full disk: writes beyond it fail with EFBIG.
  std::string destination = work_.file("dest");
  auto collected = test::runChild(
      {"bash", "-c", "ulimit -f 16; trap '' XFSZ; exec \"$0\" sync collect --to \"$1\"",
       VORLUNDCTL_PATH, destination});
  EXPECT_EQ(collected.exitStatus, 1) << collected.out << collected.err;
  EXPECT_NE(collected.out.find("FAILED " + deletingRoot() + "/Reports/big.bin: cannot write"),
            std::string::npos)
      << collected.out;
  EXPECT_NE(collected.out.find("small.txt (5 bytes"), std::string::npos) << collected.out;
  EXPECT_NE(collected.out.find("collected 1 files (5 bytes), 1 failed, 1 removed\n"),
            std::string::npos)
      << collected.out;
  EXPECT_EQ(test::readFile(deletingRoot() + "/Reports/big.bin").size(), 64u * 1024);
  EXPECT_FALSE(fs::exists(deletingRoot() + "/Reports/small.txt"));
  EXPECT_FALSE(fs::exists(destination + "/StressSyncAndDelete/None/SER-9/Reports/big.bin"))
      << "no partial copy is left";
}

}  // namespace
}  // namespace vl
