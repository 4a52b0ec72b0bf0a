// A sample test bundle: one test case of each kind of result, used by the demo and the tests.
#include <cstdlib>
#include <string>

#include "vorlund/catalogue/bundle_registration.h"
#include "vorlund/foundation/time_scale.h"
#include "vorlund/results/test_case_result.h"

namespace {

double numberOption(const std::shared_ptr<VLTestCaseObject>& testCase, const char* key,
                    double fallback) {
  std::optional<vl::Dictionary> options = testCase->options();
  if (!options) return fallback;
  const vl::Value& value = options->get(key);
  if (const vl::Number* number = value.asNumber()) return number->doubleValue();
  if (const std::string* text = value.asString()) {
    char* end = nullptr;
    double parsed = std::strtod(text->c_str(), &end);
    if (end != text->c_str() && *end == '\0') return parsed;
  }
  return fallback;
}

std::optional<vl::Dictionary> sampleDefaultSettings(std::string_view type,
                                                    std::string_view subtype) {
  // The class adds its own settings for wifi runs of the "soak" subtype; the Info.plist answers
  // the others.
  if (type == "wifi" && subtype == "soak") {
    return vl::Dictionary{{"Iterations", 500}, {"Source", "class"}};
  }
  return vl::Dictionary{};
}

}  // namespace

class SampleStress : public VLTestCaseClass {
 public:
  std::shared_ptr<VLTestCaseResult> pingGateway(std::shared_ptr<VLTestCaseObject> testCase) {
    return VLTestCaseResult::quickPassWithTestCaseObject(std::move(testCase));
  }

  std::shared_ptr<VLTestCaseResult> measureThroughput(std::shared_ptr<VLTestCaseObject> testCase) {
    auto result = VLTestCaseResult::withTestCaseObject(testCase);
    double megabits = numberOption(testCase, "Megabits", 100);
    result->addMetric(megabits, std::string("Throughput"));
    result->addMetric(megabits / 8, std::string("Megabytes"));
    result->pass();
    result->setEndTime(std::nullopt);
    return result;
  }

  std::shared_ptr<VLTestCaseResult> latencyHistogram(std::shared_ptr<VLTestCaseObject> testCase) {
    auto result = VLTestCaseResult::withTestCaseObject(std::move(testCase));
    result->addMetric(12.5, std::string("Latency"));
    result->pass();
    result->setEndTime(std::nullopt);
    return result;
  }

  std::shared_ptr<VLTestCaseResult> sleepForOption(std::shared_ptr<VLTestCaseObject> testCase) {
    auto result = VLTestCaseResult::withTestCaseObject(testCase);
    vl::time::sleepFor(numberOption(testCase, "Seconds", 1));
    result->pass();
    result->setEndTime(std::nullopt);
    return result;
  }

  std::shared_ptr<VLTestCaseResult> failWithOption(std::shared_ptr<VLTestCaseObject> testCase) {
    std::string reason = "Sample failure";
    if (auto options = testCase->options()) {
      if (const std::string* text = options->get("Reason").asString()) reason = *text;
    }
    return VLTestCaseResult::quickFailWithTestCaseObject(std::move(testCase), reason);
  }
};

VORLUND_BUNDLE_CLASS(SampleStress);
VORLUND_DEFAULT_SETTINGS(SampleStress, sampleDefaultSettings);
VORLUND_TEST_METHOD(SampleStress, pingGateway);
VORLUND_TEST_METHOD(SampleStress, measureThroughput);
VORLUND_TEST_METHOD(SampleStress, latencyHistogram);
VORLUND_TEST_METHOD(SampleStress, sleepForOption);
VORLUND_TEST_METHOD(SampleStress, failWithOption);
