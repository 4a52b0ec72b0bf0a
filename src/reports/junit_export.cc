#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>

#include "reports/export_values.h"
#include "vorlund/foundation/format.h"
#include "vorlund/foundation/utf8.h"
#include "vorlund/reports/exports.h"

namespace vl {
namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// Text for an attribute or element: the five specials as entities; control bytes, which XML 1.0
// forbids even as character references, U+FFFE, U+FFFF and every byte of malformed UTF-8 as U+FFFD.
std::string xmlText(const std::string& text) {
  // Line breaks and tabs survive in attributes only as references.
  static constexpr std::pair<char, const char*> kEntities[] = {
      {'&', "&amp;"},   {'<', "&lt;"},   {'>', "&gt;"},   {'"', "&quot;"},
      {'\'', "&apos;"}, {'\n', "&#10;"}, {'\r', "&#13;"}, {'\t', "&#9;"}};
  const bool utf8 = isValidUtf8(text);
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    auto entity = std::find_if(std::begin(kEntities), std::end(kEntities),
                               [c](const auto& e) { return e.first == c; });
    if (entity != std::end(kEntities)) {
      out += entity->second;
    } else if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !utf8)) {
      out += kReplacement;
    } else {
      out += c;
    }
  }
  // U+FFFE and U+FFFF are well-formed UTF-8 but no XML characters.
  for (const char* noCharacter : {"\xEF\xBF\xBE", "\xEF\xBF\xBF"}) {
    for (size_t at; (at = out.find(noCharacter)) != std::string::npos;) {
      out.replace(at, 3, kReplacement);
    }
  }
  return out;
}

std::string seconds(double value) {
  return std::isfinite(value) && value > 0 ? format("%.3f", value) : "0";
}

// Counts of one suite or of all of them.
struct Totals {
  uint64_t tests = 0;
  uint64_t failures = 0;
  double time = 0;
};

std::string suiteXml(const std::string& device, double runtime, const FleetSummary& summary,
                     Totals* totals) {
  std::string properties, cases;
  Totals own;
  own.time = runtime;
  for (const TestCaseSummary& row : summary.testCases) {
    auto figures = row.perDevice.find(device);
    if (figures == row.perDevice.end()) continue;
    ++own.tests;
    if (figures->second.failures > 0) ++own.failures;
    for (const MetricSummary& metric : figures->second.metrics) {
      const std::pair<const char*, double> pooled[] = {{"Mean", metric.mean},
                                                       {"StdDeviation", metric.deviation},
                                                       {"Min", metric.minimum},
                                                       {"Max", metric.maximum}};
      for (const auto& [figure, value] : pooled) {
        properties += format("      <property name=\"%@\" value=\"%@\"/>\n",
                             xmlText(row.name + "." + metric.name + "." + figure),
                             reports::shortestNumber(value));
      }
    }
    const std::string type = row.type.empty() ? "Vorlund" : row.type;
    std::string failures;
    for (const auto& [bucket, count] : figures->second.failuresByBucket) {
      failures += format(
          "      <failure message=\"%@\" type=\"Failure\">%llu of %llu instances</failure>\n",
          xmlText(bucket), static_cast<unsigned long long>(count),
          static_cast<unsigned long long>(figures->second.instances));
    }
    cases += format("    <testcase name=\"%@\" classname=\"%@\"", xmlText(row.name), xmlText(type));
    cases += failures.empty() ? "/>\n" : ">\n" + failures + "    </testcase>\n";
  }
  totals->tests += own.tests;
  totals->failures += own.failures;
  totals->time += std::isfinite(runtime) ? runtime : 0;
  std::string xml = format(
      "  <testsuite name=\"%@\" tests=\"%llu\" failures=\"%llu\" errors=\"0\" skipped=\"0\" "
      "time=\"%@\">\n",
      xmlText(device), static_cast<unsigned long long>(own.tests),
      static_cast<unsigned long long>(own.failures), seconds(runtime));
  if (!properties.empty()) xml += "    <properties>\n" + properties + "    </properties>\n";
  return xml + cases + "  </testsuite>\n";
}

}  // namespace

std::string fleetJUnitXml(const Fleet& fleet, const FleetSummary& summary) {
  // Runs of one device make one suite.
  std::vector<std::string> devices;
  std::map<std::string, double> runtimes;
  for (const DeviceRun& run : fleet.devices) {
    auto [it, added] = runtimes.emplace(run.device, 0.0);
    if (added) devices.push_back(run.device);
    if (run.results && std::isfinite(run.results->runtime())) it->second += run.results->runtime();
  }
  Totals totals;
  std::string suites;
  for (const std::string& device : devices) {
    suites += suiteXml(device, runtimes[device], summary, &totals);
  }
  return format(
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
             "<testsuites name=\"Vorlund\" tests=\"%llu\" failures=\"%llu\" errors=\"0\" "
             "time=\"%@\">\n",
             static_cast<unsigned long long>(totals.tests),
             static_cast<unsigned long long>(totals.failures), seconds(totals.time)) +
         suites + "</testsuites>\n";
}

}  // namespace vl
