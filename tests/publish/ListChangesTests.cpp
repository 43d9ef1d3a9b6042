// What is reported of each ID when a list takes the place of another, and when that is too much.

#include <gtest/gtest.h>

#include <map>

#include "publish/Documents.h"
#include "publish/ListChanges.h"

namespace VarnScripts::publishing {
namespace {

using VarnScriptRepository::ScriptRepoAllMetaData;
using VarnScriptRepository::ScriptRepositoryMeta;
using VarnScriptRepository::ScriptRoot;
using VarnScriptRepository::ScriptsRepoMetaRoot;

SourceScript scriptOf(const std::string& id) {
  SourceScript script{};
  script.entry.id.value = id;
  script.entry.file.value = id + ".sh";
  script.entry.arguments.value = "-x";
  script.entry.acceptedCodes.value = "0";
  script.entry.name.value = "Name";
  script.entry.description.value = "Text";
  script.entry.platform.value = "Mac";
  script.extension = "sh";
  script.sha256 = std::string(64, 'a');
  script.checksum = std::string(64, 'a');
  return script;
}

// Lists of scripts and the documents that they name.
class ListChangesTest : public testing::Test {
 protected:
  struct Scripts {
    std::vector<SourceScript> all;
    std::string digest = "sha256";
  };

  ListChanges changes(const Scripts& before, const Scripts& after) {
    return listChanges(listOf(before, old_), listOf(after, new_), documentIn(old_),
                       documentIn(new_));
  }

  // The change of the script 42 by `change`.
  template <class Change>
  std::string changed(const Change& change) {
    Scripts after{{scriptOf("42")}};
    change(after.all.front());
    return changes({{scriptOf("42")}}, after).lines;
  }

  static Scripts scripts(const std::vector<std::string>& ids) {
    Scripts result;
    for (const std::string& id : ids) result.all.push_back(scriptOf(id));
    return result;
  }

  static Scripts manyScripts(std::size_t first, std::size_t count) {
    Scripts result;
    for (std::size_t id = first; id < first + count; ++id) {
      result.all.push_back(scriptOf(std::to_string(id)));
    }
    return result;
  }

  using Documents = std::map<std::string, ScriptRoot>;

  static ScriptsRepoMetaRoot listOf(const Scripts& scripts, Documents& documents) {
    ScriptRepoAllMetaData all;
    documents.clear();
    for (const SourceScript& script : scripts.all) {
      const ScriptRoot document = documentOf(script, {scripts.digest, false}, "7");
      // Any name will do that is another one for another document.
      const auto& item = document.script.front();
      const std::string name = item.scriptRepo.front().scriptArgs + "|" +
                               item.scriptRepo.front().exitCode + "|" + scripts.digest + "|" +
                               script.sha256 + "|" + script.entry.id.value;
      documents[script.entry.id.value] = document;
      all.scriptRepo.push_back(entryOf(script, name, "7"));
    }
    return {{all}};
  }

  static DocumentOfEntry documentIn(const Documents& documents) {
    return [&documents](const ScriptRepositoryMeta& entry) -> std::optional<ScriptRoot> {
      const auto found = documents.find(entry.scriptID);
      if (found == documents.end()) return std::nullopt;
      return found->second;
    };
  }

  Documents old_;
  Documents new_;
};

TEST_F(ListChangesTest, AreALineForEachIDThatIsNotAsItWas) {
  Scripts after = scripts({"43", "42", "41"});
  after.all[1].entry.arguments.value = "-y";
  after.all[1].sha256[0] = 'b';
  const auto result = changes(scripts({"16", "42", "17", "41"}), after);
  EXPECT_EQ(result.lines, "+ 43\n~ 42 (script, arguments)\n- 16\n- 17\n");
  EXPECT_EQ(result.before, 4U);
  EXPECT_EQ(result.dropped, 2U);
}

TEST_F(ListChangesTest, AreNoneInAnotherOrder) {
  EXPECT_EQ(changes(scripts({"1", "2", "3"}), scripts({"3", "1", "2"})).lines, "");
  EXPECT_EQ(changes({}, {}).lines, "");
}

TEST_F(ListChangesTest, NameWhatChanged) {
  using Script = SourceScript;
  EXPECT_EQ(changed([](Script& script) { script.sha256[0] = 'b'; }), "~ 42 (script)\n");
  EXPECT_EQ(changed([](Script& script) { script.entry.file.value = "b.sh"; }), "~ 42 (file)\n");
  EXPECT_EQ(changed([](Script& script) { script.entry.arguments.value = ""; }),
            "~ 42 (arguments)\n");
  EXPECT_EQ(changed([](Script& script) { script.entry.acceptedCodes.value = "0,1"; }),
            "~ 42 (accepted codes)\n");
  EXPECT_EQ(changed([](Script& script) { script.entry.name.value = "Other"; }), "~ 42 (name)\n");
  EXPECT_EQ(changed([](Script& script) { script.entry.description.value = ""; }),
            "~ 42 (description)\n");
  EXPECT_EQ(changed([](Script& script) { script.entry.platform.value = "Linux"; }),
            "~ 42 (platform)\n");
  EXPECT_EQ(changes({{scriptOf("42")}}, {{scriptOf("42")}, "sha512"}).lines, "~ 42 (digest)\n");
}

TEST_F(ListChangesTest, OfADocumentThatCannotBeHadNameWhatTheListTells) {
  Scripts after = scripts({"42"});
  after.all[0].entry.name.value = "Other";
  const auto before = listOf(scripts({"42"}), old_);
  const auto none = [](const ScriptRepositoryMeta&) { return std::optional<ScriptRoot>(); };
  EXPECT_EQ(listChanges(before, listOf(after, new_), none, documentIn(new_)).lines,
            "~ 42 (name)\n");
  after.all[0].entry.name.value = "Name";
  after.all[0].entry.arguments.value = "-y";
  EXPECT_EQ(listChanges(before, listOf(after, new_), none, documentIn(new_)).lines,
            "~ 42 (documents)\n");
}

TEST_F(ListChangesTest, TakeTheFirstOfSeveralEntriesWithOneID) {
  const auto result = changes(scripts({"1", "1", "2", "2"}), scripts({"1"}));
  EXPECT_EQ(result.lines, "- 2\n");
  EXPECT_EQ(result.before, 2U);
  EXPECT_EQ(result.dropped, 1U);
}

TEST_F(ListChangesTest, ShowIDsThatWouldSteerATerminal) {
  EXPECT_EQ(changes(scripts({"\x1b[2J"}), {}).lines, "- ?[2J\n");
}

TEST_F(ListChangesTest, AreTooManyWhenAllAreDroppedOrMoreThanAThirdOfTenOrMore) {
  const struct {
    std::size_t before;
    std::size_t dropped;
    bool isMany;
  } rows[] = {
      {0, 0, false},  {1, 1, true},    {2, 1, false},  {9, 8, false},      {9, 9, true},
      {10, 3, false}, {10, 4, true},   {11, 3, false}, {11, 4, true},      {12, 4, false},
      {12, 5, true},  {30, 10, false}, {30, 11, true}, {5000, 5000, true},
  };
  for (const auto& [before, dropped, isMany] : rows) {
    const auto result = changes(manyScripts(0, before), manyScripts(dropped, before - dropped));
    EXPECT_EQ(result.dropped, dropped);
    EXPECT_EQ(result.dropsMany(), isMany) << before << " " << dropped;
  }
  // Others in their place change nothing about that.
  EXPECT_TRUE(changes(scripts({"1", "2"}), manyScripts(10, 20)).dropsMany());
}

// ---- Whose list it is ------------------------------------------------------------------------

TEST(ListOfThisCommand, NamesDocumentsByTheirContentInItsOwnDirectory) {
  const std::string document = "data/" + std::string(64, 'a') + ".xml";
  const auto complaint = [](const ScriptRepositoryMeta& entry) {
    return complaintAboutList({{ScriptRepoAllMetaData{{entry}}}}, "client-data/7/scriptrepo");
  };
  ScriptRepositoryMeta entry = entryOf(scriptOf("42"), document, "7");
  EXPECT_EQ(complaint(entry), std::nullopt);
  EXPECT_EQ(complaintAboutList({{ScriptRepoAllMetaData{}}}, "client-data/7/scriptrepo"),
            std::nullopt);
  EXPECT_EQ(complaintAboutList({}, "client-data/7/scriptrepo"),
            "its top element is not scripts-meta");
  for (const std::string& path :
       {std::string("/client-data/7/scriptrepo/data/42.xml"),
        "/client-data/8/scriptrepo/" + document, "/" + document,
        "/client-data/7/scriptrepo/files/" + std::string(64, 'a') + ".sh", std::string()}) {
    entry.scriptPathMapping->front().filepath = path;
    EXPECT_EQ(complaint(entry), "the entry of \"42\" names the data document \"" + path + "\"");
  }
  entry.scriptPathMapping->clear();
  EXPECT_EQ(complaint(entry), "the entry of \"42\" names no data document");
  entry.scriptPathMapping.reset();
  EXPECT_EQ(complaint(entry), "the entry of \"42\" names no data document");
}

}  // namespace
}  // namespace VarnScripts::publishing
