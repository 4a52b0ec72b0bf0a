#include "vorlund/foundation/regex.h"

#include <gtest/gtest.h>

namespace vl {
namespace {

std::vector<std::string> texts(const std::vector<RegexMatch>& matches) {
  std::vector<std::string> out;
  for (const RegexMatch& m : matches) out.push_back(m.text());
  return out;
}

TEST(RegexTest, InvalidPatternsGiveTheReasonAndCapturesWorkInCopies) {
  Error error;
  EXPECT_FALSE(Regex::compile("log-(\\d+", {}, &error));
  EXPECT_EQ(error.domain, kRegexErrorDomain);
  EXPECT_NE(error.localizedDescription().find("missing closing parenthesis"), std::string::npos)
      << error.localizedDescription();
  EXPECT_NE(error.localizedDescription().find("offset 8"), std::string::npos);
  EXPECT_EQ(Regex::compile("b+")->pattern(), "b+");
  EXPECT_FALSE(Regex::compile("\xff"));  // patterns are UTF-8 too

  std::optional<Regex> original =
      Regex::compile("(?<process>[A-Za-z]+)-(\\d{4})-(\\d{2})(-extra)?\\.ips");
  ASSERT_TRUE(original);
  const Regex regex = *original;
  original.reset();  // the copy shares the compiled pattern
  EXPECT_EQ(regex.captureCount(), 4u);
  std::optional<RegexMatch> m = regex.firstMatch("crash: bluetoothd-2024-05.ips found");
  ASSERT_TRUE(m);
  EXPECT_EQ(m->offset(), 7u);
  EXPECT_EQ(m->length(), 22u);
  EXPECT_EQ(m->group(3), "05");
  EXPECT_EQ(m->group(4), std::nullopt);  // optional group that did not take part
  EXPECT_EQ(m->named("process"), "bluetoothd");
  EXPECT_EQ(m->named("nothing"), std::nullopt);
  EXPECT_FALSE(regex.firstMatch("no crash here"));
}

TEST(RegexTest, WholeAnywhereAndOptions) {
  auto digits = Regex::compile("\\d+");
  EXPECT_TRUE(digits->matches("abc 123 def"));
  EXPECT_FALSE(digits->matchesWhole("abc 123 def"));
  EXPECT_EQ(digits->wholeMatch("123")->text(), "123");
  EXPECT_FALSE(digits->wholeMatch("123\n"));

  const std::tuple<const char*, RegexOptions, const char*, bool> cases[] = {
      {"wifi", {.caseless = true}, "WiFi", true},
      {"^b$", {.multiline = true}, "a\nb\nc", true},
      {"a.c", {}, "a\nc", false},
      {"a.c", {.dotall = true}, "a\nc", true},
      {"^é.$", {.caseless = true}, "Éü", true},  // UTF-8 aware
  };
  for (const auto& [pattern, options, subject, matches] : cases) {
    EXPECT_EQ(Regex::compile(pattern, options)->matches(subject), matches) << pattern;
  }

  // Empty matches and multibyte text.
  EXPECT_EQ(texts(Regex::compile("x*")->findAll("axb")),
            (std::vector<std::string>{"", "x", "", ""}));
  EXPECT_EQ(texts(Regex::compile("é+")->findAll("éé aé")), (std::vector<std::string>{"éé", "é"}));
  std::vector<RegexMatch> empties = Regex::compile("")->findAll("é!");
  ASSERT_EQ(empties.size(), 3u);
  EXPECT_EQ(empties[1].offset(), 2u);  // after the two bytes of é, never between them
  std::vector<RegexMatch> lines =
      Regex::compile("^(\\w+)=(\\w*)$", {.multiline = true})->findAll("a=1\nbad line\nb=\nc=3");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1].group(2), "");
  EXPECT_EQ(lines[2].group(2), "3");
  // Invalid UTF-8 in a subject never matches but does not stop the search.
  EXPECT_EQ(texts(Regex::compile("\\d")->findAll("1\xff\3762") /* "1", 0xff, 0xfe, "2" */),
            (std::vector<std::string>{"1", "2"}));
}

// Patterns from outside may backtrack without end; each use gives up at the match limit instead
// of holding its caller (the fuzzer's recorded pattern of nested empty alternatives included).
TEST(RegexTest, APatternThatBacktracksWithoutEndMatchesNothing) {
  const std::string subject = std::string(40, 'a') + "!";
  for (const char* pattern : {"(a+)+$", "(a|aa)+$", "((a*)*|b)+$"}) {
    std::optional<Regex> regex = Regex::compile(pattern);
    ASSERT_TRUE(regex) << pattern;
    EXPECT_FALSE(regex->matches(subject)) << pattern;
    EXPECT_FALSE(regex->wholeMatch(subject)) << pattern;
    EXPECT_TRUE(regex->findAll(subject).empty()) << pattern;
    Error error;
    EXPECT_FALSE(regex->replaceAll(subject, "x", &error)) << pattern;
  }
}

TEST(RegexTest, ReplaceAll) {
  auto date = Regex::compile("(?<d>\\d{2})/(\\d{2})");
  EXPECT_EQ(date->replaceAll("on 24/05 and 01/12", "$2-${d}"), "on 05-24 and 12-01");
  EXPECT_EQ(Regex::compile("a")->replaceAll("banana", "$$"), "b$n$n$");
  EXPECT_EQ(Regex::compile("(x)?a")->replaceAll("a", "[$1]"), "[]");  // unset group is empty
  // Results much longer than the subject.
  EXPECT_EQ(Regex::compile("a")->replaceAll("aaaa", std::string(100, 'z'))->size(), 400u);
  Error error;
  EXPECT_FALSE(date->replaceAll("24/05", "$9", &error));
  EXPECT_NE(error.localizedDescription().find("$9"), std::string::npos);
}

}  // namespace
}  // namespace vl
