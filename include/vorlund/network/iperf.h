// The iperf runner: one shared object that runs an iperf client against a peer, or an iperf server
// for a peer, one at a time per process, with the peer-to-peer link brought up first. iperf 2 is
// the tool of record; iperf 3 runs on request and reports its JSON figures.
//
// On Linux the commands are Debian's iperf 2 and iperf3. iperf 2's "-A" (CPU affinity) there takes
// a CPU argument, so it is left out: the tool's scheduler placement is kept. The root file system
// is taken as writable, so there is no remount before the report files are written. The
// peer-to-peer link is whatever the command of the preference "PeerLinkCommand" brings up.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "vorlund/devicetools/task.h"
#include "vorlund/foundation/error.h"
#include "vorlund/network/iperf_output.h"

// The client's report files, under $VORLUND_ROOT: the folder, standard output and standard error.
inline constexpr const char* kVLIperfLogFolder = "/var/root/Library/Logs/Vorlund/";
inline constexpr const char* kVLIperfOutputFile = "/var/root/Library/Logs/Vorlund/iperfFile.log";
inline constexpr const char* kVLIperfErrorFile =
    "/var/root/Library/Logs/Vorlund/iperfFile_error.log";
// The preference holding the shell command that brings the peer-to-peer link up.
inline constexpr const char* kVLPeerLinkCommandPreference = "PeerLinkCommand";

// Nominal durations, in seconds of the time scale (foundation/time_scale.h).
inline constexpr double kVLIperfClientDuration = 120;  // the client's "-t"
inline constexpr double kVLIperfClientTimeout = 150;   // the bound of its whole run
inline constexpr double kVLPeerLinkCommandTimeout = 10;
// How long a stopped server has to end after SIGTERM before its group is killed.
inline constexpr double kVLIperfServerStopGrace = 2;

// What an iperf 3 client run measures beyond the defaults.
struct VLIperf3Options {
  bool udp = false;
  // The UDP target rate in bits per second ("-b"); 0 leaves iperf3's default (1 Mbit/s).
  double udpBitsPerSecond = 0;
  // The test's length; none is kVLIperfClientDuration on the time scale. iperf3 takes whole
  // seconds, so the length is rounded up and is at least 1 s.
  std::optional<double> seconds;
};

class VLIperf {
 public:
  // The one instance of the process, created on first use and never destroyed: a server it
  // started keeps running when the process ends (the front end's "iperf-server start" relies on
  // this), and is stopped with StopIperfServer or by the process group recorded for it.
  static VLIperf& sharedIperf();

  // Runs "iperf -c ADDRESS -d -i 1 -t 120" (" -V" appended when overPLNK, the IPv6 flag), with
  // "-p" and "-L" when a port and a dual-test port are set, its output going to kVLIperfOutputFile
  // and kVLIperfErrorFile. The duration (120 s) and the bound of the run (150 s, after which the
  // client's process group is killed) pass through the time scale. Logs at level 0 without a
  // category: "Starting iperf client now with: \"COMMAND\"", "iperf Output was \nOUTPUT",
  // "Throughput components are PARTS", "idx is IDX".
  // Returns true with the throughput figure (the number before the unit, "94.1") in *returning, or
  // false with the reason there: "Iperf already in use"; "Unable to enable PLNK before starting
  // Iperf client" (the in-use flag then stays set, so every later run of this process is refused:
  // that is how the link failure is made to stick); the client's standard error when it printed
  // fewer than 3 lines; "Malformed throughput line".
  bool StartIperfClientWith(const std::string& address, bool overPLNK, std::string* returning);

  // The same run read in full: the reading of the client's output (iperf_output.h), with the
  // refusals above as failed readings. seconds, when given, replaces the 120 s length (real
  // seconds), and the bound grows with it in the same proportion.
  vl::IperfClientReading runIperfClient(const std::string& address, bool ipv6,
                                        std::optional<double> seconds = std::nullopt);

  // Runs "iperf3 -c ADDRESS --json -t N" (with "-6", "-u", "-b", "-p" as asked) under the same
  // in-use rule and link step, bounded by kVLIperfClientTimeout (at least the test's length and 5
  // s more). Returns the report's figures; its error is set when the run was refused, could not be
  // started, was cut short or reported an error.
  vl::Iperf3Summary runIperf3Client(const std::string& address, bool ipv6,
                                    const VLIperf3Options& options = {});

  // Starts "iperf -V -s" (with "-p" when a port is set) as this object's server, its output
  // discarded. Fails with error "Iperf already in use" while a client runs, and with "Unable to
  // enable PLNK before starting Iperf server" when the link step fails. Returns whether the server
  // runs; a server this object already runs is kept and counts as started.
  bool StartIperfServer(vl::Error* error);
  // The same with "iperf3 -s".
  bool StartIperf3Server(vl::Error* error);

  // Stops the server this object started: SIGTERM to its process group, SIGKILL after
  // kVLIperfServerStopGrace (scaled), and waits for it. Never touches other iperf processes.
  // Returns true when it stopped; false with error "Currently running Iperf client" while a client
  // runs (the client is left alone), or "Iperf Server not running".
  bool StopIperfServer(vl::Error* error);

  // Brings the peer-to-peer link up: runs the preference "PeerLinkCommand" through the shell
  // runner (bounded by kVLPeerLinkCommandTimeout, scaled) and logs "Output of brindle80211 was
  // OUTPUT" (the link tool's log line keeps its name). Returns true when the command exits with
  // status 0, and true without running anything when there is no such preference.
  bool EnablePLNKDiscovery();
  bool _enablePLNKDiscovery();

  // The port of the server and of the client's connection; 0 is iperf's default (5001, or 5201
  // for iperf3).
  void setPort(int port);
  int port() const;
  // The port a client listens on for the dual test's return connection ("-L"); 0 is iperf's
  // default, the connection's port, which is taken when the server runs on the same machine.
  void setDualTestPort(int port);
  int dualTestPort() const;

  bool isInUse() const;
  // The process identifier (and process group) of the running client, else of the running server;
  // 0 when idle.
  int32_t childProcessIdentifier() const;

 private:
  VLIperf() = default;
  // Takes the in-use flag; false (with the text) when it was taken.
  bool claim(std::string* refusal);
  void release();
  bool startServer(const std::string& command, vl::Error* error);

  mutable std::mutex mutex_;
  // The running client, and apart from it the server, so that a client run does not lose the
  // server it ran beside.
  std::shared_ptr<vl::Task> child_;
  std::shared_ptr<vl::Task> server_;
  bool inUse_ = false;
  int port_ = 0;
  int dualTestPort_ = 0;
};
