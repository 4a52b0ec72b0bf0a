// vorlundctl ledger show|verify on a ledger the library wrote in the sandboxed device, then on the
// same file with a block damaged: verify names it and exits 1, and neither command changes the
// file.
#include <gtest/gtest.h>

#include "tools/ctl.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/hostlink/cordex_transform.h"
#include "vorlund/hostlink/ledger.h"

namespace vl {
namespace {

using test::ctl;

// The ledger comes from two real resets of the front end's run, with "LedgerResults" set.
TEST(VorlundctlLedgerTest, ShowListsTheBlocksAndVerifyNamesTheFirstBadOne) {
  test::Sandbox sandbox;
  test::ScopedEnv serial("VORLUND_SERIAL_NUMBER", "TESTSERIAL1");
  VLSavePreference(Value(true), "LedgerResults");
  const std::string path = paths::join(VLCordexTransform::dataDirectory(), kLedgerFileName);
  for (const char* name : {"Ping", "Download"}) {
    ASSERT_EQ(ctl({"results", "add", "--name", name, "--type", "PassFail", "--pass"}).exitStatus,
              0);
    auto reset = ctl({"results", "reset"});
    ASSERT_EQ(reset.exitStatus, 0) << reset.err;
  }
  std::optional<LedgerScan> scan = readLedgerFile(path);
  ASSERT_TRUE(scan && scan->blocks.size() == 2 && !scan->firstBad());
  const std::vector<LedgerBlock>& written = scan->blocks;

  auto shown = ctl({"ledger", "show"});
  ASSERT_EQ(shown.exitStatus, 0) << shown.err;
  for (const LedgerBlock& block : written) {
    EXPECT_NE(shown.out.find(block.hash.substr(0, 16) + "  run "), std::string::npos) << shown.out;
  }
  EXPECT_NE(shown.out.find(": 1 test cases, 0 issues\n"), std::string::npos) << shown.out;

  auto json = ctl({"ledger", "show", "--json"});
  ASSERT_EQ(json.exitStatus, 0) << json.err;
  std::optional<Value> blocks = json::parse(json.out);
  ASSERT_TRUE(blocks && blocks->asArray() && blocks->asArray()->size() == 2) << json.out;
  const Dictionary& second = *(*blocks->asArray())[1].asDictionary();
  EXPECT_EQ(second.get("Index"), Value(int64_t{1}));
  EXPECT_EQ(second.get("Hash"), Value(written[1].hash));
  EXPECT_EQ(second.get("PreviousHash"), Value(written[0].hash));
  EXPECT_EQ(second.get("Length"), Value(static_cast<int64_t>(written[1].length())));

  auto intact = ctl({"ledger", "verify"});
  EXPECT_EQ(intact.exitStatus, 0) << intact.out << intact.err;
  EXPECT_EQ(intact.out, path + ": 2 blocks, chain intact\n");

  std::string bytes = test::readFile(path);
  bytes[kLedgerHeaderSize + 3] ^= 0x01;  // inside the first block's JSON
  test::writeFile(path, bytes);
  auto damaged = ctl({"ledger", "verify"});
  EXPECT_EQ(damaged.exitStatus, 1);
  EXPECT_EQ(damaged.out, path +
                             ": 0 good blocks, first bad block 0 (byte 0): its hash does not "
                             "match its contents\n");
  auto shownDamaged = ctl({"ledger", "show"});
  EXPECT_EQ(shownDamaged.exitStatus, 0);
  EXPECT_NE(shownDamaged.err.find("block 0 (byte 0)"), std::string::npos) << shownDamaged.err;
  EXPECT_EQ(test::readFile(path), bytes);
}

}  // namespace
}  // namespace vl
