// VLPing: one synchronous run of the machine's ping with options taken from its properties, and
// its summary turned into a statistics record. The command is translated for the ping this machine
// has (network/ping_command.h); the summary is read by the pure parser of network/ping_summary.h.
// Invalid settings and unusable output become an error on the object; nothing is raised. Its log
// lines carry no category (printed "Default").
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "vorlund/foundation/error.h"

// The statistics of one run, fields in this order. The initial record (_initStats) has 0
// transmitted, 0 received, a loss of 100.0 and all times 0.
struct VLPingStatistics {
  int64_t packetsTransmitted = 0;
  int64_t packetsReceived = 0;
  double packetLoss = 100.0;  // percent
  // Round-trip times in milliseconds.
  double roundTripMin = 0;
  double roundTripAverage = 0;
  double roundTripMax = 0;
  // NaN when the ping reports no deviation (BusyBox prints min/avg/max only): absent, not 0.
  // vl::network::hasRoundTripStdDev tells the two apart.
  double roundTripStdDev = 0;
};

// "%ld packets transmitted, %ld packets received (%0.2f%% lost), round-trip min/avg/max/stddev =
// %0.3f/%0.3f/%0.3f/%0.3f ms" over the record's fields in order (an absent deviation prints "nan").
std::string VLGetPingStatisticsDescription(const VLPingStatistics& statistics);

class VLPing {
 public:
  // The defaults: no URL, time-out -1.0, count 10, size 56, interval 1.0, IPv4, no flood, not the
  // peer-to-peer link, and password = the output of "echo $USER" (run through the shell runner,
  // waited for, time-out 10 s; trailing line feed included; execute does not use it).
  VLPing();

  // The host name or address to ping; required.
  const std::optional<std::string>& urlString() const { return urlString_; }
  void setUrlString(std::optional<std::string> url) { urlString_ = std::move(url); }
  // Seconds handed to the shell runner; 0 or less means none. A run killed at its time-out has no
  // output, so it ends in the missing-statistics error.
  double timeout() const { return timeout_; }
  void setTimeout(double seconds) { timeout_ = seconds; }
  // Set by execute when it fails: domain "com.brindle.Vorlund", code 1, the message under "Reason".
  const std::optional<vl::Error>& error() const { return error_; }
  // The traffic class: "BE", "BK", "VI" or "VO" (see _convertAccessClassStringToInt).
  const std::optional<std::string>& accessClass() const { return accessClass_; }
  void setAccessClass(std::optional<std::string> accessClass) {
    accessClass_ = std::move(accessClass);
  }
  // The network interface to send on. Without one (or when it has no IPv4 address) execute
  // switches to IPv6.
  const std::optional<std::string>& interface() const { return interface_; }
  void setInterface(std::optional<std::string> name) { interface_ = std::move(name); }
  int64_t count() const { return count_; }
  void setCount(int64_t count) { count_ = count; }
  // Payload bytes per packet.
  int64_t size() const { return size_; }
  void setSize(int64_t size) { size_ = size; }
  // Seconds between packets; not used in flood mode.
  double interval() const { return interval_; }
  void setInterval(double seconds) { interval_ = seconds; }
  bool isIPV6() const { return isIPV6_; }
  void setIsIPV6(bool ipv6) { isIPV6_ = ipv6; }
  bool isFloodPing() const { return isFloodPing_; }
  void setIsFloodPing(bool flood) { isFloodPing_ = flood; }
  // Sends over the peer-to-peer Wi-Fi link (IPv6 only): its interface is the preference
  // "PeerLinkInterface", "plnk0" when unset.
  bool isPLNK() const { return isPLNK_; }
  void setIsPLNK(bool peerLink) { isPLNK_ = peerLink; }
  const std::string& password() const { return password_; }
  void setPassword(std::string password) { password_ = std::move(password); }

  // Builds the command, runs it (synchronously, no standard input, bounded by timeout) and parses
  // its summary. Logs the translated command at level 1 and "Output is \n<output>" at level 0.
  // Returns the record as far as it was filled, and sets error on failure:
  // - "No URL specified before -[VLPing execute]" (nothing runs);
  // - "Invalid access class specified... <class>" (nothing runs);
  // - the summary errors of vl::network::parsePingSummary ("Ping output did not include ping
  //   statistics", "100% Packet Loss", ...); all but the loss also log "Output of failed ping was
  //   <output>" at level 16.
  // Clears a previous error first. May set isIPV6 (see interface).
  VLPingStatistics execute();

  // True when the interface named by interface has an IPv4 address (the last one listed wins).
  // Logs "Got address: <dotted address>" at level 1, or "Got address: error" when there is none.
  bool hasIPV4Address() const;

  // The initial record: 0 transmitted, 0 received, loss 100.0, all times 0.
  static VLPingStatistics _initStats();
  // "BE" 0, "BK" 1, "VI" 2, "VO" 3; any other string -1.
  static int _convertAccessClassStringToInt(const std::string& accessClass);

 private:
  VLPingStatistics fail(const VLPingStatistics& statistics, std::string reason);

  std::optional<std::string> urlString_;
  double timeout_ = -1.0;
  std::optional<vl::Error> error_;
  std::optional<std::string> accessClass_;
  std::optional<std::string> interface_;
  int64_t count_ = 10;
  int64_t size_ = 56;
  double interval_ = 1.0;
  bool isIPV6_ = false;
  bool isFloodPing_ = false;
  bool isPLNK_ = false;
  std::string password_;
};
