// Feeds arbitrary bytes to the keyed unarchiver (with a codable record registered, so record
// decoding runs too) and archives again whatever it decodes.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/conversion/object_data.h"

namespace {

class FuzzRecord : public vl::CodableRecord {
 public:
  std::string className() const override { return "VLFuzzRecord"; }
  void encodeWithCoder(vl::KeyedArchiver& coder) const override {
    coder.encodeObject(name, "Name");
    coder.encodeObject(options, "Options");
    coder.encodeObject(child, "Child");
    coder.encodeInt64(count, "Count");
  }
  static std::shared_ptr<vl::CodableRecord> decode(vl::KeyedUnarchiver& coder) {
    auto r = std::make_shared<FuzzRecord>();
    r->name = coder.decodeString("Name").value_or("");
    r->options = coder.decodeDictionary("Options").value_or(vl::Dictionary{});
    r->child = coder.decodeObject("Child", vl::ClassSet{"VLFuzzRecord"});
    r->count = coder.decodeInt64("Count");
    coder.decodeBool("Flag");
    coder.decodeDouble("Ratio");
    coder.decodeDate("Date");
    coder.decodeUuid("Id");
    coder.decodeNumber("Number");
    coder.decodeArray("List");
    if (coder.failed()) return nullptr;
    return r;
  }
  std::string name;
  vl::Dictionary options;
  vl::Value child;
  int64_t count = 0;
};

[[maybe_unused]] const bool kRegistered = vl::registerCodableClass(
    {"VLFuzzRecord", {"VLIssue", "NSObject"}, &FuzzRecord::decode, nullptr});

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  vl::isKeyedArchive(bytes);
  vl::Error error;
  auto value = vl::unarchive(bytes, VLValidExternalClassesForCoding(), &error);
  if (value) {
    if (auto again = vl::archive(*value)) vl::unarchive(*again, VLValidExternalClassesForCoding());
  }
  return 0;
}
