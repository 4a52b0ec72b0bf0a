#include "vorlund/devicetools/diagnostic_archiver.h"

#include <climits>
#include <mutex>
#include <sstream>

#include "devicetools/shell_quote.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/foundation/format.h"

namespace vl {

namespace {

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

class LinuxDiagnosticArchiver : public DiagnosticArchiver {
 public:
  std::optional<Error> snapdump(const Dictionary&) override {
    const Dictionary preferences = VLGetPreferences();
    const std::string* command = preferences.get(kSnapdumpCommandPreference).asString();
    if (!command || command->empty()) {
      return Error::withReason(
          vl::format("There is no \"%s\" in the preferences to capture a diagnostic archive with",
                     kSnapdumpCommandPreference));
    }
    std::shared_ptr<Task> task = VLExecuteTask(*command, {}, true, kSnapdumpCommandTimeout);
    if (!task->hasLaunched()) {
      return Error::withReason(
          vl::format("The snapdump command \"%s\" could not be run", *command));
    }
    std::string errorText = trimmed(VLConvertPipeToString(task->standardError()));
    VLConvertPipeToString(task->standardOutput());
    if (task->wasSignalled()) {
      return Error::withReason(vl::format("The snapdump command \"%s\" was ended by signal %d",
                                          *command, task->terminationStatus()));
    }
    if (task->terminationStatus() != 0) {
      return Error::withReason(vl::format("The snapdump command \"%s\" exited with status %d: %s",
                                          *command, task->terminationStatus(), errorText));
    }
    return std::nullopt;
  }

  int createLogArchive(const std::string& path, int64_t sizeLimit, int64_t startTime,
                       uint32_t /*options*/,
                       const std::function<void(const char*)>& warning) override {
    std::string command =
        vl::format("journalctl --since=@%lld --output=export", static_cast<long long>(startTime));
    if (sizeLimit != INT64_MAX && sizeLimit >= 0) {
      command += vl::format(" | head -c %lld", static_cast<long long>(sizeLimit));
    }
    command += " > " + devicetools::shellQuoted(path);
    std::shared_ptr<Task> task = VLExecuteTask(command, {}, true, kLogArchiveTimeout);
    if (!task->hasLaunched()) return -1;
    std::istringstream warnings(VLConvertPipeToString(task->standardError()));
    VLConvertPipeToString(task->standardOutput());
    for (std::string line; std::getline(warnings, line);) {
      if (!line.empty() && warning) warning(line.c_str());
    }
    return task->terminationStatus();
  }
};

std::mutex& archiverMutex() {
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<DiagnosticArchiver>& installedArchiver() {
  static std::shared_ptr<DiagnosticArchiver> archiver;
  return archiver;
}

}  // namespace

std::shared_ptr<DiagnosticArchiver> makeLinuxDiagnosticArchiver() {
  return std::make_shared<LinuxDiagnosticArchiver>();
}

std::shared_ptr<DiagnosticArchiver> diagnosticArchiver() {
  std::lock_guard lock(archiverMutex());
  if (!installedArchiver()) installedArchiver() = makeLinuxDiagnosticArchiver();
  return installedArchiver();
}

void setDiagnosticArchiver(std::shared_ptr<DiagnosticArchiver> archiver) {
  std::lock_guard lock(archiverMutex());
  installedArchiver() = std::move(archiver);
}

}  // namespace vl
