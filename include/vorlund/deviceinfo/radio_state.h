// The radio access technology each cellular subscription is camped on, as ModemManager reports it
// over the system bus ($DBUS_SYSTEM_BUS_ADDRESS when set). A device without ModemManager, or with
// fewer modems than the subscription asked for, has no answer: "".
#pragma once

#include <cstdint>
#include <string>

namespace vl {

// The technology of subscription 1 (the first modem, in the order of ModemManager's object
// paths), 2 (the second), ...: "NR", "LTE", "UMTS", "EVDO", "CDMA1x", "GSM" or "". ModemManager is
// never started for this (no auto-start) and the query gives up after two seconds; any failure is
// "". Never throws.
std::string campedRadioTechnology(int subscription);

// The name of the most advanced technology in ModemManager's access-technology flags
// (MMModemAccessTechnology); "" when none is set or only unknown ones.
std::string radioTechnologyName(uint32_t accessTechnologies);

}  // namespace vl
