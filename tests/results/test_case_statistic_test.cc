#include "vorlund/results/test_case_statistic.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/logging/log_capture.h"
#include "vorlund/results/test_case_result.h"

namespace {

using ::testing::ElementsAre;
using vl::Dictionary;
using vl::Value;

enum class Outcome { Pass, Fail, Unset };

std::shared_ptr<VLTestCaseResult> makeResult(const std::string& name, const std::string& type,
                                             Outcome outcome, const std::string& bucket = "",
                                             const Dictionary& metrics = {}) {
  auto result = VLTestCaseResult::withName(name);
  result->setType(type);
  result->setStartTime(vl::Date{1'700'000'000.0});
  result->setEndTime(vl::Date{1'700'000'010.0});
  if (outcome == Outcome::Pass) result->pass();
  if (outcome == Outcome::Fail) result->failWithReason(bucket);
  if (outcome != Outcome::Fail && !bucket.empty()) result->setBucket(bucket);
  for (size_t i = 0; i < metrics.size(); ++i) {
    auto [key, value] = metrics.entry(i);
    result->addMetric(value, key);
  }
  return result;
}

std::shared_ptr<VLTestCaseStatistic> statisticOf(const std::shared_ptr<VLTestCaseResult>& result) {
  return VLTestCaseStatistic::withTestCaseResult(*result);
}

// A statistic with the given figures; an "Average" metric is {mean, deviation, min, max}.
struct Figures {
  double mean;
  double deviation;
  double min;
  double max;
};

std::shared_ptr<VLTestCaseStatistic> makeStatistic(
    const std::string& name, const std::string& type, uint64_t instances, double failureRate,
    Dictionary failures = {}, std::vector<std::pair<std::string, Figures>> metrics = {}) {
  auto statistic = VLTestCaseStatistic::make();
  statistic->setName(name);
  statistic->setType(type);
  statistic->setInstances(instances);
  statistic->setFailureRate(failureRate);
  statistic->setFailures(std::move(failures));
  Dictionary metricDictionary;
  for (const auto& [key, f] : metrics) {
    metricDictionary.set(
        key, Dictionary{
                 {"Max", f.max}, {"Min", f.min}, {"Mean", f.mean}, {"StdDeviation", f.deviation}});
  }
  statistic->setMetrics(std::move(metricDictionary));
  return statistic;
}

double figure(const VLTestCaseStatistic& statistic, const std::string& metric,
              const std::string& key) {
  const Dictionary* figures = statistic.metrics().get(metric).asDictionary();
  EXPECT_NE(figures, nullptr) << metric;
  return figures ? figures->get(key).doubleOr(NAN) : NAN;
}

double number(const Dictionary& dictionary, const std::string& key) {
  EXPECT_TRUE(dictionary.get(key).isNumber()) << key;
  return dictionary.get(key).doubleOr(NAN);
}

struct MadeCase {
  const char* label;
  std::shared_ptr<VLTestCaseResult> result;
  bool failed;  // a failure rate of 1 and one consecutive failure
  Dictionary failures;
  Dictionary metrics;
};

TEST(TestCaseStatisticTest, MadeFromResult) {
  auto ping = [](const char* type, Outcome outcome, const std::string& bucket = "",
                 const Dictionary& metrics = {}) {
    return makeResult("Ping", type, outcome, bucket, metrics);
  };
  const Dictionary latency{{"Latency", 12.5}, {"Label", "fast"}, {"Count", int64_t{3}}};
  const Dictionary figures{{"Max", 12.5}, {"Min", 12.5}, {"Mean", 12.5}, {"StdDeviation", 0}};
  const Dictionary count{{"Max", 3}, {"Min", 3}, {"Mean", 3}, {"StdDeviation", 0}};
  // clang-format off
  const std::vector<MadeCase> cases = {
      {"passing PassFail", ping("PassFail", Outcome::Pass), false, {}, {}},
      {"failing PassFail", ping("PassFail", Outcome::Fail, "Timeout"), true, {{"Timeout", 1.0}}, {}},
      {"pass/fail unset counts as failed", ping("PassFail", Outcome::Unset, "Odd"), true,
       {{"Odd", 1.0}}, {}},
      {"passing Average keeps number metrics only", ping("Average", Outcome::Pass, "", latency),
       false, {}, {{"Latency", figures}, {"Count", count}}},
      {"failing Average has no metrics", ping("Average", Outcome::Fail, "Lost", latency), true,
       {{"Lost", 1.0}}, {}},
      {"instance histogram counts its bucket", ping("HistogramByInstance", Outcome::Unset, "Slow"),
       false, {}, {{"Slow", 1}}},
      {"a failing histogram is still a histogram", ping("HistogramByInstance", Outcome::Fail, "Slow"),
       false, {}, {{"Slow", 1}}},
  };
  // clang-format on
  for (const MadeCase& c : cases) {
    SCOPED_TRACE(c.label);
    auto statistic = statisticOf(c.result);
    EXPECT_EQ(statistic->failureRate(), c.failed ? 1.0 : 0.0);
    EXPECT_EQ(statistic->consecutiveFailures(), c.failed ? 1u : 0u);
    EXPECT_EQ(statistic->failures(), c.failures);
    EXPECT_EQ(statistic->metrics().keys(), c.metrics.keys());
    EXPECT_EQ(statistic->metrics(), c.metrics);
  }
  EXPECT_EQ(VLTestCaseStatistic::hashForTestCase(*VLTestCaseResult::make()), "");
}

TEST(TestCaseStatisticTest, MismatchesLeaveTheReceiverUnchanged) {
  struct Case {
    const char* label;
    std::shared_ptr<VLTestCaseStatistic> other;
    int code;
  };
  auto receiver =
      makeStatistic("Ping", "Average", 4, 0.25, {{"Lost", 1.0}}, {{"Latency", {10, 1, 8, 12}}});
  // clang-format off
  const std::vector<Case> cases = {
      {"different name", makeStatistic("Pong", "Average", 4, 0.0, {}, {{"Latency", {10, 1, 8, 12}}}), 2},
      {"different type", makeStatistic("Ping", "PassFail", 4, 0.0), 4},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    auto before = std::make_shared<VLTestCaseStatistic>(*receiver);
    EXPECT_EQ(receiver->mergeWithStatistic(*c.other), c.code);
    EXPECT_TRUE(receiver->isEqual(*before));
  }

  // Each metric that one side lacks is named.
  auto a = makeStatistic("Ping", "Average", 4, 0.0, {},
                         {{"Latency", {10, 0, 10, 10}}, {"Loss", {1, 0, 1, 1}}});
  auto b = makeStatistic(
      "Ping", "Average", 4, 0.5, {{"Lost", 1.0}},
      {{"Latency", {10, 0, 10, 10}}, {"Jitter", {2, 0, 2, 2}}, {"Rtt", {3, 0, 3, 3}}});
  vl::LogCapture capture;
  EXPECT_EQ(a->mergeWithStatistic(*b), kVLTestCaseStatisticMergeMetricMismatch);
  std::vector<std::string> messages;
  for (const vl::CapturedLine& line : capture.lines()) {
    if (line.level == VLLogLevelError && line.category == "Results")
      messages.push_back(line.message);
  }
  EXPECT_THAT(
      messages,
      ElementsAre("Cannot merge new numeric metric Jitter", "Cannot merge new numeric metric Rtt",
                  "Cannot merge since new statistic does not have Loss",
                  "Failed to merge statistics because of the following metrics...Jitter, "
                  "Rtt, Loss"));
}

TEST(TestCaseStatisticTest, AveragePoolsMeanAndDeviationOverPassingInstances) {
  struct Case {
    const char* label;
    std::shared_ptr<VLTestCaseStatistic> a;
    std::shared_ptr<VLTestCaseStatistic> b;
    uint64_t instances;
    double failureRate;
    Figures merged;
  };
  // clang-format off
  const std::vector<Case> cases = {
      // fA = 2, pA = 8; fB = 2, pB = 3: mean (80 + 63) / 11 = 13,
      // deviation sqrt((8 * (4 + 9) + 3 * (9 + 64)) / 11) = sqrt(323 / 11).
      {"failures excluded, spreads pooled",
       makeStatistic("T", "Average", 10, 0.2, {{"x", 1.0}}, {{"m", {10, 2, 5, 15}}}),
       makeStatistic("T", "Average", 5, 0.4, {{"x", 1.0}}, {{"m", {21, 3, 16, 30}}}), 15, 4.0 / 15.0,
       {13, std::sqrt(323.0 / 11.0), 5, 30}},
      // A failure rate of 0.26 on 10 instances rounds to 3 failed, 7 passing.
      {"failure counts are rounded",
       makeStatistic("T", "Average", 10, 0.26, {{"x", 1.0}}, {{"m", {1, 0, 1, 1}}}),
       makeStatistic("T", "Average", 3, 0.0, {}, {{"m", {11, 0, 11, 11}}}), 13, 3.0 / 13.0,
       {4, std::sqrt(7.0 * 9.0 / 10.0 + 3.0 * 49.0 / 10.0), 1, 11}},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    ASSERT_EQ(c.a->mergeWithStatistic(*c.b), kVLTestCaseStatisticMergeSucceeded);
    EXPECT_EQ(c.a->instances(), c.instances);
    EXPECT_DOUBLE_EQ(c.a->failureRate(), c.failureRate);
    EXPECT_DOUBLE_EQ(figure(*c.a, "m", "Mean"), c.merged.mean);
    EXPECT_DOUBLE_EQ(figure(*c.a, "m", "StdDeviation"), c.merged.deviation);
    EXPECT_DOUBLE_EQ(figure(*c.a, "m", "Min") + figure(*c.a, "m", "Max"),
                     c.merged.min + c.merged.max);
  }
  // A failed average takes the passing figures whole.
  auto failed =
      statisticOf(makeResult("Rtt", "Average", Outcome::Fail, "Lost", {{"Latency", 1.0}}));
  auto passing = statisticOf(makeResult("Rtt", "Average", Outcome::Pass, "", {{"Latency", 7.0}}));
  ASSERT_EQ(failed->mergeWithStatistic(*passing), kVLTestCaseStatisticMergeSucceeded);
  EXPECT_EQ(failed->metrics(), passing->metrics());
}

TEST(TestCaseStatisticTest, HistogramsWeighBucketsByInstances) {
  vl::LogCapture capture;
  auto held = statisticOf(makeResult("Scan", "HistogramByInstance", Outcome::Unset, "Slow"));
  ASSERT_EQ(held->mergeWithStatistic(
                *statisticOf(makeResult("Scan", "HistogramByInstance", Outcome::Unset, "Fast"))),
            0);
  ASSERT_EQ(held->mergeWithStatistic(
                *statisticOf(makeResult("Scan", "HistogramByInstance", Outcome::Unset, "Slow"))),
            0);
  EXPECT_DOUBLE_EQ(number(held->metrics(), "Slow"), 2.0 / 3.0);
  EXPECT_DOUBLE_EQ(number(held->metrics(), "Fast"), 1.0 / 3.0);
  EXPECT_EQ(capture.count("Merging results for 'Scan' (1 + 1 = 2)"), 0u);

  // Time histograms weigh by seconds: 90 s in "Busy" and 30 s in "Idle".
  auto busy = makeResult("Soak", "HistogramByTime", Outcome::Unset, "Busy");
  busy->setEndTime(vl::Date{1'700'000'090.0});
  auto idle = makeResult("Soak", "HistogramByTime", Outcome::Unset, "Idle");
  idle->setEndTime(vl::Date{1'700'000'030.0});
  auto time = statisticOf(busy);
  ASSERT_EQ(time->mergeWithStatistic(*statisticOf(idle)), 0);
  EXPECT_EQ(time->metrics(), (Dictionary{{"Busy", 0.75}, {"Idle", 0.25}}));
}

// The allowed classes of a file that holds statistics.
vl::ClassSet statisticClasses() {
  vl::ClassSet classes = VLValidExternalClassesForCoding();
  classes.insert(VLTestCaseStatistic::kClassName);
  return classes;
}

// Writes what a statistic's archive would hold, with chosen values, under the statistic's class.
class ForgedStatistic : public vl::CodableRecord {
 public:
  explicit ForgedStatistic(Dictionary keys) : keys_(std::move(keys)) {}
  std::string className() const override { return VLTestCaseStatistic::kClassName; }
  void encodeWithCoder(vl::KeyedArchiver& coder) const override {
    for (size_t i = 0; i < keys_.size(); ++i) {
      auto [key, value] = keys_.entry(i);
      coder.encodeObject(value, key);
    }
  }

 private:
  Dictionary keys_;
};

TEST(TestCaseStatisticTest, DecodingChecksClassesOfEveryKey) {
  struct Case {
    const char* label;
    Dictionary keys;
    bool decodes;
  };
  const std::vector<Case> cases = {
      {"only a name: the rest keeps its defaults", {{"Name", "Solo"}}, true},
      {"name that is a number", {{"Name", int64_t{5}}}, false},
      {"instances that are a string", {{"Name", "X"}, {"Instances", "many"}}, false},
      {"metrics that are an array", {{"Name", "X"}, {"Metrics", vl::Array{1, 2}}}, false},
      {"a statistic nested in the metrics",
       {{"Name", "X"}, {"Metrics", Dictionary{{"inner", VLTestCaseStatistic::make()}}}},
       false},
      {"a result in the tags is allowed",
       {{"Name", "X"}, {"Tags", Dictionary{{"r", VLTestCaseResult::withName("R")}}}},
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    vl::Error error;
    std::optional<std::string> bytes =
        vl::archive(Value(std::make_shared<ForgedStatistic>(c.keys)), &error);
    ASSERT_TRUE(bytes) << error.description();
    std::optional<Value> decoded = vl::unarchive(*bytes, statisticClasses(), &error);
    EXPECT_EQ(decoded.has_value(), c.decodes) << error.description();
  }
}

}  // namespace
