// vorlundctl decode FILE: prints a property list (XML or binary), a keyed archive or a JSON file as
// pretty JSON. Records show as their dictionary form with their class name under "$class".
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "vorlund/conversion/keyed_archive.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/json.h"
#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/property_list.h"

namespace vorlundctl {

namespace {

vl::Value decodeFile(const std::string& path) {
  std::optional<std::string> bytes = vl::paths::readFile(path);
  if (!bytes) throw UsageFailure("cannot read " + path + ": " + std::strerror(errno));

  vl::Error error;
  if (vl::isKeyedArchive(*bytes)) {
    std::optional<vl::Value> value = vl::unarchive(*bytes, VLValidExternalClassesForCoding(), &error);
    if (!value) throw UsageFailure(path + ": " + error.localizedDescription());
    return *value;
  }
  if (std::optional<vl::Value> value = vl::plist::parse(*bytes)) return *value;
  if (std::optional<vl::Value> value = vl::json::parse(*bytes)) return *value;
  throw UsageFailure(path + ": not a property list, keyed archive or JSON file");
}

}  // namespace

void addDecodeCommand(CLI::App& app) {
  auto* command = app.add_subcommand(
      "decode", "Print a property list, keyed archive or JSON file as pretty JSON");
  static std::string file;
  command->add_option("FILE", file, "The file to decode")->required();
  setAction(command, [] {
    vl::Value value = decodeFile(file);
    std::string text = vl::json::displayString(value);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
    return 0;
  });
}

}  // namespace vorlundctl
