// Documents that are none, and documents that want more than to be read.

#include <gtest/gtest.h>

#include "support/SmallRecords.h"

using MarkupParser::XML;

namespace {

using namespace std::string_literals;
using Items = std::vector<Item>;

bool decodes(const std::string& document) {
  return XML::parse(document, std::nullopt, false).toStruct<Root>().has_value();
}

TEST(XMLHostile, WhatIsNotOneWellFormedDocumentIsAbsent) {
  const std::string documents[] = {
      "",
      " ",
      "text",
      "<box>",
      "<box></bo",
      "<box></box",
      "<box><item id='1'></box>",
      "<box><item id='1'/></box>trailing",
      "<box/><box/>",
      "<box/><other/>",
      "<box/>\0"s,
      "<box><item id='1'/>\0</box>"s,
      "\0"s,
      "<box><item id='1' id='2'/></box>",
      "<box><item id='1'>&nbsp;</item></box>",
      "<box><item id='&undefined;'/></box>",
      "<box><item id='1'>&#0;</item></box>",
      "<box><item id='1'>&#xD800;</item></box>",
      "<box><item id='1'>\x01</item></box>",
      "<box><item id='1'>]]></item></box>",
      "<box><item id='<'/></box>",
      " <?xml version='1.0'?><box/>",
      "<!-- a -- b --><box/>",
      "<box attribute/>",
      "{\"box\":[]}",
  };
  for (const std::string& document : documents) EXPECT_FALSE(decodes(document)) << document;
}

TEST(XMLHostile, BytesThatAreNotTheDeclaredEncodingAreAbsent) {
  const std::string documents[] = {
      "<box><item id='\xE9'/></box>",
      "<?xml version='1.0' encoding='UTF-8'?><box><item id='\xC3'/></box>",
      "<?xml version='1.0' encoding='UTF-8'?><box><item id='\xC0\x80'/></box>",
      "<?xml version='1.0' encoding='UTF-8'?><box><item id='\xED\xA0\x80'/></box>",
      "<?xml version='1.0' encoding='US-ASCII'?><box><item id='\xC3\xA9'/></box>",
      "<?xml version='1.0' encoding='UTF-16'?><box/>",
      "<?xml version='1.0' encoding='no-such-encoding'?><box/>",
      "\xFF\xFE<box/>",
      "\xFE\xFF\0<\0b\0o\0x\0/\0"s,
  };
  for (const std::string& document : documents) EXPECT_FALSE(decodes(document)) << document;
}

/// UTF-16 of either byte order, behind its mark or without one.
std::string inUTF16(const std::u16string& text, bool bigEndian, bool marked) {
  std::string bytes;
  for (const char16_t unit : (marked ? u"\uFEFF" : u"") + text) {
    const auto high = static_cast<char>(unit >> 8);
    const auto low = static_cast<char>(unit & 0xFF);
    bytes += bigEndian ? high : low;
    bytes += bigEndian ? low : high;
  }
  return bytes;
}

/// Calls `check` with a way to write UTF-16 for each of its forms.
template <class Check>
void inEachUTF16(const Check& check) {
  for (const bool bigEndian : {false, true}) {
    for (const bool marked : {false, true}) {
      SCOPED_TRACE(testing::Message() << "big endian " << bigEndian << " marked " << marked);
      check([&](const std::u16string& text) { return inUTF16(text, bigEndian, marked); });
    }
  }
}

TEST(XMLHostile, AVersionThatIsNoneOfXML1IsAbsent) {
  const auto withVersion = [](const std::string& version) {
    return "<?xml version='" + version + "'?><box/>";
  };
  for (const char* const version : {"1.0", "1.1", "1.9", "1.10", "1.007"}) {
    EXPECT_TRUE(decodes(withVersion(version))) << version;
  }
  for (const char* const version :
       {"", "1", "1.", ".0", "x", "0.9", "2.0", "11.0", "1.x", "1.0a", "1.0.0", "1.-1", "1,0",
        "1:0", "01.0", " 1.0", "1.0 ", "1. 0"}) {
    EXPECT_FALSE(decodes(withVersion(version))) << version;
  }
  EXPECT_FALSE(decodes("<?xml encoding='UTF-8'?><box/>"));
  inEachUTF16([](const auto& encoded) {
    EXPECT_TRUE(decodes(encoded(u"<?xml version='1.0'?><box/>")));
    EXPECT_FALSE(decodes(encoded(u"<?xml version='2.0'?><box/>")));
  });
}

TEST(XMLHostile, ADocumentTypeThatDeclaresNothingInUseDoesNoHarm) {
  const Items one{{"1", {}, {}}};
  EXPECT_EQ(decodedItems("<!DOCTYPE box><box><item id='1'/></box>"), one);
  EXPECT_EQ(decodedItems("<!DOCTYPE box [<!ENTITY e 'x'>]><box><item id='1'/></box>"), one);
  EXPECT_EQ(decodedItems("<!DOCTYPE box [<!ENTITY e 'x'>]><box><item id='&amp;&#65;&lt;'>"
                         "<note>&gt;</note></item></box>"),
            (Items{{"&A<", ">", {}}}));
}

TEST(XMLHostile, AnEntityOfTheDocumentsOwnIsNeverExpanded) {
  const std::string declared = "<!DOCTYPE box [<!ENTITY e 'x'>]>";
  for (const char* const box :
       {"<box><item><id>&e;</id></item></box>", "<box><item id='1'><note>a&e;</note></item></box>",
        "<box><item id='&e;'/></box>", "<box><item id='a&amp;&e;b'/></box>",
        "<box><item id='1'/>&e;</box>", "<box><item id='1'/><other>&e;</other></box>",
        "<box><item id='1'/><other x='&e;'/></box>", "<box x='&e;'><item id='1'/></box>"}) {
    EXPECT_FALSE(decodes(declared + box)) << box;
  }
}

TEST(XMLHostile, AnEntityThatTheDocumentMayDeclareElsewhereIsAbsent) {
  for (const char* const box :
       {"<box><item><id>&e;</id></item></box>", "<box><item id='&e;'/></box>"}) {
    EXPECT_FALSE(decodes("<!DOCTYPE box SYSTEM 'no-such.dtd'>"s + box)) << box;
    EXPECT_FALSE(decodes("<!DOCTYPE box [<!ENTITY % p SYSTEM 'no-such'> %p;]>"s + box)) << box;
  }
}

TEST(XMLHostile, OwnEntitiesAreSeenInUTF16AsWell) {
  const auto wide = [](const std::string& text) {
    std::string encoded = "\xFF\xFE";
    for (const char c : text) encoded += c + "\0"s;
    return encoded;
  };
  const std::string declared = "<!DOCTYPE box [<!ENTITY e 'x'>]>";
  EXPECT_FALSE(decodes(wide(declared + "<box><item id='&e;'/></box>")));
  // U+2600 and U+2646 have bytes that look like an ampersand's.
  std::string snow = wide(declared + "<box><item id='?!&amp;'/></box>");
  snow.replace(snow.find('?'), 4, "\x00\x26\x26\x46"s);
  EXPECT_EQ(decodedItems(snow), (Items{{"\xE2\x98\x80\xE4\x98\xA6&", {}, {}}}));
}

TEST(XMLHostile, SurrogatesThatAreNoPairAreAbsentWhereverTheyStand) {
  const std::u16string places[] = {
      u"<box><item><id>*</id></item></box>",
      u"<box><item><id>a*b</id></item></box>",
      u"<box><item id='*'/></box>",
      u"<box><item id='1' x='a*b'/></box>",
      u"<box><other>*</other></box>",
      u"<box><![CDATA[*]]></box>",
      u"<box><!--*--></box>",
      u"<box><?a *?></box>",
      u"<!--*--><box/>",
      u"<box/><!--*-->",
      u"<box/>*",
      u"<b*x/>",
      u"<box><other*/></box>",
      u"<box><item i*='1'/></box>",
      u"<?a *?><box/>",
      u"<!DOCTYPE box [<!ENTITY e '*'>]><box/>",
  };
  const std::u16string broken[] = {{0xD800},
                                   {0xDBFF},
                                   {0xDC00},
                                   {0xDFFF},
                                   {0xD800, 0xD800},
                                   {0xDC00, 0xD800},
                                   {0xD83D, 'a'},
                                   {0xD83D, 0x0161},
                                   {0xD83D, 0xDE00, 0xDE00},
                                   {0xD83D, 0xE000},
                                   {0xD83D, 0xDBFF, 0xDE00}};
  inEachUTF16([&](const auto& encoded) {
    for (const std::u16string& place : places) {
      for (const std::u16string& units : broken) {
        std::u16string document = place;
        document.replace(document.find(u'*'), 1, units);
        EXPECT_FALSE(decodes(encoded(document))) << encoded(document);
      }
    }
    EXPECT_EQ(decodedItems(encoded({u"<box><item id='\U0001F600'><note>\U0010FFFD</note></item>"
                                    u"<!--\U00010000--></box>"})),
              (Items{{"\U0001F600", "\U0010FFFD", {}}}));
  });
}

TEST(XMLHostile, AnOddByteIsAbsent) {
  inEachUTF16([](const auto& encoded) {
    const std::string document = encoded(u"<box><item id='1'/></box>");
    EXPECT_TRUE(decodes(document));
    for (const char byte : {'\0', ' ', '\n', '<', '\xD8', '\xFF'}) {
      EXPECT_FALSE(decodes(document + byte)) << static_cast<int>(byte);
    }
    EXPECT_FALSE(decodes(document.substr(0, document.size() - 1)));
    EXPECT_FALSE(decodes(document.substr(1)));
  });
}

TEST(XMLHostile, SurrogatesAreHeldTogetherAcrossEveryBoundary) {
  // The parser is fed a document of this size in two pieces.
  constexpr std::size_t kHalfPiece = std::size_t{1} << 19;
  inEachUTF16([](const auto& encoded) {
    for (std::size_t before = kHalfPiece - 25; before <= kHalfPiece - 20; ++before) {
      const std::u16string start = u"<box><!--" + std::u16string(before, 'x') + u"--><item id='";
      const std::u16string end = u"'/></box>";
      EXPECT_EQ(decodedItems(encoded(start + u"\U0001F600" + end)),
                (Items{{"\U0001F600", {}, {}}}));
      EXPECT_FALSE(decodes(encoded(start + char16_t{0xD83D} + end)));
      EXPECT_FALSE(decodes(encoded(start + char16_t{0xDE00} + end)));
    }
  });
}

TEST(XMLHostile, AnEntityBombIsAbsentWhereverItLies) {
  std::string bomb = "<!DOCTYPE box [<!ENTITY a0 'xxxxxxxxxx'>";
  for (int level = 1; level <= 30; ++level) {
    const std::string before = "&a" + std::to_string(level - 1) + ";";
    bomb += "<!ENTITY a" + std::to_string(level) + " '";
    for (int copy = 0; copy < 10; ++copy) bomb += before;
    bomb += "'>";
  }
  EXPECT_FALSE(decodes(bomb + "]><box><item><id>&a30;</id></item></box>"));
  EXPECT_FALSE(decodes(bomb + "]><box><item id='&a30;'/></box>"));
  EXPECT_FALSE(decodes(bomb + "<!ATTLIST item note CDATA '&a30;'>]><box><item id='1'/></box>"));
}

TEST(XMLHostile, AQuadraticBombIsAbsent) {
  std::string bomb = "<!DOCTYPE box [<!ENTITY a '" + std::string(100000, 'x') + "'>]><box>";
  for (int copy = 0; copy < 10000; ++copy) bomb += "&a;";
  EXPECT_FALSE(decodes(bomb + "</box>"));
}

TEST(XMLHostile, ADeclaredDefaultThatOutgrowsTheDocumentIsAbsent) {
  std::string bomb = "<!DOCTYPE box [<!ENTITY a '" + std::string(1000, 'x') + "'>";
  bomb += "<!ATTLIST item note CDATA '";
  for (int copy = 0; copy < 1000; ++copy) bomb += "&a;";
  EXPECT_FALSE(decodes(bomb + "'>]><box><item id='1'/></box>"));
}

TEST(XMLHostile, ADeclaredDefaultIsNoAttribute) {
  EXPECT_EQ(decodedItems("<!DOCTYPE box [<!ATTLIST item note CDATA 'default'>]>"
                         "<box><item id='1'/></box>"),
            (Items{{"1", {}, {}}}));
  EXPECT_FALSE(decodes("<!DOCTYPE box [<!ATTLIST item id CDATA 'default'>]><box><item/></box>"));
}

TEST(XMLHostile, NothingOutsideTheDocumentIsEverRead) {
  // This file exists; were it read, its first character would make the document ill-formed, and its
  // content a text.
  const std::string outside = "file:///etc/passwd";
  EXPECT_FALSE(decodes("<!DOCTYPE box [<!ENTITY e SYSTEM '" + outside +
                       "'>]><box><item><id>&e;</id></item></box>"));
  EXPECT_FALSE(
      decodes("<!DOCTYPE box [<!ENTITY e SYSTEM '" + outside + "'>]><box><item id='&e;'/></box>"));
  EXPECT_TRUE(decodes("<!DOCTYPE box SYSTEM '" + outside + "'><box/>"));
  EXPECT_TRUE(decodes("<!DOCTYPE box [<!ENTITY % p SYSTEM '" + outside + "'> %p;]><box/>"));
}

TEST(XMLHostile, AMillionLevelsCostNoStack) {
  std::string deep = "<box><item id='1'/>";
  for (int level = 0; level < 1000000; ++level) deep += "<d>";
  EXPECT_FALSE(decodes(deep));
  for (int level = 0; level < 1000000; ++level) deep += "</d>";
  EXPECT_EQ(decodedItems(deep + "</box>"), (Items{{"1", {}, {}}}));
}

TEST(XMLHostile, AnAttributeOfAHundredMegabytesDecodes) {
  const std::string value(100000000, 'v');
  const auto items = decodedItems("<box><item id='" + value + "'/></box>");
  ASSERT_TRUE(items.has_value());
  EXPECT_TRUE(items->front().id == value);
}

TEST(XMLHostile, AMillionEntriesDecode) {
  std::string many = "<box>";
  for (int item = 0; item < 1000000; ++item) many += "<item id='1'/>";
  const auto items = decodedItems(many + "</box>");
  ASSERT_TRUE(items.has_value());
  EXPECT_EQ(items->size(), 1000000u);
}

TEST(XMLHostile, AMillionAttributesDoNotMatter) {
  std::string many = "<box><item id='1'";
  for (int attribute = 0; attribute < 1000000; ++attribute) {
    many += " a" + std::to_string(attribute) + "=''";
  }
  EXPECT_EQ(decodedItems(many + "/></box>"), (Items{{"1", {}, {}}}));
}

/// A record that has no room for another element.
struct Full {
  static void setText(void*, std::string) { throw std::bad_alloc(); }
  static const MarkupParser::RecordSchema& elementSchema() { return schema(); }
  static void* append(void*) { throw std::bad_alloc(); }

  static const MarkupParser::RecordSchema& schema() {
    using MarkupParser::RecordField;
    static const RecordField fields[] = {{"text", RecordField::Kind::text, false, setText, nullptr,
                                          nullptr, nullptr, nullptr, nullptr},
                                         {"list", RecordField::Kind::list, false, nullptr, nullptr,
                                          elementSchema, append, nullptr, nullptr}};
    static const MarkupParser::RecordSchema schema{fields};
    return schema;
  }
};

TEST(XMLHostile, MemoryThatRunsOutLeavesTheDocumentAbsent) {
  EXPECT_FALSE(XML::parse("<list/>", std::nullopt, false).toStruct<Full>().has_value());
  EXPECT_FALSE(XML::parse("<text>x</text>", std::nullopt, false).toStruct<Full>().has_value());
  EXPECT_TRUE(XML::parse("<other/>", std::nullopt, false).toStruct<Full>().has_value());
}

}  // namespace
