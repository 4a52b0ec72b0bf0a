// The platform's two evidence calls behind one interface: capturing a full diagnostic archive (a
// snapdump) and cutting an archive of the system log. On Linux the capture runs the command in the
// preference "SnapdumpCommand" and the log archive is an export of the journal, both through the
// shell runner; a device with its own tools installs another archiver.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "vorlund/foundation/error.h"
#include "vorlund/foundation/value.h"

namespace vl {

// The preference that names the command capturing a diagnostic archive.
inline constexpr const char* kSnapdumpCommandPreference = "SnapdumpCommand";
// Bounds on the Linux archiver's commands, in seconds (scaled). A capture is given two hours: past
// one hour the trigger samples it as hung, and the bound then frees the queue again.
inline constexpr double kSnapdumpCommandTimeout = 7200;
inline constexpr double kLogArchiveTimeout = 600;

class DiagnosticArchiver {
 public:
  virtual ~DiagnosticArchiver() = default;

  // Captures a full diagnostic archive and blocks until it is written. Returns the error of a
  // failed capture, or none on success. May throw; the callers catch.
  virtual std::optional<Error> snapdump(const Dictionary& metadata) = 0;

  // Writes an archive of the system log from startTime (seconds since 1970) on to path, at most
  // sizeLimit bytes. warning receives each warning the tool gives. Returns 0 on success, otherwise
  // the tool's status (-1 when it could not run).
  virtual int createLogArchive(const std::string& path, int64_t sizeLimit, int64_t startTime,
                               uint32_t options,
                               const std::function<void(const char* warning)>& warning) = 0;
};

// The Linux archiver.
// - snapdump: runs the command of the preference "SnapdumpCommand" (read afresh from the
//   preferences at each capture) through the shell runner, bounded by kSnapdumpCommandTimeout; the
//   metadata is not passed on. Error (domain "com.brindle.Vorlund", code 1, "Reason") when there is
//   no such preference, or when the command cannot run, is killed or exits with a non-zero status.
// - createLogArchive: "journalctl --since=@START --output=export" into path (cut at sizeLimit bytes
//   unless sizeLimit is INT64_MAX), each line of its standard error a warning. options has no
//   meaning here.
std::shared_ptr<DiagnosticArchiver> makeLinuxDiagnosticArchiver();

// The archiver the process uses; the Linux one until another is set.
std::shared_ptr<DiagnosticArchiver> diagnosticArchiver();
// Installs an archiver for the process; nullptr restores the Linux one.
void setDiagnosticArchiver(std::shared_ptr<DiagnosticArchiver> archiver);

}  // namespace vl
