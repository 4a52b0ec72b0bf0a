// vorlundctl faultbin: fills the Faultbin folders from journals. `import` converts `journalctl -o
// json` lines taken from any machine (a file, or standard input); `collect` runs the collector once
// over this machine's journal, from where its last pass stopped.
#include <cstdio>
#include <sstream>

#include "commands.h"
#include "vorlund/devicetools/crash_collector.h"
#include "vorlund/devicetools/journal_source.h"

namespace vorlundctl {

namespace {

void printReport(const std::string& path, bool alreadyThere) {
  std::printf("%s%s\n", path.c_str(), alreadyThere ? " (already there)" : "");
}

int importJournal(const std::string& file) {
  std::string text = readInputText(file);
  vl::RecordedJournalSource source(text);
  for (const auto& [number, reason] : source.badLines()) {
    std::fprintf(stderr, "vorlundctl: line %zu: %s; skipped\n", number, reason.c_str());
  }
  // The whole journal is at hand: a kill whose second line is missing is reported as it stands.
  vl::FaultbinConversion conversion = vl::convertJournalEntries(source.entries(), true);
  for (const vl::FaultbinReport& report : conversion.reports) {
    bool alreadyThere = false;
    vl::Error error;
    std::optional<std::string> path = vl::writeFaultbinReport(report, &alreadyThere, &error);
    if (!path) throw std::runtime_error(error.localizedDescription());
    printReport(*path, alreadyThere);
  }
  std::printf("%zu journal entries, %zu reports\n", source.entries().size(),
              conversion.reports.size());
  return 0;
}

int collectJournal() {
  vl::CrashCollector collector(vl::makeSystemJournalSource());
  vl::Error error;
  std::optional<vl::CrashCollectorSummary> summary = collector.collect(&error);
  if (!summary) throw std::runtime_error(error.localizedDescription());
  for (const std::string& path : summary->written) printReport(path, false);
  std::printf("%zu journal entries, %zu reports written, %zu already there\n", summary->entriesRead,
              summary->written.size(), summary->alreadyThere.size());
  return 0;
}

}  // namespace

void addFaultbinCommand(CLI::App& app) {
  auto* faultbin = app.add_subcommand("faultbin", "Write crash and kill reports from the journal");
  faultbin->require_subcommand(1);

  static std::string file;
  auto* import = faultbin->add_subcommand(
      "import", "Convert `journalctl -o json` lines into reports (standard input without FILE)");
  import->add_option("FILE", file, "The journal lines; - or none for standard input");
  setAction(import, [] { return importJournal(file); });

  auto* collect = faultbin->add_subcommand(
      "collect", "Write the reports of this machine's journal since the last collection");
  setAction(collect, [] { return collectJournal(); });
}

}  // namespace vorlundctl
