// The commands of vorlundctl. Each add*Command registers its subcommand and remembers what to run
// when it is selected; runSelectedCommand runs it and returns the exit status.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <stdexcept>
#include <string>

namespace vorlundctl {

// A failure the user caused (bad input, missing file): printed as one line, exit status 1.
struct UsageFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void addDecodeCommand(CLI::App& app);
void addListCommand(CLI::App& app);
void addRunCommand(CLI::App& app);
void addEncodeCommand(CLI::App& app);
void addResultsCommand(CLI::App& app);
void addScanCommand(CLI::App& app);
void addDeviceCommand(CLI::App& app);
void addMemdumpCommand(CLI::App& app);
void addSyncCommand(CLI::App& app);
void addFaultbinCommand(CLI::App& app);
void addThroughputCommand(CLI::App& app);

// Records the action of the command being registered.
void setAction(CLI::App* command, std::function<int()> action);
int runSelectedCommand();

}  // namespace vorlundctl
