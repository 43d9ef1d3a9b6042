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

TEST(XMLHostile, EveryTruncationOfADocumentIsAbsent) {
  const std::string document = "<?xml version='1.0'?><box><item id='1'><note>n</note></item></box>";
  ASSERT_TRUE(decodes(document));
  for (std::size_t length = 0; length < document.size(); ++length) {
    EXPECT_FALSE(decodes(document.substr(0, length))) << length;
  }
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
