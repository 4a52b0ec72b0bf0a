// The JUnit and JSON exports of a fleet of real runs: JUnit valid against the schema CI tools use
// (checked by xmllint), whatever bytes a reason holds; JSON holding every device's results, the
// aggregate and the summary, in the reports' value forms.
#include "vorlund/reports/exports.h"

#include <gtest/gtest.h>

#include <limits>
#include <regex>

#include "reports/sandbox_fleet.h"
#include "vorlund/foundation/utf8.h"

namespace vl {
namespace {

const std::string kSchema = std::string(VORLUND_TESTDATA_DIR) + "/reports/junit-10.xsd";

// xmllint's answer for a document: validation against the schema, or an XPath expression's value.
class Xml {
 public:
  explicit Xml(const std::string& text) { test::writeFile(dir_.file("junit.xml"), text); }
  test::ChildResult validate() const {
    return test::runChild({"xmllint", "--noout", "--schema", kSchema, dir_.file("junit.xml")});
  }
  std::string xpath(const std::string& expression) const {
    test::ChildResult r =
        test::runChild({"xmllint", "--xpath", expression, dir_.file("junit.xml")});
    EXPECT_EQ(r.exitStatus, 0) << expression << ": " << r.err;
    // xmllint ends what it prints with a line break of its own.
    if (r.out.ends_with('\n')) r.out.pop_back();
    return r.out;
  }

 private:
  test::TempDir dir_;
};

TEST(ExportsTest, JUnitOfThreeRealDevicesIsValidAndCountsWhatFailedWhere) {
  test::SandboxFleet sandbox;
  test::addThreeDevices(sandbox);
  std::optional<Fleet> fleet = loadFleet(sandbox.path());
  ASSERT_TRUE(fleet);
  Xml xml(fleetJUnitXml(*fleet, summarizeFleet(*fleet)));

  test::ChildResult valid = xml.validate();
  EXPECT_EQ(valid.exitStatus, 0) << valid.err;
  const std::pair<std::string, std::string> expected[] = {
      {"string(/testsuites/@tests)", "5"},
      {"string(/testsuites/@failures)", "2"},
      {"count(//testsuite)", "3"},
      {"string(//testsuite[2]/@name)", "FLEET0002"},
      {"string(//testsuite[@name='FLEET0001']/@tests)", "2"},
      {"string(//testsuite[@name='FLEET0001']/testcase[@name='Ping']/failure/@message)",
       "No reply"},
      {"string(//testsuite[@name='FLEET0001']/testcase[@name='Ping']/failure)", "1 of 3 instances"},
      {"string(//testsuite[@name='FLEET0002']/testcase[@name='Ping']/failure/@message)",
       "it's <gone> & \"lost\""},
      {"string(//testsuite[@name='FLEET0002']/testcase[@name='Ping']/failure)", "2 of 2 instances"},
      {"count(//testsuite[@name='FLEET0003']//failure)", "0"},
      {"string(//testcase[@name='Download']/@classname)", "Average"},
      // Pooled over the fleet: 40, 60 and 50.
      {"string(//testsuite[@name='FLEET0002']/properties/property[@name='Download.Mbps.Mean']/"
       "@value)",
       "50"},
      {"string(//testsuite[@name='FLEET0001']/properties/property[@name='Download.Mbps.Max']/"
       "@value)",
       "60"},
  };
  for (const auto& [expression, value] : expected)
    EXPECT_EQ(xml.xpath(expression), value) << expression;
}

TEST(ExportsTest, JUnitStaysValidWhateverBytesAReasonHolds) {
  const std::string reasons[] = {
      "quotes \" and ' and <tags> & ]]> ends",
      std::string("control \x01\x08\x1b[31m bytes\x7f and a NUL ") + '\0' + " inside",
      "broken UTF-8 \xff\xfe and \xc3(",
      "no characters \xEF\xBF\xBE\xEF\xBF\xBF in XML",
      "tab\tline\nreturn\r",
      "ünïcödé ✓ stays",
  };
  for (const std::string& reason : reasons) {
    FleetSummary summary;
    summary.devices = {reason};
    TestCaseSummary row;
    row.name = reason;
    row.type = "PassFail";
    row.perDevice[reason].instances = 2;
    row.perDevice[reason].failures = 1;
    row.perDevice[reason].failuresByBucket[reason] = 1;
    row.metrics.push_back({reason, 1, 0, 1, 1});
    summary.testCases.push_back(row);
    Fleet fleet;
    fleet.devices.push_back({reason, "", "", nullptr});

    Xml xml(fleetJUnitXml(fleet, summary));
    test::ChildResult valid = xml.validate();
    EXPECT_EQ(valid.exitStatus, 0) << reason << ": " << valid.err;
    // Reasons with bytes XML cannot carry come out with U+FFFD in their place, the others whole.
    if (reason.find_first_of(std::string("\x01\x7f\xbe\xfe\0", 5)) == std::string::npos) {
      EXPECT_EQ(xml.xpath("string(//failure/@message)"), reason);
      EXPECT_EQ(xml.xpath("string(//testsuite/@name)"), reason);
    } else {
      EXPECT_NE(xml.xpath("string(//failure/@message)").find("\xEF\xBF\xBD"), std::string::npos);
    }
  }
}

TEST(ExportsTest, JsonHoldsEveryDeviceTheAggregateAndTheSummaryInReportForms) {
  test::SandboxFleet sandbox;
  test::addThreeDevices(sandbox);
  // One more device whose settings hold what JSON has no form for.
  sandbox.addDevice("FLEET0004", [](VLResults& run) {
    run.setTestSettings(Dictionary{{"Blob", Data::fromString("hi!")},
                                   {"Ratio", Value(std::numeric_limits<double>::infinity())}});
    run.addTestCaseResult(test::timedResult(run, "Ping", 1, ""), true);
  });
  std::optional<Fleet> fleet = loadFleet(sandbox.path());
  ASSERT_TRUE(fleet);
  nlohmann::ordered_json json = fleetResultsJson(*fleet, summarizeFleet(*fleet));
  // What the tools write reads back as JSON.
  json = nlohmann::ordered_json::parse(json.dump());

  ASSERT_EQ(json["devices"].size(), 4u);
  EXPECT_EQ(json["devices"][1]["device"], "FLEET0002");
  EXPECT_EQ(json["devices"][1]["timeline"], fleet->devices[1].timelinePath);
  const auto& results = json["devices"][1]["results"];
  EXPECT_EQ(results["Hardware Info"]["SerialNumber"], "FLEET0002");
  EXPECT_TRUE(std::regex_match(results["StartTime"].get<std::string>(),
                               std::regex(R"(\d{4}-\d\d-\d\d-\d\d-\d\d-\d\d)")));
  EXPECT_EQ(results["TestCases"]["Ping"]["FailureRate"], 1.0);
  EXPECT_EQ(json["devices"][0]["results"]["Issues"][0]["Process"], "wpa_supplicant");
  EXPECT_EQ(json["devices"][3]["results"]["Test Settings"]["Blob"], "aGkh");
  EXPECT_TRUE(json["devices"][3]["results"]["Test Settings"]["Ratio"].is_null());

  EXPECT_EQ(json["aggregate"]["MergedResults"], 4);
  EXPECT_EQ(json["summary"]["devices"].size(), 4u);
  EXPECT_EQ(json["summary"]["testCases"][1]["name"], "Ping");
  EXPECT_EQ(json["summary"]["testCases"][1]["failures"], 3);
}

}  // namespace
}  // namespace vl
