// The HTML report page: the data the page's script draws from, its escaping into the page, and the
// page itself with its assets inlined.
#include "vorlund/reports/html_report.h"

#include <cmath>
#include <filesystem>

#include "reports/html_assets.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/value.h"
#include "vorlund/logging/log.h"

namespace vl {

namespace {

constexpr const char* kErrorDomain = "VLReports";
constexpr const char* kCategory = "Reports";

nlohmann::json number(double value) {
  return std::isfinite(value) ? nlohmann::json(value) : nlohmann::json(nullptr);
}

// Series are written column by column: a bucket is five numbers, not five named fields, which
// keeps a fleet's worth of series small.
nlohmann::json metricSeriesData(const MetricSeries& series) {
  nlohmann::json t = nlohmann::json::array(), mean = nlohmann::json::array(),
                 low = nlohmann::json::array(), high = nlohmann::json::array(),
                 n = nlohmann::json::array();
  for (const TimeBucket& b : series.buckets) {
    t.push_back(std::llround(b.time * 1000));
    mean.push_back(number(b.mean));
    low.push_back(number(b.minimum));
    high.push_back(number(b.maximum));
    n.push_back(b.count);
  }
  return {{"testCase", series.testCase},
          {"metric", series.metric},
          {"device", series.device},
          {"t", t},
          {"mean", mean},
          {"min", low},
          {"max", high},
          {"n", n}};
}

nlohmann::json issueSeriesData(const IssueSeries& series) {
  nlohmann::json t = nlohmann::json::array(), n = nlohmann::json::array(),
                 reason = nlohmann::json::array();
  for (const IssueBin& bin : series.bins) {
    t.push_back(std::llround(bin.time * 1000));
    n.push_back(bin.count);
    reason.push_back(bin.reason);
  }
  return {{"device", series.device}, {"type", series.type}, {"t", t}, {"n", n}, {"reason", reason}};
}

}  // namespace

nlohmann::json htmlReportData(const FleetSummary& summary,
                              const std::vector<TimelineDigest>& timelines,
                              const std::string& title) {
  nlohmann::json data = fleetSummaryJson(summary);
  nlohmann::json& issues = data["issues"];
  size_t issueCount = issues.size();
  if (issueCount > kHtmlReportMaxIssueRows) {
    issues.erase(issues.begin() + kHtmlReportMaxIssueRows, issues.end());
  }
  data["issuesLeftOut"] = issueCount - issues.size();
  nlohmann::json metricSeries = nlohmann::json::array(), issueSeries = nlohmann::json::array();
  for (const TimelineDigest& digest : timelines) {
    for (const MetricSeries& s : digest.metrics) metricSeries.push_back(metricSeriesData(s));
    for (const IssueSeries& s : digest.issues) issueSeries.push_back(issueSeriesData(s));
  }
  data["metricSeries"] = std::move(metricSeries);
  data["issueSeries"] = std::move(issueSeries);
  data["title"] = title;
  data["generated"] = std::llround(Date::now().secondsSince1970 * 1000);
  data["warnings"] = nlohmann::json::array();
  return data;
}

std::string scriptSafeJson(const nlohmann::json& data) {
  std::string text = data.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  std::string safe;
  safe.reserve(text.size() + text.size() / 16);
  // In JSON these characters occur only inside strings, where a \u escape means the same.
  for (char c : text) {
    switch (c) {
      case '<':
        safe += "\\u003c";
        break;
      case '>':
        safe += "\\u003e";
        break;
      case '&':
        safe += "\\u0026";
        break;
      default:
        safe += c;
    }
  }
  return safe;
}

std::string htmlReportPage(const nlohmann::json& data) {
  std::string page;
  page.reserve(html_assets::chartJs().size() + 64 * 1024);
  page +=
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<title>Vorlund report</title>\n<style>\n";
  page += html_assets::reportCss();
  // Installed before any other script, so that an error of Chart.js itself is recorded too.
  page +=
      "</style>\n<script>\n"
      "window.vlErrors = [];\n"
      "window.addEventListener('error', function (e) { window.vlErrors.push(String(e.message)); "
      "});\n"
      "window.addEventListener('unhandledrejection', function (e) {\n"
      "  window.vlErrors.push('unhandled rejection: ' + String(e.reason)); });\n"
      "</script>\n<script>\n/*!\n";
  page += html_assets::chartJsLicense();
  page += "*/\n";
  page += html_assets::chartJs();
  page += "\n</script>\n</head>\n<body>\n<script type=\"application/json\" id=\"vl-report-data\">";
  page += scriptSafeJson(data);
  page += "</script>\n<main id=\"vl-report\"></main>\n<script>\n";
  page += html_assets::reportJs();
  page += "\n</script>\n</body>\n</html>\n";
  return page;
}

bool writeHtmlReport(const std::string& path, const std::string& outPath, Error* error) {
  std::optional<Fleet> fleet = loadFleet(path, error);
  if (!fleet) return false;
  FleetSummary summary = summarizeFleet(*fleet);
  std::vector<TimelineDigest> timelines;
  nlohmann::json warnings = nlohmann::json::array();
  for (const DeviceRun& run : fleet->devices) {
    if (run.timelinePath.empty()) {
      warnings.push_back(run.device + ": no timeline beside " + run.resultsPath);
      continue;
    }
    Error failure;
    std::optional<TimelineDigest> digest =
        digestTimeline(run.timelinePath, run.device, kHtmlReportMaxBuckets, &failure);
    if (!digest) {
      VLLog(VLLogLevelError, kCategory, "Leaving a timeline out of the report: %s",
            failure.localizedDescription());
      warnings.push_back(run.device + ": " + failure.localizedDescription());
      continue;
    }
    timelines.push_back(std::move(*digest));
  }
  std::string title = std::filesystem::path(path).filename().string();
  nlohmann::json data = htmlReportData(summary, timelines, title.empty() ? path : title);
  data["warnings"] = warnings;
  if (!paths::writeFileAtomically(outPath, htmlReportPage(data))) {
    setError(error,
             Error::withDescription(kErrorDomain, 3, "Cannot write the report to " + outPath));
    return false;
  }
  return true;
}

}  // namespace vl
