// The argument list that an argument text splits into.

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "ScriptRules.h"

namespace {

using Texts = std::vector<std::string>;

struct Row {
  std::string text;
  Texts arguments;
};

void expectRows(std::initializer_list<Row> rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE("<" + row.text + ">");
    EXPECT_EQ(VarnScriptRepository::splitWithQuotes(row.text), row.arguments);
  }
}

TEST(SplitWithQuotes, OfNothingButBlanksIsEmpty) {
  expectRows({{"", {}}, {" ", {}}, {" \t\r\n\v\f ", {}}, {"\u00a0\u2003\u3000", {}}});
}

TEST(SplitWithQuotes, SeparatesAtWhiteSpace) {
  expectRows({{"a", {"a"}},
              {"a b", {"a", "b"}},
              {"  a   b  ", {"a", "b"}},
              {"a\tb\nc\rd\ve\ff", {"a", "b", "c", "d", "e", "f"}},
              {"a\r\nb", {"a", "b"}},
              {"a\u00a0b\u2028c\u3000d\u0085e\u1680f", {"a", "b", "c", "d", "e", "f"}}});
}

TEST(SplitWithQuotes, DoesNotSeparateAtWhatOnlyLooksBlank) {
  expectRows({{"a\u200bb", {"a\u200bb"}},
              {"a\ufeffb", {"a\ufeffb"}},
              {"a\u2060b", {"a\u2060b"}},
              {std::string("a\0b", 3), {std::string("a\0b", 3)}},
              {"a\u001fb", {"a\u001fb"}}});
}

TEST(SplitWithQuotes, KeepsBlanksBetweenQuotes) {
  expectRows({{R"(-a "two words" -b)", {"-a", "two words", "-b"}},
              {R"("  a  ")", {"  a  "}},
              {"\"a\r\nb\"", {"a\r\nb"}},
              {"\" \"", {" "}}});
}

TEST(SplitWithQuotes, TakesAnEmptyPairForAnEmptyArgument) {
  expectRows({{R"("")", {""}},
              {R"("" "")", {"", ""}},
              {R"("""")", {"", ""}},
              {R"(a "" b)", {"a", "", "b"}}});
}

TEST(SplitWithQuotes, OpensANewTokenRightAfterAClosingQuote) {
  expectRows({{R"("ab"cd)", {"ab", "cd"}},
              {R"("ab""cd")", {"ab", "cd"}},
              {R"("ab"cd"ef")", {"ab", "cd\"ef\""}}});
}

TEST(SplitWithQuotes, KeepsQuotesInsideAPlainToken) {
  expectRows({{R"(a"b)", {R"(a"b)"}},
              {R"(a"b c"d)", {R"(a"b)", R"(c"d)"}},
              {R"(--name="two words")", {R"(--name="two)", R"(words")"}},
              {R"(x")", {R"(x")"}}});
}

TEST(SplitWithQuotes, TakesAnUnclosedQuoteToTheEnd) {
  expectRows({{R"(say "hello)", {"say", "hello"}},
              {R"(say "hello  )", {"say", "hello  "}},
              {R"(x ")", {"x", ""}},
              {R"(")", {""}},
              {R"("" ")", {"", ""}}});
}

TEST(SplitWithQuotes, KnowsNoEscapeAndNoSingleQuote) {
  expectRows({{R"("a\" b)", {"a\\", "b"}},
              {R"(a\ b)", {"a\\", "b"}},
              {"'a b'", {"'a", "b'"}},
              {"\u201ca b\u201d", {"\u201ca", "b\u201d"}}});
}

TEST(SplitWithQuotes, TakesAQuoteWithACombiningMarkForAnOrdinaryCharacter) {
  expectRows({{"\"\u0301a b", {"\"\u0301a", "b"}},
              {"\"a\"\u0301 b\" c", {"a\"\u0301 b", "c"}},
              {"\"\u200d", {"\"\u200d"}},
              {"\"\ufe0f a", {"\"\ufe0f", "a"}}});
}

TEST(SplitWithQuotes, TakesABlankWithACombiningMarkForWhiteSpace) {
  expectRows({{"a \u0301b", {"a", "b"}}, {" \u0301", {}}, {"\"a \u0301b\"", {"a \u0301b"}}});
}

TEST(SplitWithQuotes, KeepsCharactersOfSeveralCodePointsWhole) {
  expectRows({{"e\u0301 o\u0308", {"e\u0301", "o\u0308"}},
              {"\U0001F468\u200d\U0001F469\u200d\U0001F467 \U0001F1E9\U0001F1EA",
               {"\U0001F468\u200d\U0001F469\u200d\U0001F467", "\U0001F1E9\U0001F1EA"}}});
}

TEST(SplitWithQuotes, HandsBytesThatAreNoUTF8OnAsTheyStand) {
  expectRows({{"a\xff b", {"a\xff", "b"}},
              {"\xc3 \x80", {"\xc3", "\x80"}},
              {"\"\xf0\x9f\" x", {"\xf0\x9f", "x"}}});
}

}  // namespace
