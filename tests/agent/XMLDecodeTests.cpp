// Decoding of well-formed documents.

#include <gtest/gtest.h>

#include "support/SmallRecords.h"

using MarkupParser::CharacterSet;
using MarkupParser::XML;

namespace {

using namespace std::string_literals;
using Items = std::vector<Item>;

TEST(XMLDecode, ReadsATextFromElementOrAttributeWithTheElementFirst) {
  EXPECT_EQ(decodedItems("<box><item id='a'/></box>"), (Items{{"a", {}, {}}}));
  EXPECT_EQ(decodedItems("<box><item id='a'><id>e</id></item></box>"), (Items{{"e", {}, {}}}));
  EXPECT_EQ(decodedItems("<box><item id='a'><id/></item></box>"), (Items{{"", {}, {}}}));
  EXPECT_EQ(decodedItems("<box><item note='a' id='b'><note>e</note></item></box>"),
            (Items{{"b", "e", {}}}));
}

TEST(XMLDecode, JoinsAllPiecesOfATextAndTrimsNothing) {
  const struct {
    const char* content;
    const char* id;
  } rows[] = {
      {"<id>plain</id>", "plain"},
      {"<id></id>", ""},
      {"<id/>", ""},
      {"<id>   </id>", "   "},
      {"<id>\n a \t</id>", "\n a \t"},
      {"<id>a<![CDATA[<b>&amp;]]>c</id>", "a<b>&amp;c"},
      {"<id><![CDATA[]]></id>", ""},
      {"<id>a<!-- not this -->b<?nor this?>c</id>", "abc"},
      {"<id>&lt;&gt;&amp;&apos;&quot;</id>", "<>&'\""},
      {"<id>&#65;&#x42;&#x1F600;</id>", "AB\xF0\x9F\x98\x80"},
      {"<id>a\r\nb\rc</id>", "a\nb\nc"},
      {"<id>a&#13;b</id>", "a\rb"},
      {"<id unknown='x'>a</id>", "a"},
  };
  for (const auto& row : rows) EXPECT_EQ(decodedID(row.content), row.id) << row.content;
}

TEST(XMLDecode, ATextWithChildElementsDoesNotDecode) {
  EXPECT_EQ(decodedID("<id>a<b/></id>"), "(absent)");
  EXPECT_EQ(decodedItems("<box><item id='a'><id><b/></id></item></box>"), std::nullopt);
  EXPECT_EQ(decodedItems("<box><item id='a'><note><b/></note></item></box>"), std::nullopt);
}

TEST(XMLDecode, AnAttributeOfAListsNameIsNoList) {
  EXPECT_EQ(decodedItems("<box item='x'><item id='1' part='y'/></box>"), (Items{{"1", {}, {}}}));
}

TEST(XMLDecode, SkipsTextBetweenElementsAndAttributesThatNoFieldNames) {
  EXPECT_EQ(decodedItems("<box>text<item x='1'>more<id>yes</id></item></box>"),
            (Items{{"yes", {}, {}}}));
}

TEST(XMLDecode, TrimmingTakesTheGivenCharactersOffBothEndsOnly) {
  const CharacterSet set{U" \n\u00E9\U0001F600"};
  const std::string document =
      "<box><item note=' \xC3\xA9 a b \xF0\x9F\x98\x80'><id> \n\xC3\xA8 \xC3\xA9</id></item></box>";
  EXPECT_EQ(decodedItems(document, set), (Items{{"\xC3\xA8", "a b", {}}}));
  EXPECT_EQ(decodedItems("<box><item id=' &#10; '/></box>", set), (Items{{"", {}, {}}}));
  EXPECT_EQ(decodedItems("<box><item id=' a '/></box>", CharacterSet{U""}),
            (Items{{" a ", {}, {}}}));
}

TEST(XMLDecode, PrefixesCountUnlessNamespacesAreIgnored) {
  const std::string document =
      "<p:box xmlns:p='u' xmlns:note='v'><q:item q:id='1' xmlns:q='w' xmlns:note='v'>"
      "<r:note xmlns:r='x'>n</r:note></q:item></p:box>";
  EXPECT_EQ(decodedItems(document), std::nullopt);
  EXPECT_EQ(decodedItems(document, std::nullopt, true), (Items{{"1", "n", {}}}));
  EXPECT_EQ(decodedItems("<box><item id='1' xmlns:note='v' xmlns='w'/></box>", std::nullopt, true),
            (Items{{"1", {}, {}}}));
}

TEST(XMLDecode, OfTwoAttributesThatDifferInTheirPrefixTheFirstCounts) {
  EXPECT_EQ(decodedItems("<box><item a:id='1' b:id='2'/></box>", std::nullopt, true),
            (Items{{"1", {}, {}}}));
}

/// The ASCII text in UTF-16, big or little endian, behind a byte-order mark.
std::string inUTF16(const std::string& text, bool bigEndian) {
  std::string encoded = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
  for (const char c : text) {
    if (bigEndian) encoded += '\0';
    encoded += c;
    if (!bigEndian) encoded += '\0';
  }
  return encoded;
}

TEST(XMLDecode, ReadsUTF8AndUTF16WithTheirByteOrderMarks) {
  const std::string document = "<box><item id='a&#xE9;'/></box>";
  const Items items{{"a\xC3\xA9", {}, {}}};
  EXPECT_EQ(decodedItems("\xEF\xBB\xBF" + document), items);
  EXPECT_EQ(decodedItems(inUTF16(document, true)), items);
  EXPECT_EQ(decodedItems(inUTF16(document, false)), items);
  EXPECT_EQ(decodedItems(inUTF16("<?xml version='1.0' encoding='UTF-16'?>" + document, false)),
            items);
}

TEST(XMLDecode, ReadsTheDeclaredEncoding) {
  EXPECT_EQ(decodedItems("<?xml version='1.0' encoding='ISO-8859-1'?><box><item id='\xE9'/></box>"),
            (Items{{"\xC3\xA9", {}, {}}}));
}

TEST(XMLDecode, ReadsADocumentOfManyPieces) {
  // Longer than what the parser is fed at once, with texts across the boundaries.
  std::string document = "<box>";
  for (int item = 0; item < 40000; ++item) {
    document += "<item><id>" + std::to_string(item) + "</id><note>" + std::string(60, 'n') +
                "\xC3\xA9</note></item>";
  }
  document += "</box>";
  ASSERT_GT(document.size(), std::size_t{3} << 20);
  const auto items = decodedItems(document);
  ASSERT_TRUE(items.has_value());
  ASSERT_EQ(items->size(), 40000u);
  for (std::size_t item = 0; item < items->size(); ++item) {
    ASSERT_EQ((*items)[item].id, std::to_string(item));
    ASSERT_EQ((*items)[item].note, std::string(60, 'n') + "\xC3\xA9");
  }
}

}  // namespace
