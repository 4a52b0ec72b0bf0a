// The journal's entries as field maps: `journalctl -o json` lines and the recorded source over
// them.
#include "vorlund/devicetools/journal_source.h"

#include <nlohmann/json.hpp>

#include "vorlund/foundation/paths.h"

namespace vl {

namespace {

// journalctl writes a field it cannot show as text as an array of byte values.
std::optional<std::string> bytesOf(const nlohmann::json& array) {
  std::string bytes;
  for (const auto& element : array) {
    if (!element.is_number_unsigned() || element.get<uint64_t>() > 255) return std::nullopt;
    bytes.push_back(static_cast<char>(element.get<uint64_t>()));
  }
  return bytes;
}

std::optional<std::string> fieldValue(const nlohmann::json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_number()) return value.dump();
  if (!value.is_array() || value.empty()) return std::nullopt;
  if (std::optional<std::string> bytes = bytesOf(value)) return bytes;
  // A field given several times: an array of its values, each a string or bytes.
  return fieldValue(value.front());
}

bool matchesAny(const JournalEntry& entry, const JournalMatches& matches) {
  for (const auto& [name, value] : matches) {
    auto found = entry.fields.find(name);
    if (found != entry.fields.end() && found->second == value) return true;
  }
  return false;
}

}  // namespace

std::string JournalEntry::field(std::string_view name) const {
  auto found = fields.find(std::string(name));
  return found == fields.end() ? std::string() : found->second;
}

std::optional<JournalEntry> parseJournalJsonLine(std::string_view line, std::string* error) {
  auto fail = [&](std::string reason) -> std::optional<JournalEntry> {
    if (error) *error = std::move(reason);
    return std::nullopt;
  };
  nlohmann::json json = nlohmann::json::parse(line, nullptr, false);
  if (json.is_discarded()) return fail("not JSON");
  if (!json.is_object()) return fail("not a JSON object of journal fields");
  JournalEntry entry;
  for (const auto& [name, value] : json.items()) {
    std::optional<std::string> text = fieldValue(value);
    if (!text) continue;
    if (name == "__CURSOR") {
      entry.cursor = *text;
    } else {
      entry.fields.emplace(name, std::move(*text));
    }
  }
  if (entry.fields.empty()) return fail("no journal fields");
  return entry;
}

RecordedJournalSource::RecordedJournalSource(std::string_view jsonLines) {
  while (!jsonLines.empty()) {
    size_t newline = jsonLines.find('\n');
    append(jsonLines.substr(0, newline));
    jsonLines =
        newline == std::string_view::npos ? std::string_view() : jsonLines.substr(newline + 1);
  }
}

std::unique_ptr<RecordedJournalSource> RecordedJournalSource::fromFile(const std::string& path) {
  std::optional<std::string> text = paths::readFile(path);
  if (!text) return nullptr;
  return std::make_unique<RecordedJournalSource>(*text);
}

bool RecordedJournalSource::append(std::string_view line) {
  size_t number = ++lineCount_;
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  // Blank lines separate nothing in journalctl's output; they are neither entries nor faults.
  if (line.find_first_not_of(" \t") == std::string_view::npos) return true;
  std::string reason;
  std::optional<JournalEntry> entry = parseJournalJsonLine(line, &reason);
  if (!entry) {
    badLines_.emplace_back(number, std::move(reason));
    return false;
  }
  if (entry->cursor.empty()) entry->cursor = "line:" + std::to_string(number);
  entries_.push_back(std::move(*entry));
  return true;
}

std::optional<std::vector<JournalEntry>> RecordedJournalSource::entriesAfter(
    const std::optional<std::string>& cursor, const JournalMatches& matches, size_t limit, Error*) {
  size_t start = 0;
  if (cursor) {
    for (size_t n = 0; n < entries_.size(); ++n) {
      if (entries_[n].cursor == *cursor) {
        start = n + 1;
        break;
      }
    }
  }
  std::vector<JournalEntry> found;
  for (size_t n = start; n < entries_.size() && found.size() < limit; ++n) {
    if (matchesAny(entries_[n], matches)) found.push_back(entries_[n]);
  }
  return found;
}

}  // namespace vl
