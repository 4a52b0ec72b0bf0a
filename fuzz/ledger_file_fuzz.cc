// Puts arbitrary bytes where a ledger file belongs, reads them, opens them as the ledger (which
// cuts a torn tail) and reads them again. Whatever the bytes, the opening agrees with the reading:
// damage is left in place, a torn tail goes and nothing else, and what stays reads clean.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/hostlink/ledger.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::string path = vl::paths::join(vl::paths::home(), "ledger/ledger.blocks");
  vl::fuzz::placeFile(path, bytes);

  std::optional<vl::LedgerScan> before = vl::readLedgerFile(path);
  vl::fuzz::require(before.has_value(), "a placed file can be read");
  vl::fuzz::require(!(before->damage && before->tornTail), "one bad block at most");
  vl::fuzz::require(before->goodEnd <= size, "the good blocks lie inside the file");

  vl::Error error;
  auto ledger = vl::LedgerFile::open(path, &error);
  vl::fuzz::require(ledger != nullptr, "a readable file opens", error.description());
  std::optional<vl::LedgerScan> after = vl::readLedgerFile(path);
  vl::fuzz::require(after.has_value(), "the opened file can be read");
  vl::fuzz::require(ledger->blockCount() == before->blocks.size(),
                    "the open keeps every good block");
  vl::fuzz::require(after->blocks.size() == before->blocks.size(), "the good blocks stay");
  if (before->damage) {
    vl::fuzz::require(ledger->damage() && ledger->damage()->index == before->damage->index,
                      "the open reports the damage the reading found");
    vl::fuzz::require(after->damage && after->damage->offset == before->damage->offset,
                      "damage is never cut");
  } else {
    vl::fuzz::require(!after->firstBad(), "the kept prefix verifies");
    vl::fuzz::require(after->goodEnd == before->goodEnd, "only a torn tail is cut");
  }
  for (size_t i = 0; i < after->blocks.size(); ++i) {
    vl::fuzz::require(after->blocks[i].hash == before->blocks[i].hash, "kept blocks are unchanged");
  }
  return 0;
}
