// Feeds arbitrary bytes to the crash-report readers: the crashed-thread and simulated-crash tests
// over text and over the same bytes in a file (they must agree), the kill-report parser, and the
// name parser over the first line.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/devicetools/crash_report.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);

  std::optional<std::string> line = vl::findCrashedThreadLine(input);
  if (line) {
    vl::fuzz::require(line->starts_with("Thread ") && line->find("Crashed") != std::string::npos,
                      "a crashed-thread line begins with Thread and holds Crashed");
    vl::fuzz::require(line->size() <= kVLCrashReportPieceLength, "a piece is at most 1023 bytes");
    vl::fuzz::require(input.find(*line) != std::string_view::npos,
                      "the line is part of the report");
  }
  const bool simulated = vl::hasSimulatedCrashNote(input);

  static const std::string path = vl::paths::resolve("/tmp/Faultbin/fuzz_2023-05-01-123456.ips");
  vl::fuzz::placeFile(path, input);
  vl::fuzz::require(VLFindThreadCrashInFile(path) == line.has_value(),
                    "the file and text readers agree on the crashed thread");
  vl::fuzz::require(VLIsCrashSimulated(path) == simulated,
                    "the file and text readers agree on the simulated note");

  vl::Error error;
  std::optional<std::vector<vl::CullerKill>> kills = vl::parseKillReport(input, &error);
  if (!kills) vl::fuzz::require(!error.localizedDescription().empty(), "a refused body says why");

  vl::FaultbinFileName name = vl::parseFaultbinFileName(input.substr(0, input.find('\n')));
  if (!name.time) vl::fuzz::require(name.process.empty(), "no date, no process");
  return 0;
}
