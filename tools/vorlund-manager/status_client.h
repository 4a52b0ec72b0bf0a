// `vorlund-manager --status`: asks a running manager for its devices and prints them.
#pragma once

#include <string>

namespace manager {

// Seconds (nominal, scaled) to wait for the manager's answer once connected.
inline constexpr int kStatusAnswerSeconds = 10;

// Connects to the manager at address ("HOST:PORT"), sends {"MessageType": "StatusRequest"} and
// prints the devices of its answer as pretty JSON on standard output. Returns the exit status: 0,
// or 1 with a line on standard error when no manager answers or the answer is not a status.
int printStatus(const std::string& address);

}  // namespace manager
