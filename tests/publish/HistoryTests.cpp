// What a list remembers of the lists before it.

#include <gtest/gtest.h>

#include "publish/History.h"

namespace VarnScripts::publishing {
namespace {

std::string name(char digit) { return "files/" + std::string(64, digit) + ".sh"; }

TEST(History, IsReadBackFromAList) {
  const History history = {{name('a'), name('b')}, {}, {name('c')}};
  EXPECT_EQ(historyIn("<scripts-meta/>\n" + historyComment(history)), history);
}

TEST(History, IsACommentOfNames) {
  const std::string a64(64, 'a');
  EXPECT_EQ(historyComment({{name('a')}, {}}),
            "<!-- Content of earlier lists, which clients may still hold; the newest list comes "
            "first.\nlist\n files/" +
                a64 + ".sh\nlist\n-->\n");
  EXPECT_EQ(historyComment({}), "");
}

TEST(History, IsEmptyInAListWithoutOne) {
  EXPECT_EQ(historyIn(""), History());
  EXPECT_EQ(historyIn("<scripts-meta/>\n"), History());
  EXPECT_EQ(historyIn("<scripts-meta/><!-- a comment -->\n"), History());
}

TEST(History, LeavesOutWhatIsNoContent) {
  const std::string comment = historyComment({{"../../etc/passwd", name('a'), "data/1.xml"}});
  EXPECT_EQ(historyIn(comment), (History{{name('a')}}));
}

TEST(History, KeepsAContentWithTheNewestListThatNamedIt) {
  // The list that named a, b and c is replaced by one that names a and d.
  const History history = advanced({{name('d'), name('e')}, {name('a'), name('f')}},
                                   {name('a'), name('b'), name('c')}, {name('a'), name('d')});
  EXPECT_EQ(history, (History{{name('b'), name('c')}, {name('e')}, {name('f')}}));
}

TEST(History, IsLimitedToTheNewestLists) {
  const History history = {{name('a')}, {name('b')}, {name('c')}};
  EXPECT_EQ(limited(history, 0, {}), History());
  EXPECT_EQ(limited(history, 2, {name('b')}), (History{{name('a')}, {}}));
  EXPECT_EQ(limited(history, 9, {}), history);
}

}  // namespace
}  // namespace VarnScripts::publishing
