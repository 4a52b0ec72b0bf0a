// A small codable record for the conversion tests: inline scalars, objects by reference, nested
// collections and an optional child record of its own class.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "vorlund/conversion/keyed_archive.h"

namespace vl::test {

class SampleRecord : public CodableRecord {
 public:
  static constexpr const char* kClassName = "VLSampleRecord";

  std::string name;
  int64_t count = 0;
  double ratio = 0;
  bool flag = false;
  std::optional<Date> started;
  Dictionary options;
  Array tags;
  std::shared_ptr<SampleRecord> child;

  std::string className() const override { return kClassName; }

  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject(name, "Name");
    coder.encodeInt64(count, "Count");
    coder.encodeDouble(ratio, "Ratio");
    coder.encodeBool(flag, "Flag");
    if (started) coder.encodeObject(*started, "Started");
    coder.encodeObject(options, "Options");
    coder.encodeObject(tags, "Tags");
    if (child) coder.encodeObject(Value(child), "Child");
  }

  static std::shared_ptr<CodableRecord> decode(KeyedUnarchiver& coder) {
    auto r = std::make_shared<SampleRecord>();
    r->name = coder.decodeString("Name").value_or("");
    r->count = coder.decodeInt64("Count");
    r->ratio = coder.decodeDouble("Ratio");
    r->flag = coder.decodeBool("Flag");
    r->started = coder.decodeDate("Started");
    r->options = coder.decodeDictionary("Options").value_or(Dictionary{});
    r->tags = coder.decodeArray("Tags").value_or(Array{});
    r->child = coder.decodeObject("Child", ClassSet{kClassName}).record<SampleRecord>();
    if (coder.failed()) return nullptr;
    return r;
  }
};

inline const bool kSampleRecordRegistered = registerCodableClass(
    {SampleRecord::kClassName, {"NSObject"}, &SampleRecord::decode, nullptr});

// The allowed set of the keyed-archive tests: plain values and the sample record.
inline ClassSet sampleClasses() {
  ClassSet classes = plainValueClasses();
  classes.insert(SampleRecord::kClassName);
  return classes;
}

}  // namespace vl::test
