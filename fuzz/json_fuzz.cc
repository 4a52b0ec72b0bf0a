// Feeds arbitrary text to the JSON reader, directly and through VLObjectFromJSONString, and writes
// back whatever it reads.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "vorlund/conversion/json_conversion.h"
#include "vorlund/foundation/json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto value = vl::json::parse(text)) {
    vl::json::serialize(*value, /*pretty=*/true, /*requireContainer=*/false);
    vl::json::displayString(*value);
  }
  vl::Value object = VLObjectFromJSONString(text);
  if (!object.isNone()) VLJSONDataFromObject(object);
  return 0;
}
