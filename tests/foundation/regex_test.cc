#include "vorlund/foundation/regex.h"

#include <gtest/gtest.h>

namespace vl {
namespace {

std::vector<std::string> texts(const std::vector<RegexMatch>& matches) {
  std::vector<std::string> out;
  for (const RegexMatch& m : matches) out.push_back(m.text());
  return out;
}

TEST(RegexTest, InvalidPatternsGiveTheReasonAndOffset) {
  Error error;
  EXPECT_FALSE(Regex::compile("log-(\\d+", {}, &error));
  EXPECT_EQ(error.domain, kRegexErrorDomain);
  EXPECT_NE(error.localizedDescription().find("missing closing parenthesis"), std::string::npos)
      << error.localizedDescription();
  EXPECT_NE(error.localizedDescription().find("offset 8"), std::string::npos);
  EXPECT_FALSE(Regex::compile("a{2,1}"));
  EXPECT_FALSE(Regex::compile("\xff"));  // patterns are UTF-8 too
}

TEST(RegexTest, CapturesNumberedAndNamed) {
  auto regex = Regex::compile("(?<process>[A-Za-z]+)-(\\d{4})-(\\d{2})(-extra)?\\.ips");
  ASSERT_TRUE(regex);
  EXPECT_EQ(regex->captureCount(), 4u);
  EXPECT_EQ(regex->pattern(), "(?<process>[A-Za-z]+)-(\\d{4})-(\\d{2})(-extra)?\\.ips");
  std::optional<RegexMatch> m = regex->firstMatch("crash: bluetoothd-2024-05.ips found");
  ASSERT_TRUE(m);
  EXPECT_EQ(m->text(), "bluetoothd-2024-05.ips");
  EXPECT_EQ(m->offset(), 7u);
  EXPECT_EQ(m->length(), 22u);
  EXPECT_EQ(m->groupCount(), 5u);
  EXPECT_EQ(m->group(1), "bluetoothd");
  EXPECT_EQ(m->group(2), "2024");
  EXPECT_EQ(m->group(3), "05");
  EXPECT_EQ(m->group(4), std::nullopt);  // optional group that did not take part
  EXPECT_EQ(m->group(9), std::nullopt);
  EXPECT_EQ(m->named("process"), "bluetoothd");
  EXPECT_EQ(m->named("nothing"), std::nullopt);
  EXPECT_FALSE(regex->firstMatch("no crash here"));
}

TEST(RegexTest, WholeAndAnywhereMatching) {
  auto regex = Regex::compile("\\d+");
  ASSERT_TRUE(regex);
  EXPECT_TRUE(regex->matches("abc 123 def"));
  EXPECT_FALSE(regex->matchesWhole("abc 123 def"));
  EXPECT_TRUE(regex->matchesWhole("123"));
  EXPECT_EQ(regex->wholeMatch("123")->text(), "123");
  EXPECT_FALSE(regex->wholeMatch("123\n"));
  EXPECT_FALSE(regex->matches(""));
}

TEST(RegexTest, Options) {
  EXPECT_FALSE(Regex::compile("wifi")->matches("WiFi"));
  EXPECT_TRUE(Regex::compile("wifi", {.caseless = true})->matches("WiFi"));
  EXPECT_FALSE(Regex::compile("^b$")->matches("a\nb\nc"));
  EXPECT_TRUE(Regex::compile("^b$", {.multiline = true})->matches("a\nb\nc"));
  EXPECT_FALSE(Regex::compile("a.c")->matches("a\nc"));
  EXPECT_TRUE(Regex::compile("a.c", {.dotall = true})->matches("a\nc"));
  EXPECT_TRUE(Regex::compile("^é.$", {.caseless = true})->matches("Éü"));  // UTF-8 aware
}

TEST(RegexTest, FindAllHandlesEmptyMatchesAndMultibyteText) {
  EXPECT_EQ(texts(Regex::compile("x*")->findAll("axb")),
            (std::vector<std::string>{"", "x", "", ""}));
  EXPECT_EQ(texts(Regex::compile("é+")->findAll("éé aé")), (std::vector<std::string>{"éé", "é"}));
  std::vector<RegexMatch> empties = Regex::compile("")->findAll("é!");
  ASSERT_EQ(empties.size(), 3u);
  EXPECT_EQ(empties[1].offset(), 2u);  // after the two bytes of é, never between them
  std::vector<RegexMatch> lines =
      Regex::compile("^(\\w+)=(\\w*)$", {.multiline = true})->findAll("a=1\nbad line\nb=\nc=3");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1].group(1), "b");
  EXPECT_EQ(lines[1].group(2), "");
  EXPECT_EQ(lines[2].group(2), "3");
  // Invalid UTF-8 in a subject never matches but does not stop the search.
  EXPECT_EQ(texts(Regex::compile("\\d")->findAll("1\xff\3762") /* "1", 0xff, 0xfe, "2" */),
            (std::vector<std::string>{"1", "2"}));
}

TEST(RegexTest, ReplaceAll) {
  auto date = Regex::compile("(?<d>\\d{2})/(\\d{2})");
  ASSERT_TRUE(date);
  EXPECT_EQ(date->replaceAll("on 24/05 and 01/12", "$2-${d}"), "on 05-24 and 12-01");
  EXPECT_EQ(date->replaceAll("no dates", "x"), "no dates");
  EXPECT_EQ(Regex::compile("a")->replaceAll("banana", "$$"), "b$n$n$");
  EXPECT_EQ(Regex::compile("(x)?a")->replaceAll("a", "[$1]"), "[]");  // unset group is empty
  // Results much longer than the subject.
  EXPECT_EQ(Regex::compile("a")->replaceAll("aaaa", std::string(100, 'z'))->size(), 400u);
  Error error;
  EXPECT_FALSE(date->replaceAll("24/05", "$9", &error));
  EXPECT_EQ(error.domain, kRegexErrorDomain);
  EXPECT_NE(error.localizedDescription().find("$9"), std::string::npos);
}

TEST(RegexTest, CopiesShareTheCompiledPattern) {
  std::optional<Regex> original = Regex::compile("b+");
  ASSERT_TRUE(original);
  Regex copy = *original;
  original.reset();
  EXPECT_EQ(copy.firstMatch("abbbc")->text(), "bbb");
}

}  // namespace
}  // namespace vl
