#include "vorlund/foundation/user_defaults.h"

#include "vorlund/foundation/paths.h"
#include "vorlund/foundation/process.h"
#include "vorlund/foundation/property_list.h"

namespace vl {
namespace {

Value argumentValue(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first != std::string::npos && text[first] == '<') {
    if (std::optional<Value> value = plist::parse(text)) return std::move(*value);
  }
  return Value(text);
}

Dictionary fileDomain() {
  return plist::readDictionary(UserDefaults::defaultsPath()).value_or(Dictionary());
}

}  // namespace

UserDefaults& UserDefaults::standard() {
  static UserDefaults defaults;
  return defaults;
}

Dictionary UserDefaults::argumentDomain(const std::vector<std::string>& arguments) {
  Dictionary domain;
  for (size_t i = 1; i + 1 < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument.size() < 2 || argument[0] != '-') continue;
    domain.set(argument.substr(1), argumentValue(arguments[i + 1]));
    ++i;
  }
  return domain;
}

std::string UserDefaults::defaultsPath() {
  return paths::expandTilde("~/Library/Preferences/" + process::name() + ".plist");
}

Value UserDefaults::object(std::string_view key) const {
  const Dictionary arguments = argumentDomain(process::arguments());
  if (const Value* v = arguments.find(key)) return *v;
  return fileDomain().get(key);
}

std::optional<std::string> UserDefaults::string(std::string_view key) const {
  const Value value = object(key);
  if (const std::string* s = value.asString()) return *s;
  return std::nullopt;
}

Dictionary UserDefaults::dictionaryRepresentation() const {
  Dictionary all = fileDomain();
  const Dictionary arguments = argumentDomain(process::arguments());
  for (size_t i = 0; i < arguments.size(); ++i) {
    const auto [key, value] = arguments.entry(i);
    all.set(key, value);
  }
  return all;
}

}  // namespace vl
