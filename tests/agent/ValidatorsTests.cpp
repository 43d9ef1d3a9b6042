// What is taken for a validator, and when it is worth keeping.

#include <gtest/gtest.h>

#include "Validators.h"

namespace {

using AgentUtils::AnswerValidators;
using AgentUtils::Validators;

TEST(EntityTag, IsAQuotedTextThatMayBeWeak) {
  for (const char* const text : {R"("5f-61a")", R"(W/"5f-61a")", R"("x")", R"("!#~\,W/")"}) {
    EXPECT_TRUE(AgentUtils::isEntityTag(text)) << text;
  }
  EXPECT_TRUE(AgentUtils::isEntityTag('"' + std::string(254, 'x') + '"'));
}

TEST(EntityTag, IsNothingElse) {
  const std::string texts[] = {"",
                               R"(")",
                               R"("")",
                               R"(W/"")",
                               "abc",
                               R"("abc)",
                               R"(abc")",
                               R"(w/"abc")",
                               R"(W/abc)",
                               R"("a"b")",
                               R"("a", "b")",
                               R"("a b")",
                               "\"a\tb\"",
                               "\"a\r\nX: y\"",
                               "\"a\nb\"",
                               "\"a\x01\"",
                               "\"a\x7F\"",
                               "\"a\xC3\xA4\"",
                               R"( "abc")",
                               R"("abc" )",
                               "*",
                               '"' + std::string(255, 'x') + '"'};
  for (const std::string& text : texts) EXPECT_FALSE(AgentUtils::isEntityTag(text)) << text;
  EXPECT_FALSE(AgentUtils::isEntityTag(std::string("\"a\0b\"", 5)));
}

TEST(HTTPDate, IsCountedFrom1970) {
  EXPECT_EQ(AgentUtils::secondsOfHTTPDate("Thu, 01 Jan 1970 00:00:00 GMT"), 0);
  EXPECT_EQ(AgentUtils::secondsOfHTTPDate("Sun, 06 Nov 1994 08:49:37 GMT"), 784111777);
  EXPECT_EQ(AgentUtils::secondsOfHTTPDate("Thu, 29 Feb 2024 23:59:59 GMT"), 1709251199);
  EXPECT_EQ(AgentUtils::secondsOfHTTPDate("Wed, 31 Dec 1969 23:59:59 GMT"), -1);
}

TEST(HTTPDate, HasOneFormAlone) {
  for (const char* const text :
       {"", "Sunday, 06-Nov-94 08:49:37 GMT", "Sun Nov  6 08:49:37 1994",
        "Sun, 06 Nov 1994 08:49:37 UTC", "Sun, 06 Nov 1994 08:49:37 GMT ",
        "Sun, 06 Nov 1994 08:49:37", "Sun, 06 Nov 1994 08:49:37 GMT\r\nX: y",
        "Sun, 6 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 94 08:49:37 GMT",
        "Sun, 06 anF 1994 08:49:37 GMT", "Sun, 06 Nox 1994 08:49:37 GMT",
        "Fri, 29 Feb 2023 08:49:37 GMT", "Sun, 00 Nov 1994 08:49:37 GMT",
        "Sun, 06 Nov 1994 24:00:00 GMT", "Sun, 06 Nov 1994 08:60:00 GMT",
        "Sun, 06 Nov 1994 08:49:61 GMT", "S\xC3\xBC, 06 Nov 1994 08:49:37 GMT"}) {
    EXPECT_EQ(AgentUtils::secondsOfHTTPDate(text), std::nullopt) << text;
  }
}

TEST(Condition, PrefersTheTag) {
  EXPECT_EQ(AgentUtils::conditionalHeader({R"("a")", "Sun, 06 Nov 1994 08:49:37 GMT"}),
            R"(If-None-Match: "a")");
  EXPECT_EQ(AgentUtils::conditionalHeader({"", "Sun, 06 Nov 1994 08:49:37 GMT"}),
            "If-Modified-Since: Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(AgentUtils::conditionalHeader({}), "");
}

constexpr const char* kChanged = "Sun, 06 Nov 1994 08:00:00 GMT";

struct Case {
  const char* what;
  std::vector<std::pair<std::string, std::string>> headers;
  Validators lasting;
};

TEST(AnswerValidators, LastOnceTheFileHasSettled) {
  const std::string tag = R"("a")";
  const std::string minuteLater = "Sun, 06 Nov 1994 08:01:00 GMT";
  const Case cases[] = {
      {"nothing", {}, {}},
      {"a tag alone", {{"etag", tag}}, {tag, ""}},
      {"both",
       {{"etag", tag}, {"last-modified", kChanged}, {"date", minuteLater}},
       {tag, kChanged}},
      {"the date alone", {{"last-modified", kChanged}, {"date", minuteLater}}, {"", kChanged}},
      {"a second too young",
       {{"etag", tag}, {"last-modified", kChanged}, {"date", "Sun, 06 Nov 1994 08:00:59 GMT"}},
       {}},
      {"of the future",
       {{"etag", tag}, {"last-modified", kChanged}, {"date", "Sun, 06 Nov 1994 07:00:00 GMT"}},
       {}},
      {"no time to compare with", {{"etag", tag}, {"last-modified", kChanged}}, {}},
      {"a malformed time to compare with",
       {{"etag", tag}, {"last-modified", kChanged}, {"date", "now"}},
       {}},
      {"a malformed date", {{"etag", tag}, {"last-modified", "then"}, {"date", minuteLater}}, {}},
      {"a malformed tag",
       {{"etag", "a"}, {"last-modified", kChanged}, {"date", minuteLater}},
       {"", kChanged}},
      {"two tags", {{"etag", tag}, {"etag", tag}}, {}},
      {"two dates",
       {{"etag", tag},
        {"last-modified", kChanged},
        {"last-modified", kChanged},
        {"date", minuteLater}},
       {}},
      {"two times to compare with",
       {{"etag", tag}, {"last-modified", kChanged}, {"date", minuteLater}, {"date", minuteLater}},
       {}},
  };
  for (const Case& row : cases) {
    AnswerValidators validators;
    for (const auto& [name, value] : row.headers) validators.take(name, value);
    EXPECT_EQ(validators.lasting(), row.lasting) << row.what;
  }
}

}  // namespace
