// The transform of result records into ledger blocks, and the handler that sends each finished run
// through it when the preference "LedgerResults" is set.
#include "vorlund/hostlink/cordex_transform.h"

#include <map>
#include <mutex>
#include <string>

#include "vorlund/catalogue/preferences.h"
#include "vorlund/foundation/date_string.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/finished_run.h"
#include "vorlund/results/results.h"

namespace {

constexpr const char* kDataDirectory = "~/Library/Logs/ZEP/Data";
constexpr const char* kTransformCategory = "CordexTransform";
constexpr const char* kCordexCategory = "Cordex";
constexpr const char* kLedgerResultsPreference = "LedgerResults";

// Dates become the library's date strings, as everywhere else results are written as text.
vl::Value jsonReady(const vl::Value& value) {
  if (const vl::Date* date = value.asDate()) return vl::dateString(*date);
  if (const vl::Array* array = value.asArray()) {
    vl::Array copy;
    for (const vl::Value& item : *array) copy.push_back(jsonReady(item));
    return copy;
  }
  if (const vl::Dictionary* dictionary = value.asDictionary()) {
    vl::Dictionary copy;
    for (size_t i = 0; i < dictionary->size(); ++i) {
      auto [key, item] = dictionary->entry(i);
      copy.set(key, jsonReady(item));
    }
    return copy;
  }
  return value;
}

// One transform per ledger folder, made when the first run is to be written there (its session
// opens the ledger then, not at start-up). A process keeps one folder all its life; a test that
// gives each case a home of its own gets a ledger of its own too.
VLCordexTransform& sharedTransform() {
  static std::mutex mutex;
  static auto* transforms = new std::map<std::string, VLCordexTransform*>();  // live for the process
  std::lock_guard lock(mutex);
  VLCordexTransform*& transform = (*transforms)[VLCordexTransform::dataDirectory()];
  if (!transform) transform = new VLCordexTransform();
  return *transform;
}

// Waits for the block, so that a front end that exits right after ending the run does not lose it.
[[maybe_unused]] const bool kFinishedRunHandlerInstalled = [] {
  vl::setFinishedRunHandler([](const VLResults& run) {
    if (!VLGetPreferences().get(kLedgerResultsPreference).boolOr(false)) return;
    VLCordexTransform& transform = sharedTransform();
    transform.transformResult(vl::ledgerRecordForRun(run));
    transform.cordexSession()->flush();
  });
  return true;
}();

}  // namespace

vl::LedgerRecord vl::ledgerRecordForRun(const VLResults& run) {
  LedgerRecord record;
  record.resultIdentifier = paths::lastComponent(run.getResultsFilePath());
  Value file = jsonReady(run.resultsFileDictionary());
  if (const Dictionary* dictionary = file.asDictionary()) record.dictionary = *dictionary;
  return record;
}

std::string VLCordexTransform::dataDirectory() { return vl::paths::expandTilde(kDataDirectory); }

VLCordexTransform::VLCordexTransform(const SessionFactory& makeSession) {
  VLLog(VLLogLevelDebug, kTransformCategory, "Create Cordex Session");
  cordexSession_ = makeSession(dataDirectory());
  array_ = vl::Array();
  VLLog(VLLogLevelDebug, kTransformCategory, "Create Cordex Session... Done");
}

void VLCordexTransform::transformResult(const vl::LedgerRecord& record) {
  VLLog(VLLogLevelDebug, kCordexCategory, "transformResult");
  VLLog(VLLogLevelDebug, kCordexCategory, "~ Array is:%@", array_);
  VLLog(VLLogLevelDebug, kCordexCategory, "~ Cordex Session is:%@",
        cordexSession_ ? cordexSession_->description() : std::string("(null)"));
  std::optional<std::string> json = vl::json::serialize(record.dictionary, false);
  if (!json) {
    VLLog(VLLogLevelError, "", "Could not generate json from result %@", record.resultIdentifier);
    return;
  }
  if (!cordexSession_) return;  // a factory that made no session: nothing to write to
  cordexSession_->writeBlock(
      vl::Data::fromString(*json),
      [](const std::optional<vl::Dictionary>& result, const vl::Error* error) {
        if (error) {
          VLLog(VLLogLevelError, kCordexCategory, "Cordex failed to write block data: %@",
                error->localizedDescription());
        }
        if (result) VLLog(VLLogLevelError, kCordexCategory, "Cordex Block write done: %@", *result);
      });
}
