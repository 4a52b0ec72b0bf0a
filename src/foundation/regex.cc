// PCRE2 (8-bit code units, UTF mode) behind vl::Regex. The compiled code is shared between copies
// and never changed after compilation; each match makes its own match data, so one Regex serves
// several threads.
#include "vorlund/foundation/regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <memory>

namespace vl {

struct Regex::Code {
  std::string pattern;
  pcre2_code* code = nullptr;
  size_t captureCount = 0;
  std::vector<std::pair<std::string, size_t>> names;

  ~Code() { pcre2_code_free(code); }
};

namespace {

struct MatchDataDeleter {
  void operator()(pcre2_match_data* d) const { pcre2_match_data_free(d); }
};
using MatchData = std::unique_ptr<pcre2_match_data, MatchDataDeleter>;

std::string errorText(int code) {
  PCRE2_UCHAR buffer[256];
  const int n = pcre2_get_error_message(code, buffer, sizeof buffer);
  if (n < 0) return "error " + std::to_string(code);
  return std::string(reinterpret_cast<const char*>(buffer), static_cast<size_t>(n));
}

const std::string kEmpty;

}  // namespace

std::optional<std::string> RegexMatch::group(size_t i) const {
  if (i >= groups_.size() || !groups_[i]) return std::nullopt;
  return groups_[i]->text;
}

std::optional<std::string> RegexMatch::named(std::string_view name) const {
  // Duplicate names are allowed with (?J); the first group of that name that matched wins.
  for (const auto& [n, index] : names_) {
    if (n == name && index < groups_.size() && groups_[index]) return groups_[index]->text;
  }
  return std::nullopt;
}

const std::string& RegexMatch::text() const {
  return groups_.empty() || !groups_[0] ? kEmpty : groups_[0]->text;
}

std::optional<Regex> Regex::compile(std::string_view pattern, RegexOptions options, Error* error) {
  uint32_t flags = PCRE2_UTF | PCRE2_MATCH_INVALID_UTF;
  if (options.caseless) flags |= PCRE2_CASELESS;
  if (options.multiline) flags |= PCRE2_MULTILINE;
  if (options.dotall) flags |= PCRE2_DOTALL;
  int errorCode = 0;
  PCRE2_SIZE errorOffset = 0;
  pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                                   flags, &errorCode, &errorOffset, nullptr);
  if (!code) {
    setError(error, Error::withDescription(kRegexErrorDomain, errorCode,
                                           "Invalid regular expression \"" + std::string(pattern) +
                                               "\": " + errorText(errorCode) + " at offset " +
                                               std::to_string(errorOffset)));
    return std::nullopt;
  }
  auto compiled = std::make_shared<Code>();
  compiled->code = code;
  compiled->pattern = std::string(pattern);
  // No JIT: JIT-compiled code does not honour the match limit for every pattern (nested empty
  // alternatives ran for minutes), and patterns come from outside. The interpreter stops at it.

  uint32_t captures = 0;
  pcre2_pattern_info(code, PCRE2_INFO_CAPTURECOUNT, &captures);
  compiled->captureCount = captures;
  uint32_t nameCount = 0;
  uint32_t entrySize = 0;
  PCRE2_SPTR table = nullptr;
  pcre2_pattern_info(code, PCRE2_INFO_NAMECOUNT, &nameCount);
  pcre2_pattern_info(code, PCRE2_INFO_NAMEENTRYSIZE, &entrySize);
  pcre2_pattern_info(code, PCRE2_INFO_NAMETABLE, &table);
  for (uint32_t i = 0; i < nameCount && table; ++i) {
    PCRE2_SPTR entry = table + static_cast<size_t>(i) * entrySize;
    const size_t number = (static_cast<size_t>(entry[0]) << 8) | entry[1];
    compiled->names.emplace_back(reinterpret_cast<const char*>(entry + 2), number);
  }
  return Regex(std::move(compiled));
}

const std::string& Regex::pattern() const { return code_->pattern; }

size_t Regex::captureCount() const { return code_->captureCount; }

namespace {

// Patterns come from outside (a process name put into a line pattern, a preference), and some
// backtrack without end: nested empty alternatives take exponential time on a long subject. Every
// match is therefore bounded; one that reaches the bound is no match. Real patterns of the system
// stay far below it.
constexpr uint32_t kMatchLimit = 1'000'000;

pcre2_match_context* boundedMatchContext() {
  static pcre2_match_context* context = [] {
    pcre2_match_context* made = pcre2_match_context_create(nullptr);
    if (made) pcre2_set_match_limit(made, kMatchLimit);
    return made;
  }();
  return context;
}

}  // namespace

std::optional<RegexMatch> Regex::matchAt(std::string_view subject, size_t start,
                                         uint32_t options) const {
  MatchData data(pcre2_match_data_create_from_pattern(code_->code, nullptr));
  if (!data) return std::nullopt;
  const int rc = pcre2_match(code_->code, reinterpret_cast<PCRE2_SPTR>(subject.data()),
                             subject.size(), start, options, data.get(), boundedMatchContext());
  if (rc < 0) return std::nullopt;
  const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(data.get());
  const uint32_t pairs = pcre2_get_ovector_count(data.get());
  RegexMatch match;
  match.groups_.resize(code_->captureCount + 1);
  for (uint32_t i = 0; i < pairs && i <= code_->captureCount; ++i) {
    const PCRE2_SIZE begin = ovector[2 * i];
    const PCRE2_SIZE end = ovector[2 * i + 1];
    if (begin == PCRE2_UNSET || end < begin || end > subject.size()) continue;
    match.groups_[i] = RegexMatch::Group{begin, std::string(subject.substr(begin, end - begin))};
  }
  if (!match.groups_[0]) return std::nullopt;
  match.names_ = code_->names;
  return match;
}

bool Regex::matches(std::string_view subject) const { return firstMatch(subject).has_value(); }

bool Regex::matchesWhole(std::string_view subject) const { return wholeMatch(subject).has_value(); }

std::optional<RegexMatch> Regex::firstMatch(std::string_view subject) const {
  return matchAt(subject, 0, 0);
}

std::optional<RegexMatch> Regex::wholeMatch(std::string_view subject) const {
  return matchAt(subject, 0, PCRE2_ANCHORED | PCRE2_ENDANCHORED);
}

std::vector<RegexMatch> Regex::findAll(std::string_view subject) const {
  std::vector<RegexMatch> matches;
  size_t start = 0;
  uint32_t options = 0;
  while (start <= subject.size()) {
    std::optional<RegexMatch> match = matchAt(subject, start, options);
    if (!match) {
      if (options == 0) break;
      // The empty match at start could not be followed by a non-empty one there: step over one
      // character (all the bytes of a UTF-8 sequence) and search on.
      if (start >= subject.size()) break;
      ++start;
      while (start < subject.size() && (static_cast<uint8_t>(subject[start]) & 0xC0) == 0x80) {
        ++start;
      }
      options = 0;
      continue;
    }
    const size_t end = match->offset() + match->length();
    const bool empty = match->length() == 0;
    matches.push_back(std::move(*match));
    start = end;
    options = empty ? (PCRE2_NOTEMPTY_ATSTART | PCRE2_ANCHORED) : 0;
  }
  return matches;
}

std::optional<std::string> Regex::replaceAll(std::string_view subject, std::string_view replacement,
                                             Error* error) const {
  const uint32_t options =
      PCRE2_SUBSTITUTE_GLOBAL | PCRE2_SUBSTITUTE_OVERFLOW_LENGTH | PCRE2_SUBSTITUTE_UNSET_EMPTY;
  std::string out(subject.size() + replacement.size() + 64, '\0');
  for (int attempt = 0; attempt < 2; ++attempt) {
    PCRE2_SIZE length = out.size();
    const int rc = pcre2_substitute(
        code_->code, reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(), 0, options,
        nullptr, boundedMatchContext(), reinterpret_cast<PCRE2_SPTR>(replacement.data()),
        replacement.size(), reinterpret_cast<PCRE2_UCHAR*>(out.data()), &length);
    if (rc >= 0) {
      out.resize(length);
      return out;
    }
    if (rc == PCRE2_ERROR_NOMEMORY && attempt == 0) {
      // length now holds the size needed, including the terminating zero.
      out.assign(length, '\0');
      continue;
    }
    setError(error,
             Error::withDescription(kRegexErrorDomain, rc,
                                    "Invalid replacement \"" + std::string(replacement) +
                                        "\" for \"" + code_->pattern + "\": " + errorText(rc)));
    return std::nullopt;
  }
  setError(error, Error::withDescription(kRegexErrorDomain, PCRE2_ERROR_NOMEMORY,
                                         "The replacement result did not fit."));
  return std::nullopt;
}

}  // namespace vl
