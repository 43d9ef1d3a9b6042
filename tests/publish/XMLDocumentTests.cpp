// Encoding of records, and the way back.

#include <gtest/gtest.h>

#include <stdexcept>

#include "publish/XMLDocument.h"
#include "support/SmallRecords.h"

using MarkupParser::XML;
using VarnScripts::publishing::xmlDocument;

namespace {

using namespace std::string_literals;

Root rootWithID(const std::string& id) { return {{{{{id, {}, {}}}}}}; }

std::optional<std::vector<Root>> decodedAgain(const Root& root) {
  return XML::parse(xmlDocument(root), std::nullopt, false).toStruct<Root>();
}

TEST(XMLDocument, HasTextsAsElementsAndLeavesAbsentFieldsOut) {
  const Root root{{{{{"1", "n", std::vector<Part>{{"p"}, {"q"}}}, {"2", {}, {}}}}}};
  EXPECT_EQ(xmlDocument(root),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<box>\n"
            "  <item>\n"
            "    <id>1</id>\n"
            "    <note>n</note>\n"
            "    <part>\n"
            "      <path>p</path>\n"
            "    </part>\n"
            "    <part>\n"
            "      <path>q</path>\n"
            "    </part>\n"
            "  </item>\n"
            "  <item>\n"
            "    <id>2</id>\n"
            "  </item>\n"
            "</box>\n");
}

TEST(XMLDocument, DecodesToTheSameTexts) {
  for (const std::string& text :
       {""s, " "s, " a "s, "\n\ta\n"s, "a\rb\r\nc"s, "<a href=\"x\">&amp;'</a>"s, "]]>"s,
        "<![CDATA["s, "&#13;"s, "\x7F"s, "\xC2\x80\xC2\x85"s, "\xC3\xA9"s, "\xE2\x80\xA8"s,
        "\xED\x9F\xBF\xEE\x80\x80"s, "\xEF\xBF\xBD"s, "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBD"s}) {
    const Root root = rootWithID(text);
    EXPECT_EQ(decodedAgain(root), std::vector<Root>{root}) << text;
  }
}

TEST(XMLDocument, OfNoneOrSeveralTopElementsIsNone) {
  EXPECT_EQ(decodedAgain({}), std::nullopt);
  EXPECT_EQ(decodedAgain({{{}}}), (std::vector<Root>{{{{}}}}));
  EXPECT_EQ(decodedAgain({{{}, {}}}), std::nullopt);
}

TEST(XMLDocument, GivesAnEmptyOptionalListBackAsAbsent) {
  EXPECT_EQ(decodedAgain({{{{{"1", {}, std::vector<Part>{}}}}}}),
            (std::vector<Root>{{{{{{"1", {}, {}}}}}}}));
}

TEST(XMLDocument, GivesAnAbsentFieldBackAsANewRecordHasIt) {
  struct WithDefault {
    std::optional<std::string> text = "default";

    static constexpr auto fields() {
      return std::tuple{VarnScriptRepository::field("text", &WithDefault::text)};
    }
    static const MarkupParser::RecordSchema& schema() {
      return VarnScriptRepository::recordSchema<WithDefault>();
    }
  };
  struct Document {
    std::vector<WithDefault> records;

    static constexpr auto fields() {
      return std::tuple{VarnScriptRepository::field("record", &Document::records)};
    }
    static const MarkupParser::RecordSchema& schema() {
      return VarnScriptRepository::recordSchema<Document>();
    }
  };
  const auto decoded =
      XML::parse(xmlDocument(Document{{{std::nullopt}}}), std::nullopt, false).toStruct<Document>();
  ASSERT_TRUE(decoded.has_value());
  EXPECT_EQ(decoded->front().records.front().text, "default");
}

TEST(XMLDocument, RefusesWhatXMLCannotCarry) {
  for (const std::string& text : {"\0"s,
                                  "\x01"s,
                                  "\x08"s,
                                  "\x0B"s,
                                  "\x0C"s,
                                  "\x1F"s,
                                  "\x80"s,
                                  "\xFF"s,
                                  "a\xC3"s,
                                  "\xC0\x80"s,
                                  "\xC1\xBF"s,
                                  "\xE0\x80\x80"s,
                                  "\xE2\x80"s,
                                  "\xED\xA0\x80"s,
                                  "\xED\xBF\xBF"s,
                                  "\xEF\xBF\xBE"s,
                                  "\xEF\xBF\xBF"s,
                                  "\xF0\x80\x80\x80"s,
                                  "\xF4\x90\x80\x80"s,
                                  "\xF5\x80\x80\x80"s,
                                  "\xC3\x41"s}) {
    EXPECT_THROW(static_cast<void>(xmlDocument(rootWithID(text))), std::invalid_argument) << text;
  }
}

}  // namespace
