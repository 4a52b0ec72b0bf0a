// The block file: blocks written by one opening are read back by the next; a torn last block of
// every shape is cut when the ledger is opened and the blocks before it stay; damage inside the
// file is reported by block number and never cut.
#include "vorlund/hostlink/ledger.h"

#include <gtest/gtest.h>

#include <climits>
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

constexpr long kAll = LONG_MAX;

// Keeps `keep` bytes from start (counted back from the end when negative) and flips the bit 0x20
// of byte start + flip (none when flip is negative).
std::string change(std::string bytes, size_t start, long keep, long flip) {
  if (flip >= 0) bytes[start + flip] ^= 0x20;
  const long rest = static_cast<long>(bytes.size() - start);
  return bytes.substr(0, start + (keep < 0 ? rest + keep : std::min(rest, keep)));
}

TEST(LedgerFileTest, ATornLastBlockIsCutOnOpenAndTheEarlierBlocksStay) {
  struct Case {
    const char* name;
    long keep;  // bytes of the last block left
    long flip;  // a byte of the last block changed
  };
  const long kJsonByte = kLedgerHeaderSize + 3;
  const std::vector<Case> cases = {
      {"one byte of the magic", 1, -1},
      {"header minus one", kLedgerHeaderSize - 1, -1},
      {"header only", kLedgerHeaderSize, -1},
      {"half the JSON", kLedgerHeaderSize + 5, -1},
      {"hash minus one", -1, -1},
      {"flipped JSON byte", kAll, kJsonByte},
      {"flipped length byte", kAll, 4},
      {"flipped time byte", kAll, 9},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::TempDir dir;
    const std::string path = dir.file("ledger.blocks");
    std::string bytes = writeLedger(path);
    const size_t last = startOfBlock(path, 2);
    ASSERT_GT(last, 0u);
    bytes = change(bytes, last, c.keep, c.flip);
    test::writeFile(path, bytes);

    LogCapture capture;
    auto file = LedgerFile::open(path);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->blockCount(), 2u);
    EXPECT_FALSE(file->damage());
    EXPECT_EQ(std::filesystem::file_size(path), last);
    auto lines = capture.lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const CapturedLine& line) {
      return line.level == VLLogLevelError && line.category == "Cordex" &&
             line.message.find("cut torn block 2 at byte " + std::to_string(last)) !=
                 std::string::npos;
    }));

    ASSERT_TRUE(file->append(R"({"after":"the cut"})"));
    std::optional<LedgerScan> scan = readLedgerFile(path);
    ASSERT_TRUE(scan && !scan->firstBad() && scan->blocks.size() == 3u);
    EXPECT_EQ(scan->blocks[1].json, kJson[1]);
    EXPECT_EQ(scan->blocks[2].previousHash, scan->blocks[1].hash);
  }
}

TEST(LedgerFileTest, DamageInsideTheFileIsReportedByBlockAndNeverCut) {
  struct Case {
    const char* name;
    long flip;             // a byte of block 1 changed, or
    bool replace, remove;  // block 1 replaced by a well-formed block chained to nothing, or removed
    const char* reason;
  };
  const std::vector<Case> cases = {
      {"flipped JSON byte", kLedgerHeaderSize + 1, false, false,
       "its hash does not match its contents"},
      {"flipped length byte", 4, false, false, "its header is broken"},
      {"foreign block", -1, true, false, "it does not follow the block before it"},
      {"block taken out", -1, false, true, "it does not follow the block before it"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::TempDir dir;
    const std::string path = dir.file("ledger.blocks");
    std::string bytes = writeLedger(path);
    const size_t second = startOfBlock(path, 1), third = startOfBlock(path, 2);
    bytes = change(bytes, second, kAll, c.flip);
    if (c.replace || c.remove) {
      std::string foreign = encodeLedgerBlock("[0]", Date::now(), std::string(64, 'a'));
      bytes = bytes.substr(0, second) + (c.replace ? foreign : "") + bytes.substr(third);
    }
    test::writeFile(path, bytes);

    auto file = LedgerFile::open(path);
    ASSERT_TRUE(file && file->damage());
    EXPECT_EQ(file->damage()->index, 1u);
    Error error;
    EXPECT_FALSE(file->append("{}", &error));
    EXPECT_NE(error.localizedDescription().find("damaged at block 1"), std::string::npos);
    EXPECT_EQ(test::readFile(path), bytes);

    std::optional<LedgerScan> scan = readLedgerFile(path);
    ASSERT_TRUE(scan && scan->damage && !scan->tornTail);
    EXPECT_EQ(scan->damage->index, 1u);
    EXPECT_EQ(scan->damage->reason, c.reason);
    EXPECT_EQ(scan->blocks.size(), 1u);
  }
}

// A file made by another program from the format as documented.
TEST(LedgerFileTest, ARecordedFileReadsAsDocumented) {
  LedgerScan scan = scanLedger(
      test::readFile(std::string(VORLUND_TESTDATA_DIR) + "/hostlink/ledger/three-blocks.ledger"));
  ASSERT_TRUE(scan.blocks.size() == 3 && !scan.firstBad());
  EXPECT_EQ(scan.blocks[1].time.secondsSince1970, 1773478860.0);
  EXPECT_EQ(scan.blocks[2].json, R"({"note":"café"})");
}

}  // namespace
}  // namespace vl
