// vorlundctl measure ping and parse ping through the real binary: a real ping of the loopback
// joins the user's run with its figures; recorded and garbage outputs parse to one JSON object.
#include <gtest/gtest.h>

#include "tools/ctl.h"

namespace vl {
namespace {

using test::ctl;

TEST(VorlundctlPingTest, MeasureRecordsRealFiguresAndParseReadsRecordedOutput) {
  test::Sandbox sandbox;
  auto measured = ctl({"measure", "ping", "127.0.0.1", "--count", "3", "--interval", "0.2"});
  ASSERT_EQ(measured.exitStatus, 0) << measured.out << measured.err;
  EXPECT_NE(measured.out.find("PacketsTransmitted       3\n"), std::string::npos) << measured.out;
  EXPECT_NE(measured.out.find("PacketLoss               0\n"), std::string::npos);
  EXPECT_NE(measured.out.find("RoundTripStdDev"), std::string::npos);
  EXPECT_NE(measured.out.find("Ping 127.0.0.1 recorded\n"), std::string::npos);

  Dictionary run = test::shownRun();
  const Dictionary* ping = test::caseNamed(run, "Ping 127.0.0.1");
  ASSERT_NE(ping, nullptr);
  EXPECT_EQ(ping->get("FailureRate"), Value(0.0));
  const Dictionary* metrics = ping->get("Metrics").asDictionary();
  ASSERT_NE(metrics, nullptr);
  EXPECT_EQ(metrics->get("PacketsReceived").asDictionary()->get("Mean"), Value(3.0));
  const Number* average = metrics->get("RoundTripAverage").asDictionary()->get("Mean").asNumber();
  ASSERT_NE(average, nullptr);
  EXPECT_GT(average->doubleValue(), 0.0);

  // A host that does not resolve is a failed measurement with the tool's reason, in the run too.
  auto failed = ctl({"measure", "ping", "no-such-host.invalid", "--count", "1", "--json"});
  EXPECT_EQ(failed.exitStatus, 1);
  EXPECT_NE(failed.out.find("Ping output did not include ping statistics"), std::string::npos)
      << failed.out;
  run = test::shownRun();
  ASSERT_NE(test::caseNamed(run, "Ping no-such-host.invalid"), nullptr);
  EXPECT_EQ(test::caseNamed(run, "Ping no-such-host.invalid")->get("FailureRate"), Value(1.0));

  auto parsed =
      ctl({"parse", "ping",
           std::string(VORLUND_TESTDATA_DIR) + "/network/ping/busybox-loopback.txt", "--json"});
  EXPECT_EQ(parsed.exitStatus, 0) << parsed.err;
  EXPECT_EQ(json::parse(parsed.out),
            json::parse(R"({"packetsTransmitted": 3, "packetsReceived": 3, "packetLoss": 0.0,
                "roundTripMin": 0.041, "roundTripAverage": 0.053, "roundTripMax": 0.062,
                "roundTripStdDev": null, "error": null})"))
      << parsed.out;

  test::TempDir dir;
  test::writeFile(dir.file("garbage"), "\x01\xff--- x statistics ---\nnot a summary\n");
  auto garbage = ctl({"parse", "ping", dir.file("garbage"), "--json"});
  EXPECT_EQ(garbage.exitStatus, 1);
  std::optional<Value> object = json::parse(garbage.out);
  ASSERT_TRUE(object && object->isDictionary()) << garbage.out;
  EXPECT_EQ(object->asDictionary()->get("error"),
            Value("Ping output did not have packets transmitted/received correctly displayed"));
  EXPECT_EQ(object->asDictionary()->get("packetLoss"), Value(100.0));
  EXPECT_EQ(ctl({"parse", "ping", dir.file("missing")}).exitStatus, 1);
}

}  // namespace
}  // namespace vl
