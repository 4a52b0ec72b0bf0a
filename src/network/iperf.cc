#include "vorlund/network/iperf.h"

#include <signal.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <fstream>

#include "devicetools/shell_quote.h"
#include "vorlund/catalogue/preferences.h"
#include "vorlund/devicetools/shell.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/logging/log.h"

namespace {

using vl::devicetools::shellQuoted;

constexpr const char* kInUse = "Iperf already in use";
constexpr const char* kNoLinkForClient = "Unable to enable PLNK before starting Iperf client";
constexpr const char* kNoLinkForServer = "Unable to enable PLNK before starting Iperf server";

// "120" at scale 1, "1.2" at 0.01: iperf 2 takes fractions of a second, to the millisecond.
std::string secondsText(double seconds) {
  double rounded = std::max(0.001, std::round(seconds * 1000) / 1000);
  char buffer[32];
  auto [end, failure] = std::to_chars(buffer, buffer + sizeof buffer, rounded);
  return failure == std::errc() ? std::string(buffer, end) : "1";
}

// A file that cannot be made shows later as an empty report.
void createEmptyFile(const std::string& path) { std::ofstream file(path, std::ios::trunc); }

std::string readAll(const std::string& path) { return vl::paths::readFile(path).value_or(""); }

// "-p" and "-L" for the ports that are set; 0 leaves iperf's default.
std::string portOptions(int port, int dualTestPort) {
  std::string options;
  if (port > 0) options += " -p " + std::to_string(port);
  if (dualTestPort > 0) options += " -L " + std::to_string(dualTestPort);
  return options;
}

}  // namespace

VLIperf& VLIperf::sharedIperf() {
  // Never destroyed: destroying the child's task would kill a server meant to outlive the process.
  static VLIperf* shared = new VLIperf();
  return *shared;
}

void VLIperf::setPort(int port) {
  std::lock_guard lock(mutex_);
  port_ = port;
}
int VLIperf::port() const {
  std::lock_guard lock(mutex_);
  return port_;
}
void VLIperf::setDualTestPort(int port) {
  std::lock_guard lock(mutex_);
  dualTestPort_ = port;
}
int VLIperf::dualTestPort() const {
  std::lock_guard lock(mutex_);
  return dualTestPort_;
}
bool VLIperf::isInUse() const {
  std::lock_guard lock(mutex_);
  return inUse_;
}
int32_t VLIperf::childProcessIdentifier() const {
  std::lock_guard lock(mutex_);
  for (const auto& task : {child_, server_}) {
    if (task && task->isRunning()) return task->processIdentifier();
  }
  return 0;
}

bool VLIperf::claim(std::string* refusal) {
  std::lock_guard lock(mutex_);
  if (inUse_) {
    *refusal = kInUse;
    return false;
  }
  inUse_ = true;
  return true;
}

void VLIperf::release() {
  std::lock_guard lock(mutex_);
  child_.reset();
  inUse_ = false;
}

bool VLIperf::EnablePLNKDiscovery() { return _enablePLNKDiscovery(); }

bool VLIperf::_enablePLNKDiscovery() {
  const vl::Dictionary preferences = VLGetPreferences();
  const std::string* command = preferences.get(kVLPeerLinkCommandPreference).asString();
  if (!command || command->empty()) return true;
  std::shared_ptr<vl::Task> task = VLExecuteTask(*command, {}, true, kVLPeerLinkCommandTimeout);
  std::string output = VLConvertPipeToString(task->standardOutput());
  std::string errors = VLConvertPipeToString(task->standardError());
  if (!errors.empty()) output += output.empty() ? errors : "\n" + errors;
  VLLog(VLLogLevelInfo, nullptr, "Output of brindle80211 was %@", output);
  return task->hasLaunched() && !task->wasSignalled() && task->terminationStatus() == 0;
}

vl::IperfClientReading VLIperf::runIperfClient(const std::string& address, bool ipv6,
                                               std::optional<double> seconds) {
  vl::IperfClientReading refused;
  if (!claim(&refused.text)) return refused;
  if (!_enablePLNKDiscovery()) {
    refused.text = kNoLinkForClient;
    VLLog(VLLogLevelInfo, nullptr, "%s", refused.text);
    return refused;
  }

  vl::paths::createDirectories(vl::paths::resolve(kVLIperfLogFolder));
  const std::string outputPath = vl::paths::resolve(kVLIperfOutputFile);
  const std::string errorPath = vl::paths::resolve(kVLIperfErrorFile);
  createEmptyFile(outputPath);
  createEmptyFile(errorPath);

  const double scaledDuration = vl::time::scale() * kVLIperfClientDuration;
  const double duration = seconds && *seconds > 0 ? *seconds : scaledDuration;
  std::string command = "iperf -c " + shellQuoted(address) + " -d -i 1 -t " + secondsText(duration);
  if (ipv6) command += " -V";
  command += portOptions(port(), dualTestPort());
  // "exec" makes the tool itself the leader of the task's process group, the one the bound kills.
  auto task = VLCreateBashCommand("exec " + command + " >" + shellQuoted(outputPath) + " 2>" +
                                  shellQuoted(errorPath));
  {
    std::lock_guard lock(mutex_);
    child_ = task;
  }
  VLLog(VLLogLevelInfo, nullptr, "Starting iperf client now with: \"%@\"", command);
  vl::Error launchError;
  if (task->launch(&launchError)) {
    // The shell runner scales its time-outs itself; a chosen length stretches the bound alike.
    VLSetNSTaskToTimeout(task, scaledDuration > 0
                                   ? kVLIperfClientTimeout * duration / scaledDuration
                                   : kVLIperfClientTimeout);
  } else {
    VLLog(VLLogLevelError, nullptr, "%@", launchError.localizedDescription());
  }
  release();

  std::string output = readAll(outputPath);
  VLLog(VLLogLevelInfo, nullptr, "iperf Output was \n%@", output);
  vl::IperfClientReading reading = vl::readIperfClientOutput(output, readAll(errorPath));
  if (!reading.components.empty()) {
    vl::Array components;
    for (const std::string& part : reading.components) components.push_back(vl::Value(part));
    VLLog(VLLogLevelInfo, nullptr, "Throughput components are %@", components);
    VLLog(VLLogLevelInfo, nullptr, "idx is %ld", reading.idx);
  }
  return reading;
}

bool VLIperf::StartIperfClientWith(const std::string& address, bool overPLNK,
                                   std::string* returning) {
  vl::IperfClientReading reading = runIperfClient(address, overPLNK, std::nullopt);
  if (returning) *returning = reading.text;
  return reading.succeeded;
}

vl::Iperf3Summary VLIperf::runIperf3Client(const std::string& address, bool ipv6,
                                           const VLIperf3Options& options) {
  vl::Iperf3Summary refused;
  std::string refusal;
  if (!claim(&refusal)) {
    refused.error = refusal;
    return refused;
  }
  if (!_enablePLNKDiscovery()) {
    refused.error = kNoLinkForClient;
    VLLog(VLLogLevelInfo, nullptr, "%s", kNoLinkForClient);
    return refused;
  }
  double realSeconds =
      options.seconds ? *options.seconds : vl::time::scale() * kVLIperfClientDuration;
  long wholeSeconds = std::max(1L, static_cast<long>(std::ceil(realSeconds)));
  std::string command =
      "iperf3 -c " + shellQuoted(address) + " --json -t " + std::to_string(wholeSeconds);
  if (ipv6) command += " -6";
  if (options.udp) command += " -u";
  if (options.udp && options.udpBitsPerSecond > 0) {
    command += " -b " + std::to_string(static_cast<long long>(options.udpBitsPerSecond));
  }
  command += portOptions(port(), 0);
  auto task = VLCreateBashCommand("exec " + command);
  {
    std::lock_guard lock(mutex_);
    child_ = task;
  }
  VLLog(VLLogLevelInfo, nullptr, "Starting iperf client now with: \"%@\"", command);
  vl::Error launchError;
  bool launched = task->launch(&launchError);
  if (launched) {
    // The whole seconds iperf3 insists on may be longer than the scaled bound allows.
    double scale = vl::time::scale() > 0 ? vl::time::scale() : 1;
    VLSetNSTaskToTimeout(task, std::max(kVLIperfClientTimeout, (wholeSeconds + 5.0) / scale));
  }
  std::string output = VLConvertPipeToString(task->standardOutput());
  std::string errors = VLConvertPipeToString(task->standardError());
  release();
  VLLog(VLLogLevelInfo, nullptr, "iperf Output was \n%@", output);
  if (!launched) {
    refused.error = launchError.localizedDescription();
    return refused;
  }
  vl::Iperf3Summary summary = vl::parseIperf3Output(output);
  if (task->wasSignalled() && !summary.error) {
    summary.error = "iperf3 was ended by signal " + std::to_string(task->terminationStatus());
  }
  if (summary.error && *summary.error == "Unreadable iperf3 output" && !errors.empty()) {
    summary.error = errors;
  }
  return summary;
}

bool VLIperf::startServer(const std::string& command, vl::Error* error) {
  {
    std::lock_guard lock(mutex_);
    if (inUse_) {
      vl::setError(error, vl::Error::withReason(kInUse));
      return false;
    }
  }
  if (!_enablePLNKDiscovery()) {
    vl::setError(error, vl::Error::withReason(kNoLinkForServer));
    return false;
  }
  {
    std::lock_guard lock(mutex_);
    if (server_ && server_->isRunning()) return true;
  }
  // The server's reports are not kept: a pipe nobody reads would stall it, and it must outlive
  // this process when asked to.
  auto task = VLCreateBashCommand("exec " + command + portOptions(port(), 0) +
                                  " </dev/null >/dev/null 2>&1");
  task->setStandardOutput(nullptr);
  task->setStandardError(nullptr);
  vl::Error launchError;
  bool launched = task->launch(&launchError);
  if (!launched) {
    vl::setError(error, launchError);
    return false;
  }
  std::lock_guard lock(mutex_);
  server_ = task;
  return task->isRunning();
}

bool VLIperf::StartIperfServer(vl::Error* error) { return startServer("iperf -V -s", error); }

bool VLIperf::StartIperf3Server(vl::Error* error) { return startServer("iperf3 -s", error); }

bool VLIperf::StopIperfServer(vl::Error* error) {
  std::shared_ptr<vl::Task> client, server;
  {
    std::lock_guard lock(mutex_);
    client = child_;
    server = server_;
  }
  const std::vector<std::string> noArguments;
  const auto& arguments = client && client->isRunning() ? client->arguments() : noArguments;
  if (arguments.size() > 1 && arguments[1].find("-c") != std::string::npos) {
    vl::setError(error, vl::Error::withReason("Currently running Iperf client"));
    return false;
  }
  if (!server || !server->isRunning()) {
    vl::setError(error, vl::Error::withReason("Iperf Server not running"));
    return false;
  }
  // A server that ignores SIGTERM gets SIGKILL once the grace has passed.
  server->sendSignal(SIGTERM);
  VLSetNSTaskToTimeout(server, kVLIperfServerStopGrace);
  std::lock_guard lock(mutex_);
  if (server_ == server) server_.reset();
  return true;
}
