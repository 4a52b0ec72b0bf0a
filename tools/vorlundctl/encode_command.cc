// vorlundctl encode --class NAME [--format archive|xml|binary|json] IN.json OUT: builds the record
// (from its dictionary form) or the plain value that IN.json describes and writes it as a keyed
// archive (the default), a plain XML or binary property list (records in their dictionary form), or
// JSON. The class must be one of the classes allowed across process and file boundaries. OUT is
// written atomically: on any failure it is left as it was.
#include <cerrno>
#include <cstring>
#include <map>

#include "commands.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/property_list.h"

namespace vorlundctl {

namespace {

std::string allowedClassList() {
  std::string list;
  for (const auto& name : VLValidExternalClassesForCoding()) list += (list.empty() ? "" : ", ") + name;
  return list;
}

// The plain classes and the kind of JSON value each is built from.
vl::Value plainValue(const std::string& className, const vl::Value& json) {
  auto mismatch = [&](const char* expected) {
    return UsageFailure("class " + className + " needs " + expected + " in the input, not " +
                        json.className());
  };
  if (className == vl::kClassDictionary) {
    if (!json.isDictionary()) throw mismatch("a JSON object");
    return json;
  }
  if (className == vl::kClassArray) {
    if (!json.isArray()) throw mismatch("a JSON array");
    return json;
  }
  if (className == vl::kClassString) {
    if (!json.isString()) throw mismatch("a JSON string");
    return json;
  }
  if (className == vl::kClassNumber) {
    if (!json.isNumber()) throw mismatch("a JSON number or boolean");
    return json;
  }
  if (className == vl::kClassDate) {
    if (!json.isNumber()) throw mismatch("a number of seconds since 1970");
    return vl::Date{json.asNumber()->doubleValue()};
  }
  if (className == vl::kClassUuid) {
    auto uuid = json.isString() ? vl::Uuid::fromString(*json.asString()) : std::nullopt;
    if (!uuid) throw mismatch("a UUID string");
    return *uuid;
  }
  if (className == vl::kClassData) {
    if (!json.isString()) throw mismatch("a JSON string");
    return vl::Data::fromString(*json.asString());
  }
  throw UsageFailure("class " + className + " cannot be built from JSON");
}

vl::Value buildValue(const std::string& className, const vl::Value& json) {
  if (!VLValidExternalClassesForCoding().contains(className)) {
    throw UsageFailure("class " + className + " is not one of the allowed classes (" +
                       allowedClassList() + ")");
  }
  const vl::CodableClass* codable = vl::findCodableClass(className);
  if (!codable) return plainValue(className, json);
  if (!codable->fromDictionary) throw UsageFailure("class " + className + " has no dictionary form");
  if (!json.isDictionary()) throw UsageFailure("class " + className + " needs a JSON object in the input");
  vl::Dictionary form = *json.asDictionary();
  if (const vl::Value* tag = form.find("$class")) {
    if (tag->stringOr("") != className) {
      throw UsageFailure("the input describes a " + tag->stringOr("(non-string)") + ", not a " + className);
    }
    form.erase("$class");
  }
  vl::Error error;
  std::shared_ptr<vl::CodableRecord> record = codable->fromDictionary(form, &error);
  if (!record) throw UsageFailure(className + ": " + error.localizedDescription());
  return vl::Value(record);
}

std::string encodeValue(const vl::Value& value, const std::string& format) {
  vl::Error error;
  std::optional<std::string> bytes;
  if (format == "archive") {
    bytes = vl::archive(value, &error);
  } else if (format == "json") {
    bytes = vl::json::displayString(value) + "\n";
  } else {
    vl::Value plain = value;
    if (auto* record = value.asRecord()) plain = (*record)->dictionaryRepresentation();
    bytes = vl::plist::serialize(plain, format == "xml" ? vl::plist::Format::Xml : vl::plist::Format::Binary,
                                 &error);
  }
  if (!bytes) throw UsageFailure("cannot encode: " + error.localizedDescription());
  return *bytes;
}

}  // namespace

void addEncodeCommand(CLI::App& app) {
  auto* command = app.add_subcommand(
      "encode", "Build a record or plain value from JSON and write it as a keyed archive or property list");
  static std::string className, format = "archive", input, output;
  command->add_option("--class", className, "Class of the value: a record class or a plain class")
      ->required();
  command->add_option("--format", format, "Output format")
      ->check(CLI::IsMember({"archive", "xml", "binary", "json"}));
  command->add_option("IN", input, "JSON file describing the value")->required();
  command->add_option("OUT", output, "File to write")->required();
  setAction(command, [] {
    std::optional<std::string> text = vl::paths::readFile(input);
    if (!text) throw UsageFailure("cannot read " + input + ": " + std::strerror(errno));
    vl::Error error;
    std::optional<vl::Value> json = vl::json::parse(*text, &error);
    if (!json) throw UsageFailure(input + ": " + error.localizedDescription());
    std::string bytes = encodeValue(buildValue(className, *json), format);
    if (!vl::paths::writeFileAtomically(output, bytes)) {
      throw UsageFailure("cannot write " + output + ": " + std::strerror(errno));
    }
    return 0;
  });
}

}  // namespace vorlundctl
