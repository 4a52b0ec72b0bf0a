// Device information read from a sandboxed device root, and the camped technology from a stand-in
// ModemManager on the test's private bus.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "support/test_support.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/catalogue/primary_processes.h"
#include "vorlund/deviceinfo/device_identity.h"
#include "vorlund/deviceinfo/device_serial.h"
#include "vorlund/deviceinfo/radio_state.h"
#include "vorlund/deviceinfo/technologies_in_use.h"
#include "vorlund/foundation/property_list.h"

namespace vl {
namespace {

void writePreferences(const Dictionary& preferences) {
  std::string path = VLGetTestSettingsFilePath();
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  ASSERT_TRUE(plist::writeFile(Value(preferences), path));
}

TEST(DeviceInformationTest, SerialNumberSourcesInOrder) {
  test::Sandbox sandbox;
  test::ScopedEnv noSerial("VORLUND_SERIAL_NUMBER", std::nullopt);
  EXPECT_EQ(deviceSerialNumber(), "");
  test::writeFile(sandbox.root() + "/etc/machine-id", "0123abcd\n");
  EXPECT_EQ(deviceSerialNumber(), "0123abcd");
  test::writeFile(sandbox.root() + "/sys/class/dmi/id/product_serial", " PF3ABC \n");
  EXPECT_EQ(deviceSerialNumber(), "PF3ABC");
  test::ScopedEnv serial("VORLUND_SERIAL_NUMBER", "ENV123");
  EXPECT_EQ(deviceSerialNumber(), "ENV123");
  writePreferences(Dictionary{{"SerialNumber", "PREF9"}});
  EXPECT_EQ(deviceSerialNumber(), "PREF9");
}

TEST(DeviceInformationTest, IdentityAndSummariesLeaveUnknownValuesOut) {
  test::Sandbox sandbox;
  test::ScopedEnv noSerial("VORLUND_SERIAL_NUMBER", std::nullopt);
  EXPECT_EQ(deviceUniqueIdentifier() + deviceHardwareModel() + deviceBuildVersion(), "");
  EXPECT_FALSE(hardwareSummary().contains("SerialNumber") ||
               hardwareSummary().contains("HardwareModel"));
  EXPECT_FALSE(softwareSummary().contains("BuildVersion"));

  // A board with a device tree only: its model string ends with a NUL.
  test::writeFile(sandbox.root() + "/proc/device-tree/model",
                  std::string("Pine64 PinePhone\0", 17));
  test::writeFile(sandbox.root() + "/etc/machine-id", "4f1c\n");
  test::writeFile(sandbox.root() + "/etc/os-release",
                  "NAME=Debian\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"
                  "VERSION_ID='12'\nVERSION_IDX=99\n");
  EXPECT_EQ(deviceHardwareModel(), "Pine64 PinePhone");
  EXPECT_EQ(deviceOSName(), "Debian GNU/Linux 12 (bookworm)");
  EXPECT_EQ(hardwareSummary().get("SerialNumber"), Value("4f1c"));
  EXPECT_EQ(softwareSummary().get("BuildVersion"), Value("12"));
  // DMI comes before the device tree.
  test::writeFile(sandbox.root() + "/sys/class/dmi/id/product_name", "ThinkPad X13\n");
  EXPECT_EQ(hardwareSummary().get("HardwareModel"), Value("ThinkPad X13"));
}

TEST(DeviceInformationTest, TechnologiesInUseAndTheModemDecideThePrimaryProcesses) {
  test::Sandbox sandbox;
  EXPECT_TRUE(technologiesInUse().empty());
  EXPECT_FALSE(basebandPresent());
  EXPECT_EQ(VLGetPrimaryProcessesWithSubtype("Default").get("cellular"), Value(Array{}));
  const std::string net = sandbox.root() + "/sys/class/net";
  std::filesystem::create_directories(net + "/wlan0/wireless");
  test::writeFile(net + "/wlan0/operstate", "down\n");
  std::filesystem::create_directories(net + "/eth0");
  test::writeFile(net + "/eth0/operstate", "up\n");
  EXPECT_TRUE(technologiesInUse().empty());
  test::writeFile(net + "/wlan0/operstate", "up\n");
  std::filesystem::create_directories(sandbox.root() + "/sys/class/bluetooth/hci0");
  std::filesystem::create_directories(sandbox.root() + "/sys/class/wwan/wwan0");
  EXPECT_EQ(technologiesInUse(), (std::vector<std::string>{"Cellular", "WiFi", "Bluetooth"}));
  EXPECT_TRUE(basebandPresent());
  EXPECT_TRUE(VLGetPrimaryProcessesWithSubtype("Default")
                  .get("cellular")
                  .asArray()
                  ->contains(Value("ModemManager")));
}

TEST(RadioStateTest, TheMostAdvancedAccessTechnologyNamesTheCampedOne) {
  // The lowest and highest bit of each group, and a mix that must give the most advanced.
  const std::pair<uint32_t, const char*> cases[] = {
      {1u << 0, ""},      {1u << 1, "GSM"},
      {1u << 4, "GSM"},   {1u << 5, "UMTS"},
      {1u << 9, "UMTS"},  {1u << 10, "CDMA1x"},
      {1u << 13, "EVDO"}, {1u << 17, "LTE"},
      {1u << 15, "NR"},   {(1u << 4) | (1u << 14), "LTE"},
      {1u << 20, ""},
  };
  for (const auto& [flags, name] : cases) EXPECT_EQ(radioTechnologyName(flags), name) << flags;
}

// A stand-in ModemManager: an object manager with one modem object per entry, each exposing the
// modem interface's "AccessTechnologies", served from a thread until the object dies.
class FakeModemManager {
 public:
  explicit FakeModemManager(std::vector<std::pair<std::string, uint32_t>> modems)
      : modems_(std::move(modems)) {
    if (sd_bus_open_user(&bus_) < 0) return;
    sd_bus_add_object_manager(bus_, nullptr, "/org/freedesktop/ModemManager1");
    for (auto& modem : modems_) {
      sd_bus_add_object_vtable(bus_, nullptr, modem.first.c_str(),
                               "org.freedesktop.ModemManager1.Modem", kVtable, &modem.second);
    }
    ready_ = sd_bus_request_name(bus_, "org.freedesktop.ModemManager1", 0) >= 0;
    thread_ = std::thread([this] {
      while (!stop_) {
        if (sd_bus_process(bus_, nullptr) > 0) continue;
        sd_bus_wait(bus_, 20'000);
      }
    });
  }
  ~FakeModemManager() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    sd_bus_flush_close_unref(bus_);
  }
  bool ready() const { return ready_; }

 private:
  static int accessTechnologies(sd_bus*, const char*, const char*, const char*,
                                sd_bus_message* reply, void* userdata, sd_bus_error*) {
    return sd_bus_message_append(reply, "u", *static_cast<uint32_t*>(userdata));
  }
  static constexpr sd_bus_vtable kVtable[] = {
      SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("AccessTechnologies", "u", accessTechnologies, 0, 0),
      SD_BUS_VTABLE_END};

  std::vector<std::pair<std::string, uint32_t>> modems_;
  sd_bus* bus_ = nullptr;
  bool ready_ = false;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST(RadioStateTest, CampedTechnologyPerSubscriptionFromModemManager) {
  const char* session = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (!session) GTEST_SKIP() << "needs the private bus of dbus-run-session";
  test::ScopedEnv systemBus("DBUS_SYSTEM_BUS_ADDRESS", std::string(session));
  // No ModemManager on the bus: no answer, and nothing is started for the question.
  EXPECT_EQ(campedRadioTechnology(1), "");
  {
    FakeModemManager manager({{"/org/freedesktop/ModemManager1/Modem/10", 1u << 4},
                              {"/org/freedesktop/ModemManager1/Modem/3", 1u << 14}});
    ASSERT_TRUE(manager.ready());
    EXPECT_EQ(campedRadioTechnology(1), "LTE");  // Modem/3 comes before Modem/10
    EXPECT_EQ(campedRadioTechnology(2), "GSM");
    EXPECT_EQ(campedRadioTechnology(3), "");
    EXPECT_EQ(campedRadioTechnology(0), "");
  }
  test::ScopedEnv noBus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus");
  EXPECT_EQ(campedRadioTechnology(1), "");
}

}  // namespace
}  // namespace vl
