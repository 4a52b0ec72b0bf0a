// The journal source over sd-journal: the machine's journal, or the files of one directory.
#include <systemd/sd-journal.h>

#include <cstring>

#include "vorlund/devicetools/journal_source.h"

namespace vl {

namespace {

struct JournalCloser {
  void operator()(sd_journal* j) const { sd_journal_close(j); }
};
using ScopedJournal = std::unique_ptr<sd_journal, JournalCloser>;

Error journalError(const char* what, int negativeErrno) {
  return Error::withDescription("com.brindle.Vorlund", -negativeErrno,
                                std::string(what) + ": " + std::strerror(-negativeErrno));
}

JournalEntry readEntry(sd_journal* j) {
  JournalEntry entry;
  const void* data = nullptr;
  size_t length = 0;
  SD_JOURNAL_FOREACH_DATA(j, data, length) {
    std::string_view pair(static_cast<const char*>(data), length);
    size_t equals = pair.find('=');
    if (equals == std::string_view::npos) continue;
    entry.fields.emplace(std::string(pair.substr(0, equals)), std::string(pair.substr(equals + 1)));
  }
  uint64_t usec = 0;
  if (sd_journal_get_realtime_usec(j, &usec) >= 0) {
    entry.fields.emplace("__REALTIME_TIMESTAMP", std::to_string(usec));
  }
  char* cursor = nullptr;
  if (sd_journal_get_cursor(j, &cursor) >= 0) {
    entry.cursor = cursor;
    free(cursor);
  }
  return entry;
}

class SystemJournalSource final : public JournalSource {
 public:
  explicit SystemJournalSource(std::optional<std::string> directory)
      : directory_(std::move(directory)) {}

  std::optional<std::vector<JournalEntry>> entriesAfter(const std::optional<std::string>& cursor,
                                                        const JournalMatches& matches, size_t limit,
                                                        Error* error) override {
    sd_journal* raw = nullptr;
    int r = directory_ ? sd_journal_open_directory(&raw, directory_->c_str(), 0)
                       : sd_journal_open(&raw, SD_JOURNAL_LOCAL_ONLY);
    if (r < 0) {
      setError(error, journalError("cannot open the journal", r));
      return std::nullopt;
    }
    ScopedJournal journal(raw);
    // Matches on one field are alternatives already; the disjunction makes the others so too.
    for (const auto& [name, value] : matches) {
      std::string match = name + "=" + value;
      sd_journal_add_match(raw, match.data(), match.size());
      sd_journal_add_disjunction(raw);
    }
    bool skipCursorEntry = false;
    if (cursor && sd_journal_seek_cursor(raw, cursor->c_str()) >= 0) {
      skipCursorEntry = true;
    } else {
      sd_journal_seek_head(raw);
    }
    std::vector<JournalEntry> entries;
    while (entries.size() < limit && (r = sd_journal_next(raw)) > 0) {
      // Seeking to a cursor lands on its entry when it is still there; that one was read before.
      if (skipCursorEntry) {
        skipCursorEntry = false;
        if (sd_journal_test_cursor(raw, cursor->c_str()) > 0) continue;
      }
      entries.push_back(readEntry(raw));
    }
    if (r < 0) {
      setError(error, journalError("cannot read the journal", r));
      return std::nullopt;
    }
    return entries;
  }

 private:
  std::optional<std::string> directory_;
};

}  // namespace

std::unique_ptr<JournalSource> makeSystemJournalSource(std::optional<std::string> directory) {
  return std::make_unique<SystemJournalSource>(std::move(directory));
}

}  // namespace vl
