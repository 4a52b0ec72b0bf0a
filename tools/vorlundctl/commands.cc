#include "commands.h"

#include <vector>

namespace vorlundctl {

namespace {

std::vector<std::pair<CLI::App*, std::function<int()>>>& actions() {
  static std::vector<std::pair<CLI::App*, std::function<int()>>> list;
  return list;
}

}  // namespace

void setAction(CLI::App* command, std::function<int()> action) {
  actions().emplace_back(command, std::move(action));
}

int runSelectedCommand() {
  for (auto& [command, action] : actions()) {
    if (command->parsed()) return action();
  }
  return 1;
}

}  // namespace vorlundctl
