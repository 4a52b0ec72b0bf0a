// vorlundctl: the command-line front end of Vorlund. Each command lives in a file of its own and
// registers itself with the app here.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "commands.h"
#include "user_run.h"

int main(int argc, char** argv) {
  CLI::App app{"vorlundctl: the front end of Vorlund, the wireless stress-test system"};
  app.require_subcommand(1);
  app.set_help_all_flag("--help-all", "Show help for every command");

  vorlundctl::addDecodeCommand(app);
  vorlundctl::addEncodeCommand(app);
  vorlundctl::addResultsCommand(app);
  vorlundctl::addListCommand(app);
  vorlundctl::addRunCommand(app);
  vorlundctl::addScanCommand(app);
  vorlundctl::addDeviceCommand(app);
  vorlundctl::addMemdumpCommand(app);
  vorlundctl::addSyncCommand(app);
  vorlundctl::addFaultbinCommand(app);
  vorlundctl::addPingCommands(app);
  vorlundctl::addThroughputCommand(app);
  vorlundctl::addLedgerCommand(app);
  vorlundctl::addAggregateCommand(app);
  vorlundctl::addQueryCommand(app);
  vorlundctl::addFleetCommand(app);
  vorlundctl::addExportCommand(app);
  vorlundctl::addReportCommand(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  try {
    vorlundctl::recordLibraryIssuesInUserRun();
    return vorlundctl::runSelectedCommand();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "vorlundctl: %s\n", e.what());
    return 1;
  }
}
