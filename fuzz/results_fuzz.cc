// Feeds arbitrary bytes to the readers of a run's files: a keyed archive goes to the decoder of the
// resume data (with the classes a resume file may hold), anything else to VLResults::withFile as
// a results file. What they accept is summarised and archived again, as a run would.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/property_list.h"
#include "vorlund/results/results.h"

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
  vl::fuzz::require(vl::archive(*reread) == again, "resume data keeps its content when re-archived");
}

void readResultsFile(std::string_view bytes) {
  static const std::string path = vl::paths::expandTilde("~/VorlundResults_fuzz.plist");
  vl::fuzz::placeFile(path, bytes);
  std::shared_ptr<VLResults> results = VLResults::withFile(path);
  if (!results) return;
  vl::Value(results->resultsFileDictionary()).description();
  results->testcaseQI();
  results->QI();
  results->estimatedQI();
  results->totalResets();
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
