// vorlundctl list and run: the bundle catalogue, and running test cases from it.
//
// `run` builds the test case from its bundle's declaration and the preferences (or from an ad hoc
// JSON dictionary), lays the command's --option values over its options, and runs it N times:
// through the stress service, or in this process with --local. Each result is one line; a summary
// closes the run, and the exit status is 1 when any result failed. Results of --local runs join this
// user's run (user_run.h), as those of `vorlundctl results` do; the service adds the results it runs
// to its own run.
#include <chrono>
#include <cstdio>

#include "commands.h"
#include "user_run.h"
#include "vorlund/catalogue/lookup.h"
#include "vorlund/catalogue/test_bundle.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/results/execution.h"
#include "vorlund/results/test_case_result.h"

namespace vorlundctl {

namespace {

struct RunOptions {
  std::string name;
  std::string dictFile;
  std::vector<std::string> options;
  int iterations = 1;
  bool local = false;
};

// An option value: a JSON scalar when it reads as one (5, 2.5, true), else the text itself.
vl::Value optionValue(const std::string& text) {
  std::optional<vl::Value> parsed = vl::json::parse(text);
  if (parsed && (parsed->isNumber() || parsed->isString())) return *parsed;
  return vl::Value(text);
}

std::shared_ptr<VLTestCaseObject> buildTestCase(const RunOptions& o) {
  std::shared_ptr<VLTestCaseObject> testCase;
  if (!o.dictFile.empty()) {
    std::optional<std::string> text = vl::paths::readFile(o.dictFile);
    if (!text) throw UsageFailure("cannot read " + o.dictFile);
    vl::Error error;
    std::optional<vl::Value> json = vl::json::parse(*text, &error);
    if (!json) throw UsageFailure(o.dictFile + ": " + error.localizedDescription());
    if (!json->isDictionary()) throw UsageFailure(o.dictFile + ": a test case is a JSON object");
    testCase = VLGetObjectForDictionary(*json->asDictionary());
    if (!testCase) {
      throw UsageFailure(o.dictFile + ": not a test case (it needs \"Selector\", \"Technology\" and "
                         "\"Type\", and a bundle that offers the selector)");
    }
  } else {
    testCase = VLGetObjectForTestCase(o.name);
    if (!testCase) {
      throw UsageFailure("no bundle in " + VLGetBundlePath() + " offers a test case named '" + o.name + "'");
    }
  }
  // The stored options (override references unresolved), so that "$" values still resolve when the
  // test case reads them.
  const vl::Dictionary form = testCase->getDictionaryRepresentation();
  const vl::Dictionary* stored = form.get(kVLTestCaseObjectKeyOptions).asDictionary();
  vl::Dictionary options = stored ? *stored : vl::Dictionary{};
  for (const std::string& text : o.options) {
    size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw UsageFailure("--option takes KEY=VALUE, not '" + text + "'");
    }
    options.set(text.substr(0, equals), optionValue(text.substr(equals + 1)));
  }
  testCase->setOptions(options);
  return testCase;
}

std::string outcome(const VLTestCaseResult& result) {
  if (result.isNoOp()) return "did nothing (no-op)";
  if (result.didPass()) return "passed";
  if (result.didFail()) return "failed: " + result.bucket().value_or("no reason");
  return "recorded" + (result.bucket() ? " in " + *result.bucket() : std::string());
}

}  // namespace

void addListCommand(CLI::App& app) {
  auto* command = app.add_subcommand("list", "List the bundles and the test cases they offer");
  static bool asJson = false;
  command->add_flag("--json", asJson, "Print as JSON");
  setAction(command, [] {
    std::shared_ptr<VLTestBundleManager> manager = VLGetBundleManager();
    std::string text = asJson ? manager->getMetaAsJSON() : manager->getMeta();
    std::printf("%s\n", text.c_str());
    return 0;
  });
}

void addRunCommand(CLI::App& app) {
  auto* command = app.add_subcommand("run", "Run a test case from the bundles, or an ad hoc one");
  static RunOptions o;
  auto* name = command->add_option("NAME", o.name, "Name of the test case");
  auto* dict = command->add_option("--dict", o.dictFile, "JSON file describing an ad hoc test case");
  name->excludes(dict);
  command->add_option("--option", o.options, "Set an option KEY=VALUE (repeatable)");
  command->add_option("--iterations", o.iterations, "How many times to run it")
      ->check(CLI::Range(1, 1000000));
  command->add_flag("--local", o.local, "Run in this process instead of through the stress service");
  setAction(command, [] {
    if (o.name.empty() && o.dictFile.empty()) throw UsageFailure("run needs a test case NAME or --dict FILE");
    std::shared_ptr<VLTestCaseObject> testCase = buildTestCase(o);
    const std::string label = testCase->name().value_or(testCase->selector().value_or("test case"));
    int passed = 0, failed = 0, other = 0;
    for (int i = 1; i <= o.iterations; ++i) {
      // The progress line: a test case may run for minutes.
      std::fprintf(stderr, "[%d/%d] running %s...\n", i, o.iterations, label.c_str());
      auto began = std::chrono::steady_clock::now();
      std::shared_ptr<VLTestCaseResult> result;
      if (o.local) {
        result = vl::executeTestCaseInProcess(testCase);
        addResultToUserRun(result);
      } else {
        vl::Error error;
        result = VLExecuteTestCase(testCase, &error);
        if (!result) throw UsageFailure(error.localizedDescription());
      }
      double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
      std::printf("[%d/%d] %s %s (%.2f s)\n", i, o.iterations, label.c_str(), outcome(*result).c_str(), seconds);
      std::fflush(stdout);
      if (result->didFail()) ++failed;
      else if (result->didPass()) ++passed;
      else ++other;
    }
    std::printf("%s: %d run(s), %d passed, %d failed, %d other\n", label.c_str(), o.iterations, passed,
                failed, other);
    return failed > 0 ? 1 : 0;
  });
}

}  // namespace vorlundctl
