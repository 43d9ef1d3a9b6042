// What MarkupParser.h promises, in whatever notation the parser reads.

#include <gtest/gtest.h>

#include "Contract.h"
#include "support/SmallRecords.h"

namespace {

using MarkupParser::XML;
using Items = std::vector<Item>;

class ParserContract : public contracts::Contract {
 protected:
  std::string text(const std::string& name, const std::string& value) const {
    return agent->text(name, value);
  }
  std::string element(const std::string& name, const std::string& children = "") const {
    return agent->element(name, children);
  }
  /// A box of one item.
  std::string boxOf(const std::string& childrenOfItem) const {
    return element("box", element("item", childrenOfItem));
  }
};

TEST_F(ParserContract, FillsRecordsInDocumentOrder) {
  EXPECT_EQ(decodedItems(element("box", element("item", text("id", "2") + text("note", "n") +
                                                            element("part", text("path", "p")) +
                                                            element("part", text("path", "q"))) +
                                            element("item", text("id", "1")))),
            (Items{{"2", "n", std::vector<Part>{{"p"}, {"q"}}}, {"1", {}, {}}}));
}

TEST_F(ParserContract, TextsStayAsTheyStand) {
  for (const std::string value : {"", " ", " a  b\n", "\xC3\xA9", "'\"%@"}) {
    EXPECT_EQ(decodedItems(boxOf(text("id", value))), (Items{{value, {}, {}}}));
  }
}

TEST_F(ParserContract, ARepeatedTextCountsOnceAndItsRepetitionMayHoldAnything) {
  EXPECT_EQ(decodedItems(boxOf(text("id", "1") + text("id", "2"))), (Items{{"1", {}, {}}}));
  EXPECT_EQ(decodedItems(boxOf(text("id", "") + text("id", "2"))), (Items{{"", {}, {}}}));
  EXPECT_EQ(decodedItems(boxOf(text("id", "1") + element("id", text("id", "2")))),
            (Items{{"1", {}, {}}}));
}

TEST_F(ParserContract, ATextWithChildElementsDoesNotDecode) {
  EXPECT_EQ(decodedItems(boxOf(element("id", text("x", "1")))), std::nullopt);
  EXPECT_EQ(decodedItems(boxOf(element("id", text("x", "1")) + text("id", "2"))), std::nullopt);
  EXPECT_EQ(decodedItems(boxOf(text("id", "1") + element("note", text("x", "1")))), std::nullopt);
}

TEST_F(ParserContract, AMissingRequiredTextFailsTheWholeDocument) {
  const std::string good = element("item", text("id", "1"));
  ASSERT_EQ(decodedItems(element("box", good)), (Items{{"1", {}, {}}}));
  for (const std::string& bad :
       {element("item"), element("item", text("note", "n")), element("item", text("ID", "1")),
        element("item", text("id", "1") + element("part"))}) {
    EXPECT_EQ(decodedItems(element("box", good + bad)), std::nullopt) << bad;
    EXPECT_EQ(decodedItems(element("box", bad + good)), std::nullopt) << bad;
  }
}

TEST_F(ParserContract, ARequiredListWithoutElementsIsEmptyAndAnOptionalOneAbsent) {
  EXPECT_EQ(decodedItems(element("box")), Items{});
  EXPECT_EQ(decodedItems(element("box", element("Item", text("id", "1")))), Items{});
  EXPECT_EQ(decodedItems(boxOf(text("id", "1"))), (Items{{"1", {}, {}}}));
}

TEST_F(ParserContract, SkipsWhatNoFieldNamesWithEverythingInIt) {
  EXPECT_EQ(decodedItems(element(
                "box", element("other", element("item", text("id", "no"))) + text("another", "x") +
                           element("item", element("deep", element("deeper", text("id", "no"))) +
                                               text("id", "yes")))),
            (Items{{"yes", {}, {}}}));
}

TEST_F(ParserContract, ATopElementThatNoFieldNamesLeavesAnEmptyRoot) {
  const std::string document = element("other", element("item", text("id", "1")));
  EXPECT_EQ(XML::parse(document, std::nullopt, false).toStruct<Root>(), std::vector<Root>{Root{}});
}

TEST_F(ParserContract, TheSameDocumentDecodesAgainAndAgain) {
  const auto accessor = XML::parse(boxOf(text("id", "1")), std::nullopt, false);
  const std::vector<Root> expected{Root{{Box{{Item{"1", {}, {}}}}}}};
  EXPECT_EQ(accessor.toStruct<Root>(), expected);
  EXPECT_EQ(accessor.toStruct<Root>(), expected);
}

TEST_F(ParserContract, WhatIsNotOneDocumentIsAbsent) {
  const auto decodes = [](const std::string& document) {
    return XML::parse(document, std::nullopt, false).toStruct<Root>().has_value();
  };
  std::string document = boxOf(text("id", "1") + text("note", "n"));
  while (document.ends_with('\n')) document.pop_back();
  ASSERT_TRUE(decodes(document));
  for (std::size_t length = 0; length < document.size(); ++length) {
    EXPECT_FALSE(decodes(document.substr(0, length))) << length;
  }
  EXPECT_FALSE(decodes(document + "trailing"));
  EXPECT_FALSE(decodes("text"));
}

}  // namespace
