// Feeds arbitrary bytes to the readers of test case definitions: the dictionary form (as a
// property list) and the JSON form through withDictionary, a bundle's entry through
// withBundleSettings. Whatever they accept must survive the dictionary and archive round trips.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz_support.h"
#include "vorlund/catalogue/test_case_object.h"
#include "vorlund/conversion/json_conversion.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/property_list.h"

namespace {

// Compared by description rather than ==, which a NaN time-out would never satisfy.
std::string text(const vl::Dictionary& form) { return vl::Value(form).description(); }

void exercise(const std::shared_ptr<VLTestCaseObject>& object) {
  vl::Dictionary form = object->getDictionaryRepresentation();
  object->getJSONSafeDictionaryRepresentation();
  object->description();
  object->verifyOptionExists("Host");

  vl::Error error;
  auto rebuilt = VLTestCaseObject::withDictionary(form, &error);
  vl::fuzz::require(rebuilt != nullptr, "the dictionary form of a definition reads back",
                    error.description());
  vl::fuzz::require(text(rebuilt->getDictionaryRepresentation()) == text(form),
                    "a definition rebuilt from its dictionary form has the same form");

  std::optional<std::string> archived = vl::archive(vl::Value(object), &error);
  vl::fuzz::require(archived.has_value(), "a definition read from outside can be archived",
                    error.description());
  std::optional<vl::Value> decoded =
      vl::unarchive(*archived, VLValidExternalClassesForCoding(), &error);
  vl::fuzz::require(decoded && decoded->record<VLTestCaseObject>(),
                    "an archived definition decodes with the external classes",
                    error.description());
  vl::fuzz::require(
      text(decoded->record<VLTestCaseObject>()->getDictionaryRepresentation()) == text(form),
      "an archived definition decodes to the same dictionary form");
}

void readDictionary(const vl::Dictionary& dictionary) {
  vl::Error error;
  if (auto object = VLTestCaseObject::withDictionary(dictionary, &error)) exercise(object);
  if (auto object = VLTestCaseObject::withBundleSettings(dictionary)) exercise(object);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (auto value = vl::plist::parse(bytes)) {
    if (const vl::Dictionary* dictionary = value->asDictionary()) readDictionary(*dictionary);
  }
  vl::Value json = VLObjectFromJSONString(bytes);
  if (const vl::Dictionary* dictionary = json.asDictionary()) readDictionary(*dictionary);
  return 0;
}
