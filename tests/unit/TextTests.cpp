// Text by user-perceived characters.

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "support/Text.h"

namespace {

namespace text = VarnScriptRepository::text;
using Texts = std::vector<std::string>;

TEST(TextEquality, CountsEverythingButTheSpellingOfACharacter) {
  struct Row {
    std::string a;
    std::string b;
    bool equal;
  };
  for (const Row& row : {
           Row{"", "", true},
           Row{"a", "a", true},
           Row{"a", "A", false},
           Row{"2", "02", false},
           Row{"a", "a ", false},
           Row{"", " ", false},
           Row{"a", "", false},
           Row{"\u00e9", "e\u0301", true},
           Row{"\u00e9", "e", false},
           Row{"\u00c9", "\u00e9", false},
           Row{"\u212b", "\u00c5", true},
           Row{"\u1e69", "s\u0323\u0307", true},
           Row{"s\u0307\u0323", "s\u0323\u0307", true},
           Row{"\uac00", "\u1100\u1161", true},
           // Compatibility is not equivalence.
           Row{"\ufb01", "fi", false},
           Row{"\uff11", "1", false},
           Row{"\u00b2", "2", false},
           // What is ignored elsewhere counts here.
           Row{"a\u200d", "a", false},
           Row{"a\u00ad", "a", false},
           Row{"\ufeff", "", false},
           Row{std::string("a\0b", 3), std::string("a\0c", 3), false},
           Row{std::string("a\0b", 3), std::string("a\0b", 3), true},
           Row{std::string("\u00e9\0b", 4), std::string("e\u0301\0b", 5), true},
           Row{"\xff", "\xff", true},
           Row{"\xff", "\xfe", false},
           Row{"\xff\u00e9", "e", false},
       }) {
    SCOPED_TRACE(row.a + " and " + row.b);
    EXPECT_EQ(text::equal(row.a, row.b), row.equal);
    EXPECT_EQ(text::equal(row.b, row.a), row.equal);
    EXPECT_EQ(text::equalityKey(row.a) == text::equalityKey(row.b), row.equal);
  }
}

Texts characters(std::string_view whole) {
  Texts list;
  text::Characters walk(whole);
  while (const auto character = walk.next()) list.emplace_back(*character);
  return list;
}

TEST(TextEquality, KnowsCharactersThatAreASCIIInAnotherSpelling) {
  // The Kelvin sign and the Greek question mark are canonically a letter and a semicolon.
  EXPECT_TRUE(text::equal("K", "\u212a"));
  EXPECT_TRUE(text::equal("\u037e", ";"));
  EXPECT_FALSE(text::equal("k", "\u212a"));
  EXPECT_EQ(text::equalityKey("\u212a"), text::equalityKey("K"));
}

TEST(TextCharacters, AreUserPerceived) {
  EXPECT_EQ(characters(""), Texts{});
  EXPECT_EQ(characters("ab"), (Texts{"a", "b"}));
  EXPECT_EQ(characters("a\r\nb\n\r"), (Texts{"a", "\r\n", "b", "\n", "\r"}));
  EXPECT_EQ(characters("\u00e9\r\n"), (Texts{"\u00e9", "\r\n"}));
  EXPECT_EQ(characters("e\u0301\u0323x"), (Texts{"e\u0301\u0323", "x"}));
  EXPECT_EQ(characters("\"\u0301\""), (Texts{"\"\u0301", "\""}));
  EXPECT_EQ(characters("\U0001F1E9\U0001F1EA\U0001F1EB\U0001F1F7"),
            (Texts{"\U0001F1E9\U0001F1EA", "\U0001F1EB\U0001F1F7"}));
  EXPECT_EQ(characters("\U0001F468\u200d\U0001F469"), (Texts{"\U0001F468\u200d\U0001F469"}));
  EXPECT_EQ(characters("\u1100\u1161\u11a8"), (Texts{"\u1100\u1161\u11a8"}));
  EXPECT_EQ(characters("\xff\u00e9\xc3z"), (Texts{"\xff", "\u00e9", "\xc3", "z"}));
  // The first of these goes together with whatever character follows it.
  EXPECT_EQ(characters("\u0600a\u0600\xff"), (Texts{"\u0600a", "\u0600", "\xff"}));
}

TEST(TextWhitespace, IsTheUnicodeProperty) {
  for (const char* const blank :
       {" ", "\t", "\n", "\v", "\f", "\r", "\r\n", "\u0085", "\u00a0", "\u1680", "\u2000", "\u200a",
        "\u2028", "\u2029", "\u202f", "\u205f", "\u3000", " \u0301"}) {
    SCOPED_TRACE(testing::PrintToString(std::string(blank)));
    EXPECT_TRUE(text::isWhitespace(blank));
  }
  for (const char* const other :
       {"a", "0", "\"", "\b", "\x1c", "\x1f", "\x7f", "\u180e", "\u200b", "\u200d", "\u2060",
        "\ufeff", "e\u0301", "\xff", "\x85", "\xa0"}) {
    SCOPED_TRACE(testing::PrintToString(std::string(other)));
    EXPECT_FALSE(text::isWhitespace(other));
  }
  EXPECT_FALSE(text::isWhitespace(std::string_view("\0", 1)));
  EXPECT_FALSE(text::isWhitespace(""));
}

TEST(TextTrimming, TakesWhiteSpaceOffBothEndsAlone) {
  EXPECT_EQ(text::trimmed(""), "");
  EXPECT_EQ(text::trimmed(" \r\n\u3000"), "");
  EXPECT_EQ(text::trimmed("a"), "a");
  EXPECT_EQ(text::trimmed(" \ta b\r\n"), "a b");
  EXPECT_EQ(text::trimmed("\u00a0\u00e9 \u0301"), "\u00e9");
}

TEST(TextExtension, FollowsTheLastDotOfTheLastComponent) {
  struct Row {
    const char* path;
    const char* extension;
  };
  for (const Row& row :
       {Row{"", ""}, Row{"a", ""}, Row{"a.", ""}, Row{"a.b", "b"}, Row{"a.b.c", "c"},
        Row{".b", "b"}, Row{"a.b/c", ""}, Row{"a/b.c/", "c"}, Row{"a.b//", "b"}, Row{"/", ""},
        Row{"//", ""}, Row{".", ""}, Row{"a. b ", " b "}}) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(text::pathExtension(row.path), row.extension);
  }
}

TEST(TextPieces, AreNeverNone) {
  EXPECT_EQ(text::pieces("", ','), Texts{""});
  EXPECT_EQ(text::pieces("0", ','), Texts{"0"});
  EXPECT_EQ(text::pieces("0,", ','), (Texts{"0", ""}));
  EXPECT_EQ(text::pieces(",", ','), (Texts{"", ""}));
  EXPECT_EQ(text::pieces(" 0 ,,1", ','), (Texts{" 0 ", "", "1"}));
}

TEST(TextReplacing, IsOnePassFromLeftToRight) {
  EXPECT_EQ(text::replacingAll("", "a", "b"), "");
  EXPECT_EQ(text::replacingAll("xax", "a", "b"), "xbx");
  EXPECT_EQ(text::replacingAll("aaa", "aa", "b"), "ba");
  EXPECT_EQ(text::replacingAll("aabb", "ab", ""), "ab");
  EXPECT_EQ(text::replacingAll("a\\b\\", "\\", "/"), "a/b/");
}

TEST(TextOfAList, QuotesAndEscapesItsElements) {
  EXPECT_EQ(text::listText({}), "[]");
  EXPECT_EQ(text::listText({""}), R"([""])");
  EXPECT_EQ(text::listText({"a"}), R"(["a"])");
  EXPECT_EQ(text::listText({"a", "b c"}), R"(["a", "b c"])");
  EXPECT_EQ(text::listText({R"(say "hi")", R"(\)"}), R"(["say \"hi\"", "\\"])");
  EXPECT_EQ(text::listText({"a\nb", "\u00e9"}), "[\"a\nb\", \"\u00e9\"]");
}

}  // namespace
