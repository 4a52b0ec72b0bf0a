// vorlundctl memdump: takes a memory-performance set for a process as a test case would (the
// eight-file set of an iteration, or the initial or final set) and prints the files written. A
// file a tool did not write is reported on standard error and makes the exit status 1. The folders
// are named after this user's run (user_run.h), not a run of this process.
#include <cstdio>
#include <filesystem>

#include "commands.h"
#include "user_run.h"
#include "vorlund/devicetools/memory_diagnostics.h"
#include "vorlund/foundation/date_string.h"

namespace vorlundctl {

void addMemdumpCommand(CLI::App& app) {
  static std::string process, testCase;
  static int environment = 0, iteration = 0;
  static bool initial = false, final = false;
  auto* memdump = app.add_subcommand("memdump", "Write a process's memory diagnostics");
  memdump->add_option("PROCESS", process, "The process, by name")->required();
  memdump->add_option("--test-case", testCase, "The test case the files belong to")->required();
  memdump->add_option("--env", environment, "Environment index (default 0)")
      ->check(CLI::Range(0, 99));
  memdump->add_option("--iteration", iteration, "Iteration (default 0)")->check(CLI::Range(0, 99));
  auto* initialFlag = memdump->add_flag("--initial", initial, "The set taken at the start");
  memdump->add_flag("--final", final, "The set taken at the end")->excludes(initialFlag);
  setAction(memdump, [] {
    std::optional<vl::Date> start =
        vl::dateFromString(userRunSummary().get("StartTime").stringOr(""));
    if (!start) throw UsageFailure("the run of this user has no start time");
    vl::devicetools::setRunStartTimeSource([start] { return *start; });
    std::vector<std::string> files =
        initial ? VLDumpInitialLogSetForMemoryPerfForEnv(testCase, process, environment)
        : final ? VLDumpFinalLogSetForMemoryPerf(testCase, process, environment)
                : VLDumpLogsForMemoryPerfForTestCaseForFolder(testCase, iteration, process,
                                                              environment);
    int status = 0;
    for (const std::string& file : files) {
      std::error_code error;
      if (std::filesystem::exists(file, error)) {
        std::printf("%s\n", file.c_str());
      } else {
        std::fprintf(stderr, "not written: %s\n", file.c_str());
        status = 1;
      }
    }
    return status;
  });
}

}  // namespace vorlundctl
