// The connecting side of the framed socket transport.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "vorlund/foundation/time_scale.h"
#include "vorlund/hostlink/framed_socket.h"
#include "vorlund/logging/log.h"

namespace {

constexpr const char* kCategory = "Framework";

// The first IPv4 address of hostName in dotted-quad text, or "" when the lookup fails.
std::optional<std::string> firstAddress(const std::string& hostName, bool* lookupFailed) {
  hostent entry{};
  hostent* result = nullptr;
  int resolverError = 0;
  std::vector<char> buffer(1024);
  int status;
  while ((status = ::gethostbyname_r(hostName.c_str(), &entry, buffer.data(), buffer.size(),
                                     &result, &resolverError)) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  *lookupFailed = status != 0 || result == nullptr;
  if (*lookupFailed) return std::nullopt;
  if (result->h_addrtype != AF_INET || result->h_addr_list[0] == nullptr) return std::nullopt;
  char text[INET_ADDRSTRLEN] = {};
  if (::inet_ntop(AF_INET, result->h_addr_list[0], text, sizeof text) == nullptr) {
    return std::nullopt;
  }
  return std::string(text);
}

}  // namespace

int VLGetClientForServer(const std::string& hostName, int port, int attempts) {
  bool lookupFailed = false;
  std::optional<std::string> address = firstAddress(hostName, &lookupFailed);
  if (lookupFailed) {
    VLLog(VLLogLevelError, kCategory, "Unable to get a host entry for %@", hostName);
    return -1;
  }
  if (!address || address->empty()) {
    VLLog(VLLogLevelError, kCategory, "Unable to get IP for %@", hostName);
    return -1;
  }
  VLLog(VLLogLevelNotice, kCategory, "IP address is %@", *address);

  int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) {
    VLLog(VLLogLevelError, kCategory, "Error opening port %d at %@...%d", port, hostName, errno);
    return -1;
  }
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(static_cast<uint16_t>(port));
  ::inet_pton(AF_INET, address->c_str(), &server.sin_addr);

  // Linux lets a TCP socket whose connect was refused connect again, so one socket serves every
  // attempt.
  for (int attempt = 0; attempt < attempts; ++attempt) {
    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0) {
      return descriptor;
    }
    VLLog(VLLogLevelError, kCategory, "Error connecting to port %d at %@ (%d)", port, hostName,
          errno);
    vl::time::sleepFor(vl::kClientConnectRetrySeconds);
  }
  ::close(descriptor);
  return -1;
}
