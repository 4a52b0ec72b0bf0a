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
void addPingCommands(CLI::App& app);
void addLedgerCommand(CLI::App& app);
void addAggregateCommand(CLI::App& app);
void addQueryCommand(CLI::App& app);
void addFleetCommand(CLI::App& app);
void addExportCommand(CLI::App& app);
void addReportCommand(CLI::App& app);

// The whole text of file, or of standard input when file is empty or "-". Throws UsageFailure when
// the file cannot be read.
std::string readInputText(const std::string& file);
void addThroughputCommand(CLI::App& app);

// A parent command ("measure", "parse") whose leaves several command files register: found, or
// made (requiring one leaf) by the first file to ask, so that each file stands alone.
CLI::App* parentCommand(CLI::App& app, const std::string& name, const std::string& description);

// Records the action of the command being registered.
void setAction(CLI::App* command, std::function<int()> action);
int runSelectedCommand();

}  // namespace vorlundctl
