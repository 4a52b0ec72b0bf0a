// vorlundctl fleet collect: places device runs into a fleet folder (reports/fleet_collect.h), the
// current run of this user by default, so that a loop over devices fills one folder for
// `vorlundctl query`, `vorlundctl export` and a VLConfigResult watching it.
#include <cstdio>
#include <filesystem>

#include "commands.h"
#include "user_run.h"
#include "vorlund/reports/fleet_collect.h"

namespace vorlundctl {

namespace {

constexpr const char* kCollectHelp =
    "Copies a run's results file into DIR/Plists and its timeline into DIR/Databases (both made\n"
    "when missing) as VorlundResults_<serial>_<start>.plist and "
    "VorlundTimeline_<serial>_<start>.db.\n"
    "The serial number is the results file's \"Hardware Info\" \"SerialNumber\", else the\n"
    "timeline's Config \"SerialNumber\"; <start> is the run's StartTime. Without files, this\n"
    "user's current run is saved and collected (the stress service's while it runs).\n"
    "Collecting a run again replaces its files; each run of a device keeps its own. Each file\n"
    "appears in its folder complete, so a folder being watched can be filled.";

void printCollected(const vl::CollectedRun& run) {
  std::printf("%s: %s\n", run.serialNumber.c_str(), run.resultsPath.c_str());
  if (!run.timelinePath.empty())
    std::printf("%s: %s\n", run.serialNumber.c_str(), run.timelinePath.c_str());
}

}  // namespace

void addFleetCommand(CLI::App& app) {
  CLI::App* fleet =
      parentCommand(app, "fleet", "Work with a fleet folder of several devices' runs");
  static std::string dir;
  static std::vector<std::string> files;
  auto* collect = fleet->add_subcommand("collect", "Place device runs into a fleet folder");
  collect->footer(kCollectHelp);
  collect->add_option("DIR", dir, "Fleet folder")->required();
  collect->add_option("FILES", files, "Pairs of RESULTS_FILE DB (default: the current run)");
  setAction(collect, [] {
    std::vector<std::pair<std::string, std::string>> runs;
    if (files.empty()) {
      vl::ipm::RunFiles current = saveUserRun();
      // A run that has recorded nothing yet has no timeline file.
      bool hasTimeline = std::filesystem::exists(current.timeline);
      runs.emplace_back(current.resultsFile, hasTimeline ? current.timeline : "");
    } else if (files.size() % 2 != 0) {
      throw UsageFailure("give each results file with its timeline: RESULTS_FILE DB ...");
    }
    for (size_t i = 0; i + 1 < files.size(); i += 2) runs.emplace_back(files[i], files[i + 1]);
    for (const auto& [resultsFile, timeline] : runs) {
      vl::Error error;
      std::optional<vl::CollectedRun> collected =
          vl::collectRun(dir, resultsFile, timeline, &error);
      if (!collected) throw UsageFailure(error.localizedDescription());
      printCollected(*collected);
    }
    return 0;
  });
}

}  // namespace vorlundctl
