// Feeds arbitrary text as `journalctl -o json` lines through the import: lines to entries, entries
// to reports. Every report must be one the crash scanner reads as meant: a name with the date where
// the scanner looks for it, crash reports with exactly one crashed-thread line, kill reports with a
// header line and JSON whose "processes" name each kill.
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/devicetools/crash_collector.h"
#include "vorlund/devicetools/journal_source.h"

namespace {

bool isDateAt(std::string_view name, size_t at) {
  constexpr std::string_view kShape = "dddd-dd-dd-dddddd";
  if (at + kShape.size() > name.size()) return false;
  for (size_t k = 0; k < kShape.size(); ++k) {
    char c = name[at + k];
    if (kShape[k] == 'd' ? (c < '0' || c > '9') : c != '-') return false;
  }
  return true;
}

size_t crashedThreadLines(std::string_view text) {
  size_t count = 0;
  while (!text.empty()) {
    size_t newline = text.find('\n');
    std::string_view line = text.substr(0, newline);
    if (line.rfind("Thread ", 0) == 0 && line.find("Crashed") != std::string_view::npos) ++count;
    text = newline == std::string_view::npos ? std::string_view() : text.substr(newline + 1);
  }
  return count;
}

void checkReport(const vl::FaultbinReport& report) {
  const std::string& name = report.fileName;
  vl::fuzz::require(name.find('/') == std::string::npos, "a report name is one path component");
  vl::fuzz::require(name.size() > 4 && name.compare(name.size() - 4, 4, ".ips") == 0,
                    "a report name ends in .ips");
  size_t date = 0;
  while (date < name.size() && !isDateAt(name, date)) ++date;
  vl::fuzz::require(date > 1 && name[date - 1] == '_', "the first date follows the process name");
  vl::fuzz::require(
      report.folder == vl::faultbinFolderForUid(0) || report.folder == vl::faultbinFolderForUid(1),
      "a report goes to a Faultbin folder");
  bool isKill = name.rfind("CullerEvent_", 0) == 0;
  vl::fuzz::require(crashedThreadLines(report.contents) == (isKill ? 0u : 1u),
                    "exactly one crashed-thread line in a crash report, none in a kill report");
  if (!isKill) return;
  size_t newline = report.contents.find('\n');
  vl::fuzz::require(newline != std::string::npos, "a kill report has a header line");
  nlohmann::json body = nlohmann::json::parse(report.contents.substr(newline + 1), nullptr, false);
  vl::fuzz::require(
      body.is_object() && body["processes"].is_array() && body["processes"].size() == 1,
      "a kill report's JSON lists the killed process");
  const nlohmann::json& killed = body["processes"][0];
  vl::fuzz::require(killed["name"].is_string() && killed["pid"].is_number_unsigned() &&
                        killed["reason"].is_string(),
                    "a killed process carries name, pid and reason");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  vl::RecordedJournalSource source(input);
  for (bool final : {false, true}) {
    vl::FaultbinConversion conversion = vl::convertJournalEntries(source.entries(), final);
    for (const vl::FaultbinReport& report : conversion.reports) checkReport(report);
    if (final) {
      vl::fuzz::require(source.entries().empty() || conversion.resumeCursor,
                        "a final conversion uses every entry");
    }
  }
  return 0;
}
