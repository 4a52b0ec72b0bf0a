// Reading the system journal as entries of fields, resumable from a cursor. The crash collector
// reads crashes and kills through it; the sd-journal implementation reads the machine's journal,
// the recorded one reads `journalctl -o json` lines (a journal taken from another machine, tests).
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vorlund/foundation/error.h"

namespace vl {

struct JournalEntry {
  // Field name to value ("MESSAGE", "_PID", "COREDUMP_COMM", ...). A field the journal holds as
  // bytes keeps its bytes; of a field given several times only the first value is kept.
  std::map<std::string, std::string> fields;
  // Where the entry sits in its journal (__CURSOR); empty when the source gave none.
  std::string cursor;

  // The field's value, or empty when the entry lacks it.
  std::string field(std::string_view name) const;
  bool has(std::string_view name) const { return fields.count(std::string(name)) != 0; }
};

// "NAME=VALUE" pairs; an entry matches when it carries any one of them.
using JournalMatches = std::vector<std::pair<std::string, std::string>>;

class JournalSource {
 public:
  virtual ~JournalSource() = default;
  // Up to limit entries that come after cursor (from the oldest entry when none) and match any of
  // matches, oldest first. None, with error, when the journal cannot be read; a cursor the journal
  // no longer knows (rotated away) reads from the oldest entry still there.
  virtual std::optional<std::vector<JournalEntry>> entriesAfter(
      const std::optional<std::string>& cursor, const JournalMatches& matches, size_t limit,
      Error* error = nullptr) = 0;
};

// The local system journal, or the journal files in directory when given.
std::unique_ptr<JournalSource> makeSystemJournalSource(
    std::optional<std::string> directory = std::nullopt);

// One line of `journalctl -o json`. None, with a one-line reason in error, when the line is not a
// JSON object of fields. Byte-array values become their bytes, arrays of values their first value,
// null (a value journalctl left out for its size) drops the field.
std::optional<JournalEntry> parseJournalJsonLine(std::string_view line, std::string* error);

// Entries recorded as `journalctl -o json` lines. Lines that do not parse are left out and listed
// in badLines() as (1-based line number, reason). An entry without __CURSOR gets "line:N" so that
// reading can resume after it.
class RecordedJournalSource final : public JournalSource {
 public:
  explicit RecordedJournalSource(std::string_view jsonLines);
  // The file's lines; none when it cannot be read.
  static std::unique_ptr<RecordedJournalSource> fromFile(const std::string& path);

  std::optional<std::vector<JournalEntry>> entriesAfter(const std::optional<std::string>& cursor,
                                                        const JournalMatches& matches, size_t limit,
                                                        Error* error = nullptr) override;

  const std::vector<JournalEntry>& entries() const { return entries_; }
  const std::vector<std::pair<size_t, std::string>>& badLines() const { return badLines_; }
  // Adds one more line, as journald would append an entry. False when it does not parse.
  bool append(std::string_view line);

 private:
  std::vector<JournalEntry> entries_;
  std::vector<std::pair<size_t, std::string>> badLines_;
  size_t lineCount_ = 0;
};

}  // namespace vl
