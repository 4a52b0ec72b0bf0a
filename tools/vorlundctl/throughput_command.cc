// vorlundctl measure download|iperf|iperf-server and parse iperf|iperf3|curl|streamperf: throughput
// measured with the network module's tools and recorded in the user's run, and the throughput
// parsers applied to saved tool output.
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <thread>

#include "commands.h"
#include "measurement.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/network/http_download.h"
#include "vorlund/network/iperf.h"
#include "vorlund/network/iperf_output.h"
#include "vorlund/network/throughput_parsers.h"

namespace vorlundctl {

namespace {

// Where "iperf-server start" records the server it leaves running: "PID PORT", the process
// being the leader of its own process group.
constexpr const char* kServerRecord = "~/Library/Caches/vorlund_iperf_server";

// The process's state letter from /proc ('Z' for a zombie), or none when it is gone.
std::optional<char> processState(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return std::nullopt;
  size_t close = line.rfind(')');
  if (close == std::string::npos || close + 2 >= line.size()) return std::nullopt;
  return line[close + 2];
}

bool isAlive(pid_t pid) {
  std::optional<char> state = processState(pid);
  return state && *state != 'Z';
}

std::string processName(pid_t pid) {
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

double megabits(double bitsPerSecond) { return bitsPerSecond / 1e6; }

int printParsed(const nlohmann::ordered_json& figures, bool asJson) {
  const nlohmann::json& error = figures.at("error");
  if (asJson) {
    std::printf("%s\n", figures.dump(2).c_str());
  } else {
    for (const auto& [key, value] : figures.items()) {
      if (key != "error" && !value.is_null())
        std::printf("%-20s %s\n", key.c_str(), value.dump().c_str());
    }
    if (!error.is_null()) std::printf("error: %s\n", error.get<std::string>().c_str());
  }
  return error.is_null() ? 0 : 1;
}

template <typename T>
nlohmann::json orNull(const std::optional<T>& value) {
  return value ? nlohmann::json(*value) : nlohmann::json(nullptr);
}

nlohmann::ordered_json singleFigure(double throughput, bool good, const char* failure) {
  nlohmann::ordered_json figures;
  figures["throughput"] = throughput;
  figures["error"] = good ? nlohmann::json(nullptr) : nlohmann::json(failure);
  return figures;
}

void addMeasureCommands(CLI::App& app) {
  CLI::App* measure = parentCommand(app, "measure", "Measure the network and record the figures");

  static std::string url;
  static double timeout = 60;
  static bool downloadJson = false;
  auto* download = measure->add_subcommand(
      "download",
      "Time an HTTP download; records Throughput (Mbit/s of 2^20 bits), DownloadTime, "
      "Bytes");
  download->add_option("URL", url, "The URL to fetch")->required();
  download->add_option("--timeout", timeout,
                       "Seconds to wait (default 60); 0 or less always ends in a time-out");
  download->add_flag("--json", downloadJson, "Print the recorded result as JSON");
  setAction(download, [] {
    Measurement measurement{"Download " + url, {}, std::nullopt};
    auto http = VLHTTPDownload::make();
    http->setUrlString(url);
    http->setTimeout(timeout);
    double throughput = http->download();
    if (http->error()) {
      measurement.failure = http->error()->userInfo.get("Reason").stringOr("Download failed");
    } else {
      measurement.figures = {{"Throughput", throughput},
                             {"DownloadTime", http->downloadTime()},
                             {"Bytes", static_cast<double>(http->bytesReceived())}};
    }
    return reportMeasurement(measurement, downloadJson);
  });

  static std::string server;
  static std::optional<double> seconds;
  static bool ipv6 = false, iperf3 = false, udp = false, iperfJson = false;
  static int port = 0, listenPort = 0;
  auto* iperf = measure->add_subcommand(
      "iperf",
      "Run an iperf client against SERVER; records Throughput (Mbit/s), and with --iperf3 "
      "SentThroughput, ReceivedThroughput, Retransmits, Jitter (ms, UDP)");
  iperf->add_option("SERVER", server, "The iperf server's address")->required();
  iperf->add_option("--seconds", seconds,
                    "The run's length (default 120; iperf 2's 150 s bound is scaled with it)");
  iperf->add_option("--port", port, "The server's port (default: iperf's)");
  iperf->add_option("--listen-port", listenPort,
                    "iperf 2: the port of the dual test's return connection (default: --port)");
  iperf->add_flag("--ipv6", ipv6, "Connect over IPv6");
  iperf->add_flag("--iperf3", iperf3, "Run iperf3 instead of iperf 2");
  iperf->add_flag("--udp", udp, "iperf3: a UDP test, which reports jitter");
  iperf->add_flag("--json", iperfJson, "Print the recorded result as JSON");
  setAction(iperf, [] {
    VLIperf& runner = VLIperf::sharedIperf();
    runner.setPort(port);
    runner.setDualTestPort(listenPort);
    Measurement measurement{(iperf3 ? "Iperf3 " : "Iperf ") + server, {}, std::nullopt};
    if (iperf3) {
      vl::Iperf3Summary summary = runner.runIperf3Client(server, ipv6, {udp, 0, seconds});
      if (summary.receivedBitsPerSecond) {
        measurement.figures.emplace_back("Throughput", megabits(*summary.receivedBitsPerSecond));
      }
      if (summary.sentBitsPerSecond) {
        measurement.figures.emplace_back("SentThroughput", megabits(*summary.sentBitsPerSecond));
      }
      if (summary.receivedBitsPerSecond) {
        measurement.figures.emplace_back("ReceivedThroughput",
                                         megabits(*summary.receivedBitsPerSecond));
      }
      if (summary.retransmits) {
        measurement.figures.emplace_back("Retransmits", static_cast<double>(*summary.retransmits));
      }
      if (summary.jitterMilliseconds) {
        measurement.figures.emplace_back("Jitter", *summary.jitterMilliseconds);
      }
      measurement.failure = summary.error;
    } else {
      vl::IperfClientReading reading = runner.runIperfClient(server, ipv6, seconds);
      std::optional<double> throughput = vl::iperfMegabitsPerSecond(reading);
      if (throughput) {
        measurement.figures.emplace_back("Throughput", *throughput);
      } else {
        measurement.failure =
            reading.succeeded ? "Unreadable throughput figure: " + reading.text + " " + reading.unit
                              : reading.text;
      }
    }
    return reportMeasurement(measurement, iperfJson);
  });

  static std::string action;
  static int serverPort = 0;
  static bool serverIperf3 = false;
  auto* iperfServer = measure->add_subcommand(
      "iperf-server",
      "Start an iperf server that keeps running after vorlundctl exits, or stop it. Its process "
      "group is recorded in ~/Library/Caches/vorlund_iperf_server; stop ends exactly that server, "
      "no other iperf process");
  iperfServer->add_option("ACTION", action, "start or stop")
      ->required()
      ->check(CLI::IsMember({"start", "stop"}));
  iperfServer->add_option("--port", serverPort, "The port to serve (default: iperf's)");
  iperfServer->add_flag("--iperf3", serverIperf3, "Serve iperf3 clients instead of iperf 2's");
  setAction(iperfServer, [] {
    const std::string record = vl::paths::expandTilde(kServerRecord);
    std::optional<std::string> recorded = vl::paths::readFile(record);
    pid_t pid = 0;
    int recordedPort = 0;
    if (recorded) std::istringstream(*recorded) >> pid >> recordedPort;
    // A recorded pid counts only while it still leads an iperf group: identifiers are reused.
    bool running =
        pid > 0 && isAlive(pid) && getpgid(pid) == pid && processName(pid).rfind("iperf", 0) == 0;

    if (action == "stop") {
      if (!running) {
        std::remove(record.c_str());
        std::printf("Iperf Server not running\n");
        return 1;
      }
      kill(-pid, SIGTERM);
      auto deadline = std::chrono::steady_clock::now() + vl::time::scaled(kVLIperfServerStopGrace);
      while (isAlive(pid) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      if (isAlive(pid)) kill(-pid, SIGKILL);
      std::remove(record.c_str());
      std::printf("iperf server %d stopped\n", static_cast<int>(pid));
      return 0;
    }

    if (running) {
      throw UsageFailure("an iperf server already runs: pid " + std::to_string(pid) + ", port " +
                         std::to_string(recordedPort));
    }
    VLIperf& runner = VLIperf::sharedIperf();
    runner.setPort(serverPort);
    vl::Error error;
    bool started =
        serverIperf3 ? runner.StartIperf3Server(&error) : runner.StartIperfServer(&error);
    pid = runner.childProcessIdentifier();
    // A server that cannot bind its port ends at once.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    if (!started || pid == 0 || !isAlive(pid)) {
      throw UsageFailure("the iperf server did not start" +
                         (error.domain.empty() ? std::string(" (is its port taken?)")
                                               : ": " + error.localizedDescription()));
    }
    int shownPort = serverPort > 0 ? serverPort : (serverIperf3 ? 5201 : 5001);
    vl::paths::createDirectories(vl::paths::deletingLastComponent(record));
    if (!vl::paths::writeFileAtomically(
            record, std::to_string(pid) + " " + std::to_string(shownPort) + "\n")) {
      kill(-pid, SIGKILL);
      throw UsageFailure("cannot record the server in " + record);
    }
    std::printf(
        "iperf server %d listening on port %d (stop it with: vorlundctl measure "
        "iperf-server stop)\n",
        static_cast<int>(pid), shownPort);
    return 0;
  });
}

void addParseCommands(CLI::App& app) {
  CLI::App* parse = parentCommand(app, "parse", "Read a tool's saved output with its parser");
  static std::string file;
  static bool asJson = false;
  auto addLeaf = [parse](const char* name, const char* description,
                         std::function<nlohmann::ordered_json(const std::string&)> read) {
    auto* leaf = parse->add_subcommand(name, description);
    leaf->add_option("FILE", file, "The output to read (default: standard input)");
    leaf->add_flag("--json", asJson, "Print one JSON object");
    setAction(leaf, [read] { return printParsed(read(readInputText(file)), asJson); });
  };

  addLeaf("iperf", "iperf 2 client output: the last line's figure (Mbit/s)",
          [](const std::string& text) {
            vl::IperfClientReading reading = vl::readIperfClientOutput(text, "");
            nlohmann::ordered_json figures;
            figures["throughput"] = orNull(vl::iperfMegabitsPerSecond(reading));
            figures["figure"] =
                reading.succeeded ? nlohmann::json(reading.text) : nlohmann::json(nullptr);
            figures["unit"] =
                reading.succeeded ? nlohmann::json(reading.unit) : nlohmann::json(nullptr);
            std::string error = reading.succeeded ? "" : reading.text;
            if (!reading.succeeded && error.empty()) error = "Fewer than 3 lines of iperf output";
            if (reading.succeeded && !figures["throughput"].is_number()) {
              error = "Unreadable throughput figure: " + reading.text + " " + reading.unit;
            }
            figures["error"] = error.empty() ? nlohmann::json(nullptr) : nlohmann::json(error);
            return figures;
          });
  addLeaf("iperf3", "iperf3 --json output: throughput both ways (Mbit/s), retransmits, jitter (ms)",
          [](const std::string& text) {
            vl::Iperf3Summary summary = vl::parseIperf3Output(text);
            auto inMegabits = [](const std::optional<double>& bits) {
              return bits ? std::optional<double>(megabits(*bits)) : std::nullopt;
            };
            nlohmann::ordered_json figures;
            figures["sentThroughput"] = orNull(inMegabits(summary.sentBitsPerSecond));
            figures["receivedThroughput"] = orNull(inMegabits(summary.receivedBitsPerSecond));
            figures["retransmits"] = orNull(summary.retransmits);
            figures["jitter"] = orNull(summary.jitterMilliseconds);
            figures["udp"] = summary.udp;
            figures["error"] = orNull(summary.error);
            return figures;
          });
  addLeaf("curl", "curl -w \"%{time_total} %{speed_download}\" output: MB/s (of 2^20 bytes)",
          [](const std::string& text) {
            double throughput = VLGetThroughputFromCurlOutput(text);
            return singleFigure(throughput, throughput > 0, "No throughput in the curl output");
          });
  addLeaf("streamperf", "A stream-performance report: its Average Throughput",
          [](const std::string& text) {
            double throughput = VLGetThroughputForStreamPerfOutput(text);
            // The parser's own rule: a figure outside (0, 100] is a failing one.
            return singleFigure(throughput, throughput > 0 && throughput <= 100,
                                "Failing throughput");
          });
}

}  // namespace

void addThroughputCommand(CLI::App& app) {
  addMeasureCommands(app);
  addParseCommands(app);
}

}  // namespace vorlundctl
