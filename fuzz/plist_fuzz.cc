// Feeds arbitrary bytes to the property-list reader and writes back whatever it reads.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "vorlund/foundation/property_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  auto value = vl::plist::parse(bytes);
  if (value) {
    auto binary = vl::plist::serialize(*value, vl::plist::Format::Binary);
    if (binary) vl::plist::parse(*binary);
    vl::plist::serialize(*value, vl::plist::Format::Xml);
  }
  return 0;
}
