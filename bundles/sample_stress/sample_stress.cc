// A sample test bundle: one test case of each kind of result, used by the demo and the tests.
#include <dlfcn.h>

#include <cstdlib>
#include <string>

#include "vorlund/catalogue/bundle_registration.h"
#include "vorlund/devicetools/shell.h"
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

// The folder this bundle's shared object was loaded from, where its helper programs sit.
std::string bundleFolder() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&bundleFolder), &info) == 0 || !info.dli_fname) return ".";
  std::string path = info.dli_fname;
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
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

  // Runs the bundle's SampleCrasher, which crashes on purpose ("How": segv, abort or overflow;
  // "OwnReport" YES makes it report itself even where systemd-coredump runs); passes when it died
  // of a signal, which the next crash scan then finds as a "Crash" issue.
  std::shared_ptr<VLTestCaseResult> crashHelper(std::shared_ptr<VLTestCaseObject> testCase) {
    std::string how = "segv";
    bool ownReport = false;
    if (auto options = testCase->options()) {
      if (const std::string* text = options->get("How").asString()) how = *text;
      const vl::Value& own = options->get("OwnReport");
      ownReport = own.boolOr(false) || own == vl::Value("YES");
    }
    std::string command = "exec '" + bundleFolder() + "/SampleCrasher' '" + how + "'";
    if (ownReport) command += " --own-report";
    auto helper = VLExecuteTask(command, nullptr, true, 30);
    if (!helper->hasLaunched() || !helper->wasSignalled()) {
      return VLTestCaseResult::quickFailWithTestCaseObject(
          std::move(testCase), "SampleCrasher did not crash (status " +
                                   std::to_string(helper->terminationStatus()) + ")");
    }
    auto result = VLTestCaseResult::withTestCaseObject(testCase);
    result->pass();
    result->setEndTime(std::nullopt);
    return result;
  }
};

VORLUND_BUNDLE_CLASS(SampleStress);
VORLUND_DEFAULT_SETTINGS(SampleStress, sampleDefaultSettings);
VORLUND_TEST_METHOD(SampleStress, pingGateway);
VORLUND_TEST_METHOD(SampleStress, measureThroughput);
VORLUND_TEST_METHOD(SampleStress, latencyHistogram);
VORLUND_TEST_METHOD(SampleStress, sleepForOption);
VORLUND_TEST_METHOD(SampleStress, failWithOption);
VORLUND_TEST_METHOD(SampleStress, crashHelper);
