// The transform: what it logs for each outcome of a block write, a record it cannot turn into
// JSON, and finished runs entering the device's ledger only while "LedgerResults" is true.
#include "vorlund/hostlink/cordex_transform.h"

#include <gtest/gtest.h>

#include <cmath>

#include "results/run_sandbox.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/hostlink/ledger.h"
#include "vorlund/logging/log_capture.h"

namespace vl {
namespace {

// A ledger library that completes every write at once with what it was told to.
class AnsweringSession : public ZEPCordexSession {
 public:
  AnsweringSession(std::optional<Dictionary> result, std::optional<Error> error)
      : result_(std::move(result)), error_(std::move(error)) {}
  void writeBlock(Data data, Completion completion) override {
    written.push_back(std::string(data.view()));
    completion(result_, error_ ? &*error_ : nullptr);
  }
  void flush() override {}
  std::string description() const override { return "<AnsweringSession>"; }
  std::vector<std::string> written;

 private:
  std::optional<Dictionary> result_;
  std::optional<Error> error_;
};

TEST(CordexTransformTest, LogsEachOutcomeOfTheWriteAndDropsARecordWithoutJson) {
  struct Case {
    const char* name;
    std::optional<Dictionary> result;
    std::optional<Error> error;
    double runTime;  // NaN has no JSON
  };
  const Dictionary block{{"Index", Value(int64_t{4})}};
  const Error full = Error::withReason("No space left on device");
  const std::string done = "Cordex Block write done: " + Value(block).description();
  const std::string failed = "Cordex failed to write block data: No space left on device";
  const std::vector<Case> cases = {{"written", block, {}, 12.5},
                                   {"failed", {}, full, 12.5},
                                   {"both", block, full, 12.5},
                                   {"no JSON", block, {}, std::nan("")}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::Sandbox sandbox;
    LogCapture capture;
    std::shared_ptr<AnsweringSession> session;
    VLCordexTransform transform([&](const std::string& directory) {
      EXPECT_EQ(directory, sandbox.home() + "/Library/Logs/ZEP/Data");
      return session = std::make_shared<AnsweringSession>(c.result, c.error);
    });
    transform.transformResult({"VorlundResults_x.plist", Dictionary{{"RunTime", c.runTime}}});

    const bool hasJson = !std::isnan(c.runTime);
    EXPECT_EQ(session->written, hasJson ? std::vector<std::string>{R"({"RunTime":12.5})"}
                                        : std::vector<std::string>{});
    EXPECT_EQ(capture.contains(VLLogLevelError, "",
                               "Could not generate json from result VorlundResults_x.plist"),
              !hasJson);
    EXPECT_TRUE(capture.contains(VLLogLevelDebug, "CordexTransform", "Create Cordex Session"));
    EXPECT_TRUE(
        capture.contains(VLLogLevelDebug, "CordexTransform", "Create Cordex Session... Done"));
    EXPECT_TRUE(capture.contains(VLLogLevelDebug, "Cordex", "transformResult"));
    EXPECT_TRUE(
        capture.contains(VLLogLevelDebug, "Cordex", "~ Cordex Session is:<AnsweringSession>"));
    EXPECT_EQ(capture.contains(VLLogLevelError, "Cordex", done), hasJson && c.result);
    EXPECT_EQ(capture.contains(VLLogLevelError, "Cordex", failed), hasJson && c.error);
  }
}

// One sandbox for every case: the process keeps one transform, made on the first ledgered run.
TEST(CordexTransformTest, AFinishedRunEntersTheLedgerOnlyWhileLedgerResultsIsTrue) {
  test::RunSandbox run;
  const std::string ledger =
      paths::join(run.device().home() + "/Library/Logs/ZEP/Data", kLedgerFileName);
  auto blocks = [&] {
    std::optional<LedgerScan> scan = readLedgerFile(ledger);
    EXPECT_TRUE(!scan || !scan->firstBad());
    return scan ? scan->blocks : std::vector<LedgerBlock>{};
  };
  struct Case {
    std::optional<bool> ledgerResults;
    size_t blocksAfter;
  };
  const std::vector<Case> cases = {{std::nullopt, 0}, {false, 0}, {true, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ledgerResults ? (*c.ledgerResults ? "true" : "false") : "unset");
    VLSavePreference(c.ledgerResults ? Value(*c.ledgerResults) : Value(), "LedgerResults");
    std::shared_ptr<VLResults> results = VLResults::make();
    results->addTestCaseResult(test::result("Ping", true), false);
    LogCapture capture;
    ASSERT_TRUE(results->finish());
    ASSERT_EQ(blocks().size(), c.blocksAfter);
    EXPECT_EQ(capture.count("transformResult"), c.ledgerResults.value_or(false) ? 1u : 0u);
    if (!c.ledgerResults.value_or(false)) continue;

    std::optional<Value> json = json::parse(blocks().back().json);
    ASSERT_TRUE(json && json->asDictionary());
    const Dictionary& file = *json->asDictionary();
    EXPECT_EQ(file.get("StressType"), Value("wifi"));
    EXPECT_TRUE(file.get("TestCases").asDictionary()->find("Ping"));
    EXPECT_EQ(file.get("StartTime"), Value(dateString(results->startTime())));
  }
}

}  // namespace
}  // namespace vl
