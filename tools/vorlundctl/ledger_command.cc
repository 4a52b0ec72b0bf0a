// vorlundctl ledger: reads the device's block ledger without changing it. `show` lists the blocks,
// `verify` checks the whole chain and names the first bad block (exit status 1 when there is one).
#include <cstdio>

#include "commands.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/hostlink/cordex_transform.h"
#include "vorlund/hostlink/ledger.h"

namespace vorlundctl {

namespace {

constexpr size_t kSummaryLength = 60;

std::string ledgerPath(const std::string& file) {
  return file.empty() ? vl::paths::join(VLCordexTransform::dataDirectory(), vl::kLedgerFileName)
                      : file;
}

vl::LedgerScan readLedger(const std::string& path) {
  vl::Error error;
  std::optional<vl::LedgerScan> scan = vl::readLedgerFile(path, &error);
  if (!scan) throw UsageFailure(error.localizedDescription());
  return std::move(*scan);
}

// A results run reads best as its stress type and counts; any other JSON as its compact text, cut.
std::string summaryOf(const std::string& json) {
  std::optional<vl::Value> value = vl::json::parse(json);
  const vl::Dictionary* run = value ? value->asDictionary() : nullptr;
  if (run && run->find("TestCases") && run->find("StressType")) {
    const vl::Dictionary* cases = run->get("TestCases").asDictionary();
    const vl::Array* issues = run->get("Issues").asArray();
    return vl::format("run %@: %zu test cases, %zu issues", run->get("StressType"),
                      cases ? cases->size() : size_t{0}, issues ? issues->size() : size_t{0});
  }
  if (json.size() <= kSummaryLength) return json;
  size_t cut = kSummaryLength;
  while (cut > 0 && (static_cast<unsigned char>(json[cut]) & 0xC0) == 0x80) --cut;
  return json.substr(0, cut) + "...";
}

std::string describeBad(const vl::LedgerScan& scan) {
  const vl::LedgerScan::Bad* bad = scan.firstBad();
  return vl::format("block %zu (byte %llu): %s%s", bad->index,
                    static_cast<unsigned long long>(bad->offset), bad->reason.c_str(),
                    scan.tornTail ? "; a torn last block, cut when the ledger is next opened to "
                                    "write"
                                  : "");
}

int show(const std::string& file, bool asJson) {
  const std::string path = ledgerPath(file);
  vl::LedgerScan scan = readLedger(path);
  if (asJson) {
    vl::Array blocks;
    for (const vl::LedgerBlock& block : scan.blocks) {
      vl::Dictionary entry;
      entry.set("Index", vl::Value(static_cast<int64_t>(block.index)));
      entry.set("Time", vl::dateString(block.time));
      entry.set("Length", vl::Value(static_cast<int64_t>(block.length())));
      entry.set("Hash", block.hash);
      entry.set("PreviousHash", block.previousHash);
      entry.set("Summary", summaryOf(block.json));
      blocks.push_back(entry);
    }
    std::printf("%s\n", vl::json::serialize(blocks, true).value_or("[]").c_str());
  } else {
    for (const vl::LedgerBlock& block : scan.blocks) {
      std::printf("%zu  %s  %8llu  %.16s  %s\n", block.index, vl::dateString(block.time).c_str(),
                  static_cast<unsigned long long>(block.length()), block.hash.c_str(),
                  summaryOf(block.json).c_str());
    }
  }
  if (scan.firstBad()) std::fprintf(stderr, "vorlundctl: %s\n", describeBad(scan).c_str());
  return 0;
}

int verify(const std::string& file) {
  const std::string path = ledgerPath(file);
  vl::LedgerScan scan = readLedger(path);
  if (scan.firstBad()) {
    std::printf("%s: %zu good blocks, first bad %s\n", path.c_str(), scan.blocks.size(),
                describeBad(scan).c_str());
    return 1;
  }
  std::printf("%s: %zu blocks, chain intact\n", path.c_str(), scan.blocks.size());
  return 0;
}

}  // namespace

void addLedgerCommand(CLI::App& app) {
  auto* ledger = app.add_subcommand("ledger", "Read the device's block ledger");
  ledger->require_subcommand(1);
  static std::string file;
  static bool asJson = false;
  const char* fileHelp = "The ledger file (default: the device's)";

  auto* showCommand = ledger->add_subcommand("show", "List the blocks");
  showCommand->add_option("--file", file, fileHelp);
  showCommand->add_flag("--json", asJson, "Print as JSON");
  setAction(showCommand, [] { return show(file, asJson); });

  auto* verifyCommand =
      ledger->add_subcommand("verify", "Check the whole chain; exit status 1 at a bad block");
  verifyCommand->add_option("--file", file, fileHelp);
  setAction(verifyCommand, [] { return verify(file); });
}

}  // namespace vorlundctl
