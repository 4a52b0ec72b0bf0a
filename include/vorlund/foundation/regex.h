// Regular expressions (PCRE2, UTF-8 mode), for the tools that pick files and lines by pattern.
// A compiled Regex is immutable and may be used from several threads at once; copies share the
// compiled code. Subjects need not be valid UTF-8: invalid sequences simply never match. Every
// match is bounded (PCRE2's match limit, one million steps): a pattern that backtracks without end
// on a subject, such as "(a+)+$" on a long run of a's followed by another letter, does not match
// it rather than holding the caller for ever (replaceAll then fails with PCRE2's error).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vorlund/foundation/error.h"

namespace vl {

// The error domain of pattern and replacement errors; the code is PCRE2's error number.
inline constexpr const char* kRegexErrorDomain = "VLRegexErrorDomain";

struct RegexOptions {
  bool caseless = false;   // letters match either case
  bool multiline = false;  // ^ and $ match at every line start and end
  bool dotall = false;     // . matches newlines too
};

// One match: group 0 is the whole match, then the numbered groups. A group that did not take part
// in the match is none.
class RegexMatch {
 public:
  struct Group {
    size_t offset = 0;  // byte offset in the subject
    std::string text;
  };

  size_t groupCount() const { return groups_.size(); }
  // The text of group i, or none when it did not match or does not exist.
  std::optional<std::string> group(size_t i) const;
  // The text of a named group, or none when it did not match or there is no such name.
  std::optional<std::string> named(std::string_view name) const;
  // Byte offset and length of the whole match in the subject.
  size_t offset() const { return groups_.empty() || !groups_[0] ? 0 : groups_[0]->offset; }
  size_t length() const { return groups_.empty() || !groups_[0] ? 0 : groups_[0]->text.size(); }
  // The whole match.
  const std::string& text() const;

 private:
  friend class Regex;
  std::vector<std::optional<Group>> groups_;
  std::vector<std::pair<std::string, size_t>> names_;  // name -> group number
};

class Regex {
 public:
  // Compiles a pattern (for the interpreter, which honours the match limit). None, with error (the
  // PCRE2 message and the offset of the fault), when the pattern is invalid.
  static std::optional<Regex> compile(std::string_view pattern, RegexOptions options = {},
                                      Error* error = nullptr);

  const std::string& pattern() const;
  // Number of capturing groups in the pattern.
  size_t captureCount() const;

  // Whether the pattern matches anywhere in the subject.
  bool matches(std::string_view subject) const;
  // Whether the pattern matches the whole subject.
  bool matchesWhole(std::string_view subject) const;
  // The first match anywhere in the subject, or none.
  std::optional<RegexMatch> firstMatch(std::string_view subject) const;
  // The match of the whole subject, or none.
  std::optional<RegexMatch> wholeMatch(std::string_view subject) const;
  // Every non-overlapping match, left to right. An empty match advances by one character.
  std::vector<RegexMatch> findAll(std::string_view subject) const;
  // The subject with every match replaced. In the replacement "$1" or "${1}" is a numbered group,
  // "${name}" a named group and "$$" a dollar sign. None, with error, when the replacement refers
  // to a group that does not exist or is malformed.
  std::optional<std::string> replaceAll(std::string_view subject, std::string_view replacement,
                                        Error* error = nullptr) const;

 private:
  struct Code;
  explicit Regex(std::shared_ptr<const Code> code) : code_(std::move(code)) {}
  std::optional<RegexMatch> matchAt(std::string_view subject, size_t start, uint32_t options) const;

  std::shared_ptr<const Code> code_;
};

}  // namespace vl
