#include "commands.h"

#include <iostream>
#include <iterator>
#include <vector>

#include "vorlund/foundation/paths.h"

namespace vorlundctl {

namespace {

std::vector<std::pair<CLI::App*, std::function<int()>>>& actions() {
  static std::vector<std::pair<CLI::App*, std::function<int()>>> list;
  return list;
}

}  // namespace

std::string readInputText(const std::string& file) {
  if (file.empty() || file == "-") {
    return std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  std::optional<std::string> contents = vl::paths::readFile(file);
  if (!contents) throw UsageFailure("cannot read " + file);
  return std::move(*contents);
}

void setAction(CLI::App* command, std::function<int()> action) {
  actions().emplace_back(command, std::move(action));
}

int runSelectedCommand() {
  for (auto& [command, action] : actions()) {
    if (command->parsed()) return action();
  }
  return 1;
}

CLI::App* parentCommand(CLI::App& app, const std::string& name, const std::string& description) {
  try {
    return app.get_subcommand(name);
  } catch (const CLI::OptionNotFound&) {
    CLI::App* parent = app.add_subcommand(name, description);
    parent->require_subcommand(1);
    return parent;
  }
}

}  // namespace vorlundctl
