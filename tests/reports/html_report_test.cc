// The HTML report from real runs: timelines bucketed into bounded series, data that no text can
// break out of, failures that leave the old page whole, and the page itself loaded in headless
// Chromium, which must draw every chart without a script error.
#include "vorlund/reports/html_report.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <regex>

#include "reports/report_fleet.h"
#include "support/browser.h"
#include "vorlund/foundation/date_string.h"

namespace fs = std::filesystem;

namespace vl {
namespace {

// Either escape alone ('<' or '>') would keep "</script>" from ending the data element; "</script "
// needs the first.
const char* const kHostileReason =
    "wpa_supplicant </script ><script>alert(\"x\")</script> 'it's' <!--";

// The page's data element, parsed back.
nlohmann::json pageData(const std::string& page) {
  const std::string open = "<script type=\"application/json\" id=\"vl-report-data\">";
  size_t begin = page.find(open);
  if (begin == std::string::npos) return nullptr;
  begin += open.size();
  return nlohmann::json::parse(page.substr(begin, page.find("</script>", begin) - begin));
}

TEST(HtmlReportData, NoTextOfTheDataEndsItsScriptElement) {
  const std::vector<std::string> texts = {kHostileReason, "</SCRIPT >", "a & b > c",
                                          "line\u2028separator", "plain"};
  for (const std::string& text : texts) {
    std::string safe = scriptSafeJson({{"reason", text}});
    EXPECT_EQ(safe.find_first_of("<>&"), std::string::npos) << safe;
    EXPECT_EQ(nlohmann::json::parse(safe)["reason"], text);
  }
  // A reason that is not UTF-8 is written with a replacement character, not thrown over.
  std::string mangled = scriptSafeJson({{"reason", std::string("crash \xff\xfe")}});
  EXPECT_EQ(nlohmann::json::parse(mangled)["reason"], "crash \xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(HtmlReportData, KeepsTheMostFrequentIssuesAndCountsTheRest) {
  FleetSummary summary;
  summary.devices = {"D1"};
  for (size_t i = 0; i < kHtmlReportMaxIssueRows + 50; ++i) {
    summary.issues.push_back({"reason " + std::to_string(i), "p", "Crash", 1000 - i, {{"D1", 1}}});
  }
  nlohmann::json data = htmlReportData(summary, {}, "t");
  ASSERT_EQ(data["issues"].size(), kHtmlReportMaxIssueRows);
  EXPECT_EQ(data["issues"][0]["reason"], "reason 0");
  EXPECT_EQ(data["issues"][kHtmlReportMaxIssueRows - 1]["total"],
            1000 - (kHtmlReportMaxIssueRows - 1));
  EXPECT_EQ(data["issuesLeftOut"], 50);
}

class HtmlReportTest : public ::testing::Test {
 protected:
  fs::path fleet() const { return fs::path(scratch_.file("fleet")); }
  std::string out() const { return scratch_.file("report.html"); }
  test::TempDir scratch_;
};

TEST_F(HtmlReportTest, ATimelineBecomesBoundedSeriesOfItsMetricsIssuesAndFailures) {
  // A reason longer than a bin carries, with a two-byte character across the cut.
  const std::string longReason = std::string(199, 'x') + "\u00e9" + std::string(300, 'y');
  test::makeReportRun({"DIGEST-1", 40, true, 50, 10.0, {longReason, "second crash"}}, fleet());
  std::optional<Fleet> loaded = loadFleet(fleet().string());
  ASSERT_TRUE(loaded);
  ASSERT_EQ(loaded->devices.size(), 1u);
  Error error;
  std::optional<TimelineDigest> digest =
      digestTimeline(loaded->devices[0].timelinePath, "DIGEST-1", 10, &error);
  ASSERT_TRUE(digest) << error.description();

  // 50 downloads a minute apart, throughput 10 + i % 7, into 10 buckets of 4.9 minutes.
  EXPECT_EQ(digest->metricRows, 50u);
  ASSERT_EQ(digest->metrics.size(), 1u);
  const MetricSeries& series = digest->metrics[0];
  EXPECT_EQ(series.testCase, "Download");
  EXPECT_EQ(series.metric, "Throughput");
  EXPECT_EQ(series.device, "DIGEST-1");
  ASSERT_EQ(series.buckets.size(), 10u);
  uint64_t counted = 0;
  for (const TimeBucket& b : series.buckets) {
    counted += b.count;
    EXPECT_GE(b.minimum, 10.0);
    EXPECT_LE(b.maximum, 16.0);
    EXPECT_LE(b.minimum, b.mean);
    EXPECT_LE(b.mean, b.maximum);
  }
  EXPECT_EQ(counted, 50u);
  // The first bucket holds minutes 0 to 4: throughputs 10 to 14.
  EXPECT_EQ(series.buckets[0].count, 5u);
  EXPECT_DOUBLE_EQ(series.buckets[0].mean, 12.0);
  EXPECT_DOUBLE_EQ(series.buckets[0].minimum, 10.0);
  EXPECT_DOUBLE_EQ(series.buckets[0].maximum, 14.0);
  // Their mean time is minute 2 of the run, as the timeline's date strings tell it.
  std::optional<Date> start = dateFromString(dateString(loaded->devices[0].results->startTime()));
  ASSERT_TRUE(start);
  EXPECT_DOUBLE_EQ(series.buckets[0].time, start->secondsSince1970 + 120);
  EXPECT_DOUBLE_EQ(series.buckets[9].time, start->secondsSince1970 + 60 * 47);

  ASSERT_EQ(digest->issues.size(), 2u);
  const IssueSeries& crashes = digest->issues[0];
  const IssueSeries& failures = digest->issues[1];
  EXPECT_EQ(crashes.type, "Crash");
  uint64_t crashCount = 0;
  for (const IssueBin& bin : crashes.bins) crashCount += bin.count;
  EXPECT_EQ(crashCount, 2u);
  EXPECT_EQ(crashes.bins.front().reason, std::string(199, 'x'));
  EXPECT_EQ(failures.type, kHtmlReportTestCaseFailureType);
  uint64_t failureCount = 0;
  for (const IssueBin& bin : failures.bins) failureCount += bin.count;
  EXPECT_EQ(failureCount, 10u);  // every fourth of 40 pings
  EXPECT_EQ(failures.bins.front().reason, "Ping: timeout");
}

TEST_F(HtmlReportTest, WhatIsNotATimelineIsRefusedAndLeftOutOfThePage) {
  test::writeFile(scratch_.file("text.db"), "not a database at all, just some text\n");
  {
    sqlite::Database empty(scratch_.file("empty.db"));
    ASSERT_TRUE(empty.open());
    ASSERT_TRUE(empty.executeStatements("CREATE TABLE Other(x)"));
  }
  for (const char* name : {"missing.db", "text.db", "empty.db"}) {
    Error error;
    EXPECT_FALSE(digestTimeline(scratch_.file(name), "D", 10, &error)) << name;
    EXPECT_EQ(error.domain, "VLReports") << name;
  }

  // A device whose timeline is broken still has its summary; the page says what was left out.
  std::string file = test::makeReportRun({"BROKEN-1", 4, false, 3, 5.0, {}}, fleet());
  for (const auto& entry : fs::directory_iterator(fleet())) {
    if (entry.path().extension() == ".db") test::writeFile(entry.path().string(), "garbage");
  }
  Error error;
  ASSERT_TRUE(writeHtmlReport(file, out(), &error)) << error.description();
  nlohmann::json data = pageData(test::readFile(out()));
  ASSERT_EQ(data["warnings"].size(), 1u);
  EXPECT_TRUE(data["warnings"][0].get<std::string>().starts_with("BROKEN-1: ")) << data["warnings"];
  EXPECT_EQ(data["testCases"].size(), 2u);
  EXPECT_TRUE(data["metricSeries"].empty());
}

TEST_F(HtmlReportTest, AFailedReportLeavesTheOldPageWhole) {
  test::writeFile(out(), "the previous report");
  Error error;
  EXPECT_FALSE(writeHtmlReport(scratch_.file("no-such-run"), out(), &error));
  EXPECT_EQ(error.domain, "VLReports");
  EXPECT_EQ(test::readFile(out()), "the previous report");

  std::string file = test::makeReportRun({"OUT-1", 2, false, 0, 0, {}}, fleet());
  error = {};
  EXPECT_FALSE(writeHtmlReport(file, scratch_.file("no-such-folder/report.html"), &error));
  EXPECT_EQ(error.domain, "VLReports");
}

TEST_F(HtmlReportTest, ThePageNeedsNoNetworkAndCarriesChartJsWithItsLicence) {
  std::string file = test::makeReportRun({"SELF-1", 3, false, 3, 1.0, {}}, fleet());
  ASSERT_TRUE(writeHtmlReport(file, out()));
  std::string page = test::readFile(out());
  EXPECT_TRUE(page.starts_with("<!DOCTYPE html>"));
  // Nothing is loaded from anywhere: no element takes a source, a link or a style import.
  std::smatch match;
  EXPECT_FALSE(std::regex_search(
      page, match, std::regex(R"(<(script|img|link|iframe)[^>]*\b(src|href)=)", std::regex::icase)))
      << match.str();
  EXPECT_EQ(page.find("@import"), std::string::npos);
  EXPECT_EQ(page.find("url("), std::string::npos);
  EXPECT_NE(page.find("Chart.js v3."), std::string::npos);
  EXPECT_NE(page.find("Released under the MIT License"), std::string::npos);
  EXPECT_NE(page.find("Permission is hereby granted, free of charge"), std::string::npos);
}

// The page as Chromium leaves it after its scripts ran.
class HtmlReportBrowserTest : public HtmlReportTest {
 protected:
  void SetUp() override {
    if (!test::chromiumAvailable()) {
      GTEST_SKIP() << test::kChromiumPath << " is absent: install Debian's chromium "
                   << "(scripts/install-deps.sh does) to run the browser tests";
    }
  }

  // Loads the report in Chromium, which must finish and leave nothing running. Returns the DOM.
  std::string load() {
    test::BrowserDump dump =
        test::dumpDom(out(), scratch_.file("profile"), std::chrono::seconds(90));
    EXPECT_EQ(dump.survivors, 0);
    EXPECT_TRUE(dump.finished) << "Chromium did not finish in time:\n" << dump.log;
    EXPECT_EQ(dump.exitStatus, 0) << dump.log;
    if (dump.dom.find("id=\"vl-status\"") == std::string::npos) ADD_FAILURE() << dump.log;
    return dump.dom;
  }

  // Loads the report and checks that the script ran to its end without an error and that every
  // chart in expectedCharts drew something. Returns the DOM.
  std::string loadAndCheck(const std::vector<std::string>& expectedCharts) {
    std::string dom = load();
    EXPECT_NE(dom.find("id=\"vl-status\" data-done=\"true\""), std::string::npos)
        << "the report's script did not run to its end";
    EXPECT_NE(dom.find("data-errors=\"0\""), std::string::npos) << errors(dom);
    std::regex canvas(R"re(<canvas data-chart="([^"]+)"[^>]*data-points="(\d+)"[^>]*)re");
    std::map<std::string, std::string> charts;
    for (auto it = std::sregex_iterator(dom.begin(), dom.end(), canvas);
         it != std::sregex_iterator(); ++it) {
      charts[(*it)[1]] = it->str();
    }
    for (const std::string& name : expectedCharts) {
      if (!charts.count(name)) {
        ADD_FAILURE() << name << " is missing";
        continue;
      }
      EXPECT_NE(charts[name].find("data-rendered=\"true\""), std::string::npos) << charts[name];
      EXPECT_EQ(charts[name].find("data-points=\"0\""), std::string::npos) << charts[name];
    }
    EXPECT_EQ(charts.size(), expectedCharts.size());
    return dom;
  }

  static std::string errors(const std::string& dom) {
    size_t at = dom.find("<ul id=\"vl-errors\">");
    return at == std::string::npos ? "no error list" : dom.substr(at, 2000);
  }
};

// A page that never finishes loading: Chromium is killed at the deadline with all of its helpers.
TEST_F(HtmlReportBrowserTest, AHungPageIsKilledAtTheDeadline) {
  test::writeFile(out(), "<!DOCTYPE html><html><body><script>for (;;) {}</script></body></html>");
  auto start = std::chrono::steady_clock::now();
  test::BrowserDump dump =
      test::dumpDom(out(), scratch_.file("profile"), std::chrono::milliseconds(3000));
  EXPECT_FALSE(dump.finished);
  EXPECT_EQ(dump.exitStatus, 128 + SIGKILL);
  EXPECT_EQ(dump.survivors, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

// The checks above can fail: a page whose data the script cannot draw records its errors.
TEST_F(HtmlReportBrowserTest, APageThatCannotBeDrawnRecordsItsErrors) {
  nlohmann::json data = htmlReportData(FleetSummary{}, {}, "broken");
  data.erase("devices");
  data.erase("testCases");
  test::writeFile(out(), htmlReportPage(data));
  std::string dom = load();
  EXPECT_EQ(dom.find("data-errors=\"0\""), std::string::npos);
  EXPECT_NE(dom.find("<li>overview: TypeError"), std::string::npos) << errors(dom);
  EXPECT_NE(dom.find("<li>testCases: TypeError"), std::string::npos) << errors(dom);
}

TEST_F(HtmlReportBrowserTest, AFleetOfThreeDevicesDrawsEveryChart) {
  test::makeReportRun({"FLEET-B", 20, true, 12, 30.0, {kHostileReason}}, fleet());
  test::makeReportRun({"FLEET-A", 20, false, 12, 20.0, {"wpa_supplicant crashed"}}, fleet());
  test::makeReportRun({"FLEET-C", 20, true, 0, 0.0, {}}, fleet());
  Error error;
  ASSERT_TRUE(writeHtmlReport(fleet().string(), out(), &error)) << error.description();

  std::string dom = loadAndCheck({"failure-rate", "metric-0", "issues-timeline"});
  EXPECT_NE(dom.find("FLEET-A, FLEET-B, FLEET-C"), std::string::npos);
  // The hostile reason is text in the issues table (the run drops its single quotes when it
  // records it), and it added no element of its own.
  EXPECT_NE(dom.find("wpa_supplicant &lt;/script &gt;&lt;script&gt;alert(\"x\")&lt;/script&gt; "
                     "its &lt;!--"),
            std::string::npos)
      << dom.substr(dom.find("id=\"vl-issues\""), 3000);
  EXPECT_EQ(dom.find("<script>alert"), std::string::npos);
  // The quality figures of a merged fleet are numbers, not "n/a".
  EXPECT_TRUE(std::regex_search(dom, std::regex(R"(<td>Estimated QI</td><td>\d+\.\d{3}</td>)")))
      << dom.substr(dom.find("vl-quality"), 1000);
}

TEST_F(HtmlReportBrowserTest, ASingleRunFileDrawsEveryChart) {
  std::string file =
      test::makeReportRun({"SINGLE-1", 12, true, 8, 5.0, {"bluetoothd hang"}}, fleet());
  ASSERT_TRUE(writeHtmlReport(file, out()));
  std::string dom = loadAndCheck({"failure-rate", "metric-0", "issues-timeline"});
  EXPECT_NE(dom.find("bluetoothd hang"), std::string::npos);
}

TEST_F(HtmlReportBrowserTest, ARunOfAHundredThousandResultsStaysSmallAndDraws) {
  std::string file =
      test::makeReportRun({"LONG-1", 10, true, 2, 50.0, {"modem reset"}, 100000}, fleet());
  Error error;
  ASSERT_TRUE(writeHtmlReport(file, out(), &error)) << error.description();
  std::string page = test::readFile(out());
  nlohmann::json data = pageData(page);
  ASSERT_EQ(data["testCases"][0]["name"], "Download");
  EXPECT_EQ(data["testCases"][0]["instances"], 100002);
  ASSERT_EQ(data["metricSeries"].size(), 1u);
  EXPECT_LE(data["metricSeries"][0]["t"].size(), kHtmlReportMaxBuckets);
  uint64_t plotted = 0;
  for (const auto& n : data["metricSeries"][0]["n"]) plotted += n.get<uint64_t>();
  EXPECT_EQ(plotted, 100002u);
  // Chart.js and the page's own script are about 220 kB; the data of the whole run adds little.
  EXPECT_LT(page.size(), 400u * 1024) << page.size();

  loadAndCheck({"failure-rate", "metric-0", "issues-timeline"});
}

}  // namespace
}  // namespace vl
