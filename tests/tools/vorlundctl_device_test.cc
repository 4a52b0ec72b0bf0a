// vorlundctl device and memdump through the real binary on a sandboxed device.
#include <gtest/gtest.h>

#include <sstream>

#include "devicetools/fake_tools.h"
#include "tools/ctl.h"

namespace vl {
namespace {

using test::ctl;

class VorlundctlDeviceTest : public ::testing::Test {
 protected:
  VorlundctlDeviceTest() {
    test::writeFile(sandbox_.root() + "/etc/machine-id", "7e57\n");
    test::writeFile(sandbox_.root() + "/etc/os-release", "VERSION_ID=13\n");
    test::writeFile(sandbox_.root() + "/proc/device-tree/model", std::string("Board Y\0", 8));
  }
  test::Sandbox sandbox_;
  test::ScopedEnv serial_{"VORLUND_SERIAL_NUMBER", "DEV42"};
  test::ScopedEnv noModemManager_{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus"};
};

TEST_F(VorlundctlDeviceTest, DevicePrintsEveryValueAsLinesOrOneObject) {
  auto plain = ctl({"device"});
  ASSERT_EQ(plain.exitStatus, 0) << plain.err;
  EXPECT_EQ(plain.out,
            "SerialNumber: DEV42\nUniqueIdentifier: 7e57\nHardwareModel: Board Y\n"
            "BuildVersion: 13\nBasebandPresent: no\nTechnologiesInUse: \nCampedRAT: \n"
            "CampedRAT2: \n");
  auto json = ctl({"device", "--json"});
  ASSERT_EQ(json.exitStatus, 0) << json.err;
  std::optional<Value> parsed = json::parse(json.out);
  ASSERT_TRUE(parsed && parsed->isDictionary()) << json.out;
  EXPECT_EQ(parsed->asDictionary()->get("HardwareModel"), Value("Board Y"));
  EXPECT_EQ(parsed->asDictionary()->get("TechnologiesInUse"), Value(Array{}));
}

TEST_F(VorlundctlDeviceTest, MemdumpPrintsTheFilesOfEachSet) {
  test::FakeTools tools(test::FakeTools::Path::kAlone);  // the Linux equivalents
  const std::pair<std::vector<std::string>, size_t> sets[] = {
      {{"--iteration", "4", "--env", "1"}, 8}, {{"--initial"}, 1}, {{"--final"}, 2}};
  for (const auto& [options, count] : sets) {
    std::vector<std::string> args = {"memdump", "notrunning", "--test-case", "Idle"};
    args.insert(args.end(), options.begin(), options.end());
    auto dumped = ctl(args);
    EXPECT_EQ(dumped.exitStatus, 0) << dumped.err;
    std::istringstream lines(dumped.out);
    std::vector<std::string> files;
    for (std::string line; std::getline(lines, line);) files.push_back(line);
    ASSERT_EQ(files.size(), count) << dumped.out;
    for (const std::string& file : files) {
      EXPECT_EQ(file.rfind(sandbox_.root() + "/var/root/Library/Logs/Vorlund/RingPerfTest/", 0),
                0u);
      EXPECT_NE(file.find("/notrunning/Board_Y/13-SpawnID-"), std::string::npos) << file;
      EXPECT_TRUE(test::fileExists(file)) << file;
    }
  }
  auto refused = ctl({"memdump", "notrunning", "--test-case", "Idle", "--initial", "--final"});
  EXPECT_NE(refused.exitStatus, 0);
}

}  // namespace
}  // namespace vl
