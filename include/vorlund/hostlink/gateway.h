// Where the device side finds the gateway, the local relay to the run's manager. Several devices
// share one machine in tests and labs by giving each its own gateway port.
#pragma once

namespace vl {

inline constexpr int kDefaultGatewayPort = 3001;

// The gateway port: the preference "GatewayPort" when it holds a port number (1 to 65535, as a
// number or as text), else $VORLUND_GATEWAY_PORT when that does, else kDefaultGatewayPort. Read
// afresh on every call; values that are not port numbers are passed over.
int gatewayPort();

}  // namespace vl
