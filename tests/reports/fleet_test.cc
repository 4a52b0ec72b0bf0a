// A fleet read back from real runs: three devices' results files and timelines written by the
// results aggregate, loaded from a folder and from one file, merged and summarised.
#include "vorlund/reports/fleet.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "results/run_sandbox.h"
#include "vorlund/reports/fleet_summary.h"

namespace fs = std::filesystem;

namespace vl {
namespace {

struct DevicePlan {
  std::string serial;
  int passes;
  int failures;       // bucket "timeout"
  double throughput;  // the "Average" test case's metric
  int crashes;        // wifi daemon crashes
};

std::shared_ptr<VLTestCaseResult> average(double throughput) {
  auto r = test::result("Download", true, kVLTestCaseResultTypeAverage);
  r->addMetric(Value(Number(throughput)), std::string("Throughput"));
  return r;
}

// Runs one device's stress run in its own sandbox, two hours long, and copies its results file and
// timeline into folder. Returns the results file's copy.
std::string runDevice(const DevicePlan& plan, const fs::path& folder,
                      const std::string& prefix = "") {
  test::RunSandbox sandbox(
      {{"StressType", "wifi"}, {"StressSubtype", "Default"}, {"SerialNumber", plan.serial}});
  std::shared_ptr<VLResults> run = sandbox.results();
  for (int i = 0; i < plan.passes; ++i) run->addTestCaseResult(test::result("Ping", true), false);
  for (int i = 0; i < plan.failures; ++i)
    run->addTestCaseResult(test::result("Ping", false), false);
  run->addTestCaseResult(average(plan.throughput), false);
  run->addTestCaseResult(average(plan.throughput + 2), false);
  for (int i = 0; i < plan.crashes; ++i) {
    run->addIssue(test::issue("wpa_supplicant crashed", "wpa_supplicant", "Crash", 60.0 + i, *run));
  }
  run->setRuntime(7200);
  fs::create_directories(folder);
  std::string resultsFile =
      (folder / (prefix + fs::path(run->getResultsFilePath()).filename().string())).string();
  EXPECT_TRUE(run->saveToFile(resultsFile));
  fs::copy_file(run->timelinePath(),
                folder / (prefix + fs::path(run->timelinePath()).filename().string()));
  return resultsFile;
}

class FleetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const DevicePlan& plan : plans_) files_.push_back(runDevice(plan, folder()));
  }
  fs::path folder() const { return fs::path(scratch_.file("fleet")); }

  const std::vector<DevicePlan> plans_ = {
      {"FLEET-C", 9, 1, 10.0, 0}, {"FLEET-A", 10, 0, 20.0, 2}, {"FLEET-B", 6, 4, 30.0, 1}};
  test::TempDir scratch_;
  std::vector<std::string> files_;
};

TEST_F(FleetTest, AFolderOfThreeRunsMergesIntoRealQualityFigures) {
  Error error;
  std::optional<Fleet> fleet = loadFleet(folder().string(), &error);
  ASSERT_TRUE(fleet) << error.description();
  ASSERT_EQ(fleet->devices.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    const DeviceRun& device = fleet->devices[i];
    EXPECT_EQ(device.device, std::string("FLEET-") + char('A' + i));
    // Each results file is paired with its own run's timeline.
    EXPECT_EQ(timelineSerialNumber(device.timelinePath), device.device);
  }

  FleetSummary summary = summarizeFleet(*fleet);
  EXPECT_EQ(summary.mergedResults, 3);
  EXPECT_NEAR(summary.runtime, 3 * 7200.0, 60.0);
  for (double figure : {summary.QI, summary.estimatedQI, summary.testcaseQI}) {
    EXPECT_TRUE(std::isfinite(figure)) << figure;
  }
  ASSERT_TRUE(summary.mtbf.count("overall"));
  EXPECT_NEAR(summary.mtbf["overall"], summary.runtime / 3, 60.0);

  ASSERT_EQ(summary.testCases.size(), 2u);
  const TestCaseSummary& download = summary.testCases[0];
  const TestCaseSummary& ping = summary.testCases[1];
  EXPECT_EQ(ping.name, "Ping");
  EXPECT_EQ(ping.total.instances, 30u);
  EXPECT_EQ(ping.total.failures, 5u);
  EXPECT_EQ(ping.total.failuresByBucket.at("timeout"), 5u);
  EXPECT_EQ(ping.perDevice.at("FLEET-B").failures, 4u);
  EXPECT_NEAR(ping.perDevice.at("FLEET-B").failureRate, 0.4, 1e-9);
  EXPECT_EQ(ping.perDevice.at("FLEET-A").failures, 0u);
  ASSERT_EQ(download.metrics.size(), 1u);
  EXPECT_NEAR(download.metrics[0].mean, 21.0, 1e-9);
  EXPECT_EQ(download.metrics[0].minimum, 10.0);
  EXPECT_EQ(download.metrics[0].maximum, 32.0);

  ASSERT_EQ(summary.issues.size(), 1u);
  EXPECT_EQ(summary.issues[0].total, 3u);
  EXPECT_EQ(summary.issues[0].perDevice,
            (std::map<std::string, uint64_t>{{"FLEET-A", 2}, {"FLEET-B", 1}}));

  nlohmann::json json = fleetSummaryJson(summary);
  EXPECT_EQ(json["devices"], nlohmann::json({"FLEET-A", "FLEET-B", "FLEET-C"}));
  EXPECT_EQ(json["testCases"][1]["devices"]["FLEET-B"]["failuresByBucket"]["timeout"], 4);
  std::string text = fleetSummaryText(summary);
  EXPECT_NE(text.find("failed 5 x \"timeout\" (FLEET-B 4, FLEET-C 1)"), std::string::npos) << text;
  EXPECT_NE(text.find("3 x Crash wpa_supplicant: wpa_supplicant crashed (FLEET-A 2, FLEET-B 1)"),
            std::string::npos)
      << text;
}

TEST_F(FleetTest, TwoRunsOfOneDeviceCountAsThatDevicesTogether) {
  runDevice({"FLEET-B", 8, 2, 40.0, 0}, folder(), "second-");
  std::optional<Fleet> fleet = loadFleet(folder().string());
  ASSERT_TRUE(fleet);
  ASSERT_EQ(fleet->devices.size(), 4u);
  EXPECT_NE(fleet->devices[1].timelinePath, fleet->devices[2].timelinePath);
  FleetSummary summary = summarizeFleet(*fleet);
  EXPECT_EQ(summary.devices, (std::vector<std::string>{"FLEET-A", "FLEET-B", "FLEET-C"}));
  const DeviceFigures& pingOfB = summary.testCases[1].perDevice.at("FLEET-B");
  EXPECT_EQ(pingOfB.instances, 20u);
  EXPECT_EQ(pingOfB.failures, 6u);
  EXPECT_NEAR(pingOfB.failureRate, 0.3, 1e-9);
  EXPECT_EQ(pingOfB.failuresByBucket.at("timeout"), 6u);
  // B's own metrics, pooled over its two runs: 30, 32, 40 and 42.
  const DeviceFigures& downloadOfB = summary.testCases[0].perDevice.at("FLEET-B");
  ASSERT_EQ(downloadOfB.metrics.size(), 1u);
  EXPECT_NEAR(downloadOfB.metrics[0].mean, 36.0, 1e-9);
  EXPECT_EQ(downloadOfB.metrics[0].minimum, 30.0);
  EXPECT_EQ(downloadOfB.metrics[0].maximum, 42.0);
}

TEST_F(FleetTest, OneRunFileIsAFleetOfOneWithItsTimeline) {
  std::optional<Fleet> fleet = loadFleet(files_[0]);
  ASSERT_TRUE(fleet);
  ASSERT_EQ(fleet->devices.size(), 1u);
  EXPECT_EQ(fleet->devices[0].device, "FLEET-C");
  EXPECT_EQ(fleet->aggregate, fleet->devices[0].results);
  EXPECT_FALSE(fleet->devices[0].timelinePath.empty());
  FleetSummary summary = summarizeFleet(*fleet);
  EXPECT_EQ(summary.testCases[1].total.failures, 1u);
  EXPECT_TRUE(summary.mtbf.empty() || !summary.mtbf.count("overall") ||
              std::isfinite(summary.mtbf["overall"]));
}

TEST_F(FleetTest, DamagedAndMissingInputsAreNamedNotFatal) {
  // A results file cut short among good ones is left out; the others still make the fleet.
  std::string damaged = (folder() / "VorlundResults_wifi_BROKEN.plist").string();
  test::writeFile(damaged, test::readFile(files_[1]).substr(0, 200));
  std::optional<Fleet> fleet = loadFleet(folder().string());
  ASSERT_TRUE(fleet);
  EXPECT_EQ(fleet->devices.size(), 3u);

  struct Case {
    std::string path;
    std::string expected;
  } cases[] = {
      {scratch_.file("nowhere"), "does not exist"},
      {damaged, "is not a results file"},
      {scratch_.path(), "holds no results file"},
  };
  for (const Case& c : cases) {
    Error error;
    EXPECT_FALSE(loadFleet(c.path, &error)) << c.path;
    EXPECT_NE(error.localizedDescription().find(c.expected), std::string::npos)
        << error.localizedDescription();
  }
}

}  // namespace
}  // namespace vl
