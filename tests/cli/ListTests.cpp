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

const std::vector<ServerScript> kServerScripts = {
    {"42", "Cleaning", "17", "Linux", "16", "outdated"},
    {"expiry", std::nullopt, "2024-01-01", std::nullopt, std::nullopt, "absent"},
    {"7", "a\x1b[2J", "1", "Mac", "1", "up_to_date"}};

TEST(ServerTable, HasTheNameLastAndWordsForTheState) {
  EXPECT_EQ(serverTable(kServerScripts),
            "SCRIPT ID  VERSION     HERE        PLATFORM  NAME\n"
            "42         17          outdated    Linux     Cleaning\n"
            "expiry     2024-01-01  absent      -         -\n"
            "7          1           up to date  Mac       a?[2J\n");
  EXPECT_EQ(serverTable({}), "");
}

TEST(ServerJson, KeysComeInOrderAndAbsentIsNull) {
  EXPECT_EQ(serverJson(kServerScripts),
            R"([{"script_id":"42","name":"Cleaning","version":"17","platform":"Linux",)"
            R"("state":"outdated","local_version":"16"},)"
            R"({"script_id":"expiry","name":null,"version":"2024-01-01","platform":null,)"
            R"("state":"absent","local_version":null},)"
            R"({"script_id":"7","name":"a\u001b[2J","version":"1","platform":"Mac",)"
            R"("state":"up_to_date","local_version":"1"}])"
            "\n");
  EXPECT_EQ(serverJson({}), "[]\n");
}

}  // namespace
}  // namespace VarnScripts
