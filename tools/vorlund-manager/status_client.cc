#include "status_client.h"

#include <unistd.h>

#include <cstdio>

#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/json.h"
#include "vorlund/hostlink/framed_socket.h"

namespace manager {

int printStatus(const std::string& address) {
  size_t colon = address.rfind(':');
  int port = 0;
  if (colon != std::string::npos) {
    try {
      port = std::stoi(address.substr(colon + 1));
    } catch (const std::exception&) {
      port = 0;
    }
  }
  if (colon == std::string::npos || colon == 0 || port <= 0 || port > 65535) {
    std::fprintf(stderr, "vorlund-manager: %s is not HOST:PORT\n", address.c_str());
    return 1;
  }
  int descriptor = VLGetClientForServer(address.substr(0, colon), port, 1);
  if (descriptor < 0) {
    std::fprintf(stderr, "vorlund-manager: no manager answers at %s\n", address.c_str());
    return 1;
  }
  std::optional<vl::Data> request =
      VLConvertObjectToData(vl::Dictionary{{"MessageType", "StatusRequest"}});
  std::optional<vl::Data> answer;
  vl::FrameReadReport report;
  if (request && VLWriteDataToSocket(*request, descriptor) > 0) {
    answer = VLReadDataFromSocket(descriptor, kStatusAnswerSeconds, &report);
  }
  // A reader whose time-out passed has closed the descriptor itself.
  if (report.status != vl::FrameReadStatus::TimedOut) ::close(descriptor);
  vl::Value status = answer ? VLConvertDataToObject(*answer) : vl::Value();
  const vl::Dictionary* dictionary = status.asDictionary();
  if (!dictionary || dictionary->get("MessageType") != vl::Value("Status")) {
    std::fprintf(stderr, "vorlund-manager: the program at %s did not answer as a manager\n",
                 address.c_str());
    return 1;
  }
  std::printf("%s\n", vl::json::displayString(dictionary->get("Devices")).c_str());
  return 0;
}

}  // namespace manager
