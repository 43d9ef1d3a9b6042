// How the local records are shown.

#include <gtest/gtest.h>

#include "List.h"

namespace VarnScripts {
namespace {

TEST(ListTable, ColumnsAreAligned) {
  EXPECT_EQ(listTable({{"42", "17", "/b/clean.sh", true},
                       {"certificate-expiry", "2024-01-01 10:00", "/b/expiry.py", false},
                       {"7", std::nullopt, std::nullopt, false}}),
            "SCRIPT ID           VERSION           FILE     PATH\n"
            "42                  17                present  /b/clean.sh\n"
            "certificate-expiry  2024-01-01 10:00  missing  /b/expiry.py\n"
            "7                   -                 -        -\n");
}

TEST(ListTable, WidthCountsCharactersAndControlCharactersAreHidden) {
  EXPECT_EQ(listTable({{"gr\u00fc\u00df", "1", std::nullopt, false},
                       {"a\x1b[2J\nb\u202e", "1", std::nullopt, false}}),
            "SCRIPT ID  VERSION  FILE  PATH\n"
            "gr\u00fc\u00df       1        -     -\n"
            "a?[2J\\nb?  1        -     -\n");
}

TEST(ListTable, NoRecordsGiveNothing) { EXPECT_EQ(listTable({}), ""); }

TEST(ListJson, KeysComeInOrderAndAbsentIsNull) {
  EXPECT_EQ(listJson({{"42", "17", "/b/clean.sh", true}, {"7", std::nullopt, std::nullopt, false}}),
            R"([{"script_id":"42","version":"17","script_path":"/b/clean.sh","present":true},)"
            R"({"script_id":"7","version":null,"script_path":null,"present":false}])"
            "\n");
}

TEST(ListJson, BytesThatAreNotUtf8AreReplaced) {
  EXPECT_EQ(listJson({{"a\xff", std::nullopt, std::nullopt, false}}),
            "[{\"script_id\":\"a\xef\xbf\xbd\",\"version\":null,\"script_path\":null,"
            "\"present\":false}]\n");
}

TEST(ListJson, NoRecordsGiveAnEmptyArray) { EXPECT_EQ(listJson({}), "[]\n"); }

}  // namespace
}  // namespace VarnScripts
