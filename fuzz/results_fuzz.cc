// Feeds arbitrary bytes to the readers of a run's files: a keyed archive goes to the decoder of the
// resume data (with the classes a resume file may hold), anything else to VLResults::withFile as
// a results file. What they accept is summarised and archived again, as a run would; an accepted
// results file is also merged as a fleet folder's refresh merges devices: into an empty run, and
// with a second reading of itself.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/results/results.h"
#include "vorlund/results/test_case_statistic.h"

namespace {

void readResumeData(std::string_view bytes) {
  vl::Error error;
  std::optional<vl::Value> root = vl::unarchive(bytes, VLResults::resumeDataClasses(), &error);
  if (!root) return;
  root->description();
  std::optional<std::string> again = vl::archive(*root, &error);
  vl::fuzz::require(again.has_value(), "decoded resume data can be archived again",
                    error.description());
  std::optional<vl::Value> reread = vl::unarchive(*again, VLResults::resumeDataClasses(), &error);
  vl::fuzz::require(reread.has_value(), "resume data archived again decodes", error.description());
  // Descriptions of records print their addresses, so the content is compared as archived bytes.
  vl::fuzz::require(vl::archive(*reread) == again,
                    "resume data keeps its content when re-archived");
}

void summarise(const VLResults& run) {
  vl::Value(run.resultsFileDictionary()).description();
  run.testcaseQI();
  run.QI();
  run.estimatedQI();
}

// The merges of a refresh: the first device's run becomes the aggregate, later ones merge into it.
void mergeAsAFleet(const std::string& path, VLResults& first) {
  std::shared_ptr<VLResults> again = VLResults::withFile(path);
  vl::fuzz::require(again != nullptr, "an accepted results file is accepted when read again");

  VLResults empty;
  empty.mergeWithResult(first);
  vl::fuzz::require(empty.testCaseStatistics().size() == first.testCaseStatistics().size(),
                    "merging into an empty run takes every statistic");
  summarise(empty);

  const vl::Dictionary before = first.testCaseStatistics();
  try {
    first.mergeWithResult(*again);
  } catch (const VLException& exception) {
    vl::fuzz::require(false, "a run merges with a copy of itself", exception.what());
  }
  const vl::Dictionary merged = first.testCaseStatistics();
  vl::fuzz::require(merged.size() == before.size(),
                    "a run merged with itself keeps its test cases");
  for (size_t i = 0; i < merged.size(); ++i) {
    auto [key, value] = merged.entry(i);
    auto was = before.get(key).record<VLTestCaseStatistic>();
    auto now = value.record<VLTestCaseStatistic>();
    vl::fuzz::require(was && now && now->instances() == 2 * was->instances(),
                      "a run merged with itself counts every instance twice", key);
  }
  summarise(first);
}

void readResultsFile(std::string_view bytes) {
  static const std::string path = vl::paths::expandTilde("~/VorlundResults_fuzz.plist");
  vl::fuzz::placeFile(path, bytes);
  std::shared_ptr<VLResults> results = VLResults::withFile(path);
  if (!results) return;
  summarise(*results);
  results->totalResets();
  mergeAsAFleet(path, *results);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (vl::isKeyedArchive(bytes)) {
    readResumeData(bytes);
  } else {
    readResultsFile(bytes);
  }
  return 0;
}
