#include "vorlund/deviceinfo/radio_state.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

namespace vl {
namespace {

constexpr const char* kService = "org.freedesktop.ModemManager1";
constexpr const char* kManagerPath = "/org/freedesktop/ModemManager1";
constexpr const char* kModemInterface = "org.freedesktop.ModemManager1.Modem";
constexpr uint64_t kQueryTimeoutMicroseconds = 2'000'000;

struct BusClose {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusClose>;
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

struct ModemState {
  std::string path;
  uint32_t accessTechnologies = 0;
};

// Reads the "AccessTechnologies" property out of an a{sv} of the modem interface; the message is
// left after the array. False on a malformed message.
bool readAccessTechnologies(sd_bus_message* reply, uint32_t* technologies) {
  if (sd_bus_message_enter_container(reply, 'a', "{sv}") < 0) return false;
  while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
    const char* name = nullptr;
    if (sd_bus_message_read(reply, "s", &name) < 0) return false;
    if (std::string_view(name) == "AccessTechnologies") {
      if (sd_bus_message_read(reply, "v", "u", technologies) < 0) return false;
    } else if (sd_bus_message_skip(reply, "v") < 0) {
      return false;
    }
    if (sd_bus_message_exit_container(reply) < 0) return false;
  }
  return sd_bus_message_exit_container(reply) >= 0;
}

// The modems of a GetManagedObjects reply (a{oa{sa{sv}}}); empty when it is malformed.
std::vector<ModemState> modemsOf(sd_bus_message* reply) {
  std::vector<ModemState> modems;
  if (sd_bus_message_enter_container(reply, 'a', "{oa{sa{sv}}}") < 0) return {};
  while (sd_bus_message_enter_container(reply, 'e', "oa{sa{sv}}") > 0) {
    const char* path = nullptr;
    if (sd_bus_message_read(reply, "o", &path) < 0) return {};
    if (sd_bus_message_enter_container(reply, 'a', "{sa{sv}}") < 0) return {};
    while (sd_bus_message_enter_container(reply, 'e', "sa{sv}") > 0) {
      const char* interface = nullptr;
      if (sd_bus_message_read(reply, "s", &interface) < 0) return {};
      if (std::string_view(interface) == kModemInterface) {
        ModemState modem{path, 0};
        if (!readAccessTechnologies(reply, &modem.accessTechnologies)) return {};
        modems.push_back(std::move(modem));
      } else if (sd_bus_message_skip(reply, "a{sv}") < 0) {
        return {};
      }
      if (sd_bus_message_exit_container(reply) < 0) return {};
    }
    if (sd_bus_message_exit_container(reply) < 0) return {};
    if (sd_bus_message_exit_container(reply) < 0) return {};
  }
  return modems;
}

// ModemManager numbers its modems at the end of their paths (".../Modem/0", ".../Modem/12").
long modemIndex(const std::string& path) {
  size_t slash = path.rfind('/');
  return std::strtol(path.c_str() + (slash == std::string::npos ? 0 : slash + 1), nullptr, 10);
}

}  // namespace

std::string radioTechnologyName(uint32_t accessTechnologies) {
  // MMModemAccessTechnology bits, most advanced first.
  static constexpr std::pair<uint32_t, const char*> kNames[] = {
      {1u << 15, "NR"},                                        // 5GNR
      {(1u << 14) | (1u << 16) | (1u << 17), "LTE"},           // LTE, LTE Cat-M, NB-IoT
      {(1u << 5) | (0xFu << 6), "UMTS"},                       // UMTS, HSDPA, HSUPA, HSPA, HSPA+
      {0x7u << 11, "EVDO"},                                    // EV-DO rev 0, A, B
      {1u << 10, "CDMA1x"},                                    // 1xRTT
      {(1u << 1) | (1u << 2) | (1u << 3) | (1u << 4), "GSM"},  // GSM, compact, GPRS, EDGE
  };
  for (const auto& [bits, name] : kNames) {
    if (accessTechnologies & bits) return name;
  }
  return "";
}

std::string campedRadioTechnology(int subscription) {
  if (subscription < 1) return "";
  sd_bus* rawBus = nullptr;
  if (sd_bus_open_system(&rawBus) < 0) return "";
  Bus bus(rawBus);
  sd_bus_set_method_call_timeout(bus.get(), kQueryTimeoutMicroseconds);
  sd_bus_message* rawCall = nullptr;
  if (sd_bus_message_new_method_call(bus.get(), &rawCall, kService, kManagerPath,
                                     "org.freedesktop.DBus.ObjectManager",
                                     "GetManagedObjects") < 0) {
    return "";
  }
  Message call(rawCall);
  sd_bus_message_set_auto_start(call.get(), 0);
  sd_bus_error error{};  // SD_BUS_ERROR_NULL, without the C compound literal
  sd_bus_message* rawReply = nullptr;
  int status = sd_bus_call(bus.get(), call.get(), kQueryTimeoutMicroseconds, &error, &rawReply);
  sd_bus_error_free(&error);
  if (status < 0) return "";
  Message reply(rawReply);
  std::vector<ModemState> modems = modemsOf(reply.get());
  std::sort(modems.begin(), modems.end(), [](const ModemState& a, const ModemState& b) {
    return modemIndex(a.path) < modemIndex(b.path);
  });
  if (modems.size() < static_cast<size_t>(subscription)) return "";
  return radioTechnologyName(modems[subscription - 1].accessTechnologies);
}

}  // namespace vl
