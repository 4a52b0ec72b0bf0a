// A fleet folder of real runs for the reports tests: each device's run is made through the results
// API in a sandbox of its own (its serial number from VORLUND_SERIAL_NUMBER), saved, and its
// results file and timeline copied into "Plists" and "Databases" as a collected fleet holds them.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "results/run_sandbox.h"
#include "support/test_support.h"
#include "vorlund/foundation/date_string.h"

namespace vl::test {

// A result of test case name, started secondsAfterStart after the run's start and lasting a
// second: passed when reason is empty, else failed with that reason as its bucket.
inline std::shared_ptr<VLTestCaseResult> timedResult(
    const VLResults& run, const std::string& name, double secondsAfterStart,
    const std::string& reason, const char* type = kVLTestCaseResultTypePassFail) {
  auto r = result(name, reason.empty(), type);
  if (!reason.empty()) r->failWithReason(reason);
  r->setStartTime(Date{run.startTime().secondsSince1970 + secondsAfterStart});
  r->setEndTime(Date{run.startTime().secondsSince1970 + secondsAfterStart + 1});
  return r;
}

class SandboxFleet {
 public:
  SandboxFleet() {
    std::filesystem::create_directories(dir_.file("Plists"));
    std::filesystem::create_directories(dir_.file("Databases"));
  }
  const std::string& path() const { return dir_.path(); }
  std::string file(const std::string& relative) const { return dir_.file(relative); }

  struct Files {
    std::string results;
    std::string timeline;
  };
  // Makes one run of the device serial, filled by fill, and copies its files into the fleet. The
  // names carry the serial and the start, as collected files do.
  Files addDevice(const std::string& serial, const std::function<void(VLResults&)>& fill) {
    ScopedEnv serialEnv("VORLUND_SERIAL_NUMBER", serial);
    RunSandbox sandbox;
    VLResults& run = *sandbox.results();
    fill(run);
    EXPECT_TRUE(run.saveToDisk());
    const std::string stem = serial + "_" + dateString(run.startTime());
    Files files{dir_.file("Plists/VorlundResults_" + stem + ".plist"),
                dir_.file("Databases/VorlundTimeline_" + stem + ".db")};
    std::filesystem::copy_file(run.getResultsFilePath(), files.results);
    std::filesystem::copy_file(run.timelinePath(), files.timeline);
    return files;
  }

 private:
  TempDir dir_;
};

// Three devices with failures, metrics and issues, reasons that hold SQL and XML specials:
//   FLEET0001  Ping passes twice, fails once "No reply"; Download (Average) Mbps 40 and 60;
//              a wpa_supplicant crash
//   FLEET0002  Ping fails "it's <gone> & \"lost\"" twice, an hour apart; Download Mbps 50
//   FLEET0003  Ping passes; a Failure issue of "Vorlund"
inline void addThreeDevices(SandboxFleet& fleet) {
  fleet.addDevice("FLEET0001", [](VLResults& run) {
    run.addTestCaseResult(timedResult(run, "Ping", 10, ""), true);
    run.addTestCaseResult(timedResult(run, "Ping", 20, ""), true);
    run.addTestCaseResult(timedResult(run, "Ping", 30, "No reply"), true);
    for (double mbps : {40.0, 60.0}) {
      auto download = timedResult(run, "Download", 40, "", kVLTestCaseResultTypeAverage);
      download->addMetric(Value(mbps), "Mbps");
      run.addTestCaseResult(download, true);
    }
    run.addIssue(issue("segfault in scan", "wpa_supplicant", "Crash", 50, run));
  });
  fleet.addDevice("FLEET0002", [](VLResults& run) {
    run.addTestCaseResult(timedResult(run, "Ping", 10, "it's <gone> & \"lost\""), true);
    run.addTestCaseResult(timedResult(run, "Ping", 3610, "it's <gone> & \"lost\""), true);
    auto download = timedResult(run, "Download", 40, "", kVLTestCaseResultTypeAverage);
    download->addMetric(Value(50.0), "Mbps");
    run.addTestCaseResult(download, true);
  });
  fleet.addDevice("FLEET0003", [](VLResults& run) {
    run.addTestCaseResult(timedResult(run, "Ping", 10, ""), true);
    run.addIssue(issue("watchdog fired", "Vorlund", "Failure", 20, run));
  });
}

// The timeline of the device serial in the fleet; empty when it has none.
inline std::string fleetTimeline(const SandboxFleet& fleet, const std::string& serial) {
  for (const auto& entry : std::filesystem::directory_iterator(fleet.file("Databases"))) {
    const std::string name = entry.path().filename().string();
    if (name.find("_" + serial + "_") != std::string::npos && name.ends_with(".db"))
      return entry.path().string();
  }
  return "";
}

}  // namespace vl::test
