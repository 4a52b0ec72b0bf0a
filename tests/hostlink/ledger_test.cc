// The block file: blocks written by one opening are read back by the next; a torn last block of
// every shape is cut when the ledger is opened and the blocks before it stay; damage inside the
// file is reported by block number and never cut.
#include "vorlund/hostlink/ledger.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/test_support.h"
#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

const std::vector<std::string> kJson = {R"({"StressType":"wifi","TestCases":{}})", R"([1,2,3])",
                                        R"({"note":"café"})"};

// Writes the blocks of kJson through a first opening and returns the ledger's bytes.
std::string writeLedger(const std::string& path) {
  auto file = LedgerFile::open(path);
  EXPECT_TRUE(file);
  for (const std::string& json : kJson) EXPECT_TRUE(file->append(json));
  return test::readFile(path);
}

uint64_t startOfBlock(const std::string& path, size_t index) {
  std::optional<LedgerScan> scan = readLedgerFile(path);
  return scan && index < scan->blocks.size() ? scan->blocks[index].offset : 0;
}

TEST(LedgerFileTest, BlocksWrittenByOneOpeningAreReadBackAndExtendedByTheNext) {
  test::TempDir dir;
  const std::string path = dir.file("Data/ledger.blocks");
  writeLedger(path);

  auto reopened = LedgerFile::open(path);
  ASSERT_TRUE(reopened);
  EXPECT_EQ(reopened->blockCount(), 3u);
  Error error;
  std::optional<LedgerBlock> fourth = reopened->append(R"({"fourth":true})", &error);
  ASSERT_TRUE(fourth) << error.description();
  EXPECT_EQ(fourth->index, 3u);

  std::optional<LedgerScan> scan = readLedgerFile(path);
  ASSERT_TRUE(scan);
  EXPECT_EQ(scan->firstBad(), nullptr);
  ASSERT_EQ(scan->blocks.size(), 4u);
  EXPECT_EQ(scan->blocks[0].previousHash, std::string(64, '0'));
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(scan->blocks[i].json, kJson[i]);
    EXPECT_EQ(scan->blocks[i + 1].previousHash, scan->blocks[i].hash) << i;
  }
  EXPECT_EQ(scan->blocks[3].hash, fourth->hash);
  EXPECT_NEAR(scan->blocks[3].time.secondsSince1970, Date::now().secondsSince1970, 60);
  EXPECT_EQ(scan->goodEnd, std::filesystem::file_size(path));
}

TEST(LedgerFileTest, ATornLastBlockIsCutOnOpenAndTheEarlierBlocksStay) {
  struct Case {
    const char* name;
    // Turns the intact bytes (third block starting at `last`) into what a power loss left.
    std::function<std::string(std::string bytes, size_t last)> tear;
  };
  const std::vector<Case> cases = {
      {"one byte of the magic", [](std::string b, size_t last) { return b.substr(0, last + 1); }},
      {"header minus one",
       [](std::string b, size_t last) { return b.substr(0, last + kLedgerHeaderSize - 1); }},
      {"header only",
       [](std::string b, size_t last) { return b.substr(0, last + kLedgerHeaderSize); }},
      {"half the JSON",
       [](std::string b, size_t last) { return b.substr(0, last + kLedgerHeaderSize + 5); }},
      {"hash minus one", [](std::string b, size_t) { return b.substr(0, b.size() - 1); }},
      {"flipped JSON byte",
       [](std::string b, size_t last) {
         b[last + kLedgerHeaderSize + 3] ^= 0x20;
         return b;
       }},
      {"flipped length byte",
       [](std::string b, size_t last) {
         b[last + 4] ^= 0x01;
         return b;
       }},
      {"zeros where the block was",
       [](std::string b, size_t last) {
         return b.substr(0, last) + std::string(b.size() - last, '\0');
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::TempDir dir;
    const std::string path = dir.file("ledger.blocks");
    writeLedger(path);
    const size_t last = startOfBlock(path, 2);
    ASSERT_GT(last, 0u);
    test::writeFile(path, c.tear(test::readFile(path), last));

    LogCapture capture;
    auto file = LedgerFile::open(path);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->blockCount(), 2u);
    EXPECT_FALSE(file->damage());
    EXPECT_EQ(std::filesystem::file_size(path), last);
    auto lines = capture.lines();
    bool logged = std::any_of(lines.begin(), lines.end(), [&](const CapturedLine& line) {
      return line.level == VLLogLevelError && line.category == "Cordex" &&
             line.message.find("cut torn block 2 at byte " + std::to_string(last)) !=
                 std::string::npos;
    });
    EXPECT_TRUE(logged);

    ASSERT_TRUE(file->append(R"({"after":"the cut"})"));
    std::optional<LedgerScan> scan = readLedgerFile(path);
    ASSERT_TRUE(scan);
    EXPECT_EQ(scan->firstBad(), nullptr);
    ASSERT_EQ(scan->blocks.size(), 3u);
    EXPECT_EQ(scan->blocks[1].json, kJson[1]);
    EXPECT_EQ(scan->blocks[2].previousHash, scan->blocks[1].hash);
  }
}

TEST(LedgerFileTest, DamageInsideTheFileIsReportedByBlockAndNeverCut) {
  struct Case {
    const char* name;
    std::function<std::string(std::string bytes, size_t second, size_t third)> damage;
    const char* reason;
  };
  const std::vector<Case> cases = {
      {"flipped JSON byte",
       [](std::string b, size_t second, size_t) {
         b[second + kLedgerHeaderSize + 1] ^= 0x04;
         return b;
       },
       "its hash does not match its contents"},
      {"flipped length byte",
       [](std::string b, size_t second, size_t) {
         b[second + 4] ^= 0x40;
         return b;
       },
       "its header is broken"},
      {"well-formed block chained to nothing",
       [](std::string b, size_t second, size_t third) {
         return b.substr(0, second) + encodeLedgerBlock("[0]", Date::now(), std::string(64, 'a')) +
                b.substr(third);
       },
       "it does not follow the block before it"},
      {"block taken out",
       [](std::string b, size_t second, size_t third) {
         return b.substr(0, second) + b.substr(third);
       },
       "it does not follow the block before it"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::TempDir dir;
    const std::string path = dir.file("ledger.blocks");
    std::string bytes = writeLedger(path);
    bytes = c.damage(bytes, startOfBlock(path, 1), startOfBlock(path, 2));
    test::writeFile(path, bytes);

    auto file = LedgerFile::open(path);
    ASSERT_TRUE(file);
    ASSERT_TRUE(file->damage());
    EXPECT_EQ(file->damage()->index, 1u);
    Error error;
    EXPECT_FALSE(file->append("{}", &error));
    EXPECT_NE(error.localizedDescription().find("damaged at block 1"), std::string::npos);
    EXPECT_EQ(test::readFile(path), bytes);

    std::optional<LedgerScan> scan = readLedgerFile(path);
    ASSERT_TRUE(scan && scan->damage);
    EXPECT_FALSE(scan->tornTail);
    EXPECT_EQ(scan->damage->index, 1u);
    EXPECT_EQ(scan->damage->reason, c.reason);
    EXPECT_EQ(scan->blocks.size(), 1u);
  }
}

// Files made from the format as documented, by another program than this library.
TEST(LedgerFileTest, RecordedFilesReadAsDocumented) {
  struct Case {
    const char* file;
    size_t blocks;
    std::optional<size_t> tornAt, damagedAt;
  };
  const std::vector<Case> cases = {
      {"three-blocks.ledger", 3, {}, {}},        {"empty.ledger", 0, {}, {}},
      {"torn-in-json.ledger", 2, 2, {}},         {"torn-in-header.ledger", 2, 2, {}},
      {"damaged-second-block.ledger", 1, {}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    std::string bytes =
        test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/hostlink/ledger/" + c.file);
    LedgerScan scan = scanLedger(bytes);
    EXPECT_EQ(scan.blocks.size(), c.blocks);
    EXPECT_EQ(scan.tornTail ? std::optional(scan.tornTail->index) : std::nullopt, c.tornAt);
    EXPECT_EQ(scan.damage ? std::optional(scan.damage->index) : std::nullopt, c.damagedAt);
  }
  LedgerScan three = scanLedger(
      test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/hostlink/ledger/three-blocks.ledger"));
  ASSERT_EQ(three.blocks.size(), 3u);
  EXPECT_EQ(three.blocks[1].time.secondsSince1970, 1773478860.0);
  EXPECT_EQ(three.blocks[2].json, R"({"note":"café"})");
}

}  // namespace
}  // namespace vl
