// The local script state: constants, the record and its coding, the singleton over the table.

#include <gmock/gmock.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include "AgentFixture.h"
#include "ScriptRepositoryLocalMetaProcessor.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "support/Together.h"

namespace {

using namespace VarnScriptRepository;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

// ---- Constants -------------------------------------------------------------------------------

class LocalMetaConstants : public doubles::AgentFixture {};

TEST_F(LocalMetaConstants, StorePathFollowsTheDataDirectory) {
  globals.vyagentDataDictPath = "/var/agent/data";

  EXPECT_EQ(ScriptRepositoryConstants::FilePath::scriptRepository(),
            "/var/agent/data/Configuration-Framework/ScriptRepository");
}

TEST_F(LocalMetaConstants, StorePathWithoutADataDirectoryIsTheBareSuffix) {
  globals.vyagentDataDictPath = std::nullopt;

  EXPECT_EQ(ScriptRepositoryConstants::FilePath::scriptRepository(),
            "/Configuration-Framework/ScriptRepository");
}

TEST_F(LocalMetaConstants, StorePathIsFixedByItsFirstUse) {
  globals.vyagentDataDictPath = "/first";
  const std::string& path = ScriptRepositoryConstants::FilePath::scriptRepository();
  globals.vyagentDataDictPath = "/second";

  EXPECT_EQ(ScriptRepositoryConstants::FilePath::scriptRepository(),
            "/first/Configuration-Framework/ScriptRepository");
  EXPECT_EQ(&ScriptRepositoryConstants::FilePath::scriptRepository(), &path);
}

TEST_F(LocalMetaConstants, TableHasItsName) {
  EXPECT_STREQ(ScriptRepositoryConstants::TableNames::scriptToMeta, "ScriptToMeta");
}

TEST(LocalMetaKeys, ComeFromExactlyTheirRawValue) {
  EXPECT_EQ(ScriptRepositoryKeys::fromRawValue("version"), ScriptRepositoryKeys::version);
  EXPECT_EQ(ScriptRepositoryKeys::fromRawValue("scriptPath"), ScriptRepositoryKeys::scriptPath);
  for (const char* const other :
       {"Version", "VERSION", "scriptpath", "ScriptPath", "", " version", "version "}) {
    SCOPED_TRACE(other);
    EXPECT_EQ(ScriptRepositoryKeys::fromRawValue(other), std::nullopt);
  }
}

TEST(LocalMetaKeys, HaveTheirRawValueAsKey) {
  const ScriptRepositoryKeys version = ScriptRepositoryKeys::version;
  const ScriptRepositoryKeys path = ScriptRepositoryKeys::scriptPath;
  EXPECT_EQ(version.rawValue(), "version");
  EXPECT_EQ(version.key(), "version");
  EXPECT_EQ(path.rawValue(), "scriptPath");
  EXPECT_EQ(path.key(), "scriptPath");
}

TEST(LocalMetaKeys, AreEqualAndHashedByRawValue) {
  const std::unordered_set<ScriptRepositoryKeys> keys{
      ScriptRepositoryKeys::version, ScriptRepositoryKeys::scriptPath,
      *ScriptRepositoryKeys::fromRawValue("version")};
  EXPECT_EQ(keys.size(), 2U);
  EXPECT_FALSE(ScriptRepositoryKeys(ScriptRepositoryKeys::version) ==
               ScriptRepositoryKeys(ScriptRepositoryKeys::scriptPath));
  EXPECT_EQ(std::hash<ScriptRepositoryKeys>{}(ScriptRepositoryKeys::version),
            std::hash<std::string>{}("version"));
}

// ---- Record ----------------------------------------------------------------------------------

class Encoded final : public AgentStore::KeyedEncoder {
 public:
  void encode(const std::string& value, const std::string& forKey) override {
    fields.emplace_back(forKey, value);
  }
  std::vector<std::pair<std::string, std::string>> fields;
};

/// Gives the elements of a row; the value "(number)" stands for an element that is not a text.
class Elements final : public AgentStore::KeyedDecoder {
 public:
  explicit Elements(std::vector<std::pair<std::string, std::string>> elements)
      : elements_(std::move(elements)) {}

  std::optional<std::string> decodeIfPresent(const std::string& forKey) const override {
    for (const auto& [key, value] : elements_) {
      if (key != forKey) continue;
      if (value == "(number)") throw std::invalid_argument("not a text");
      return value;
    }
    return std::nullopt;
  }

 private:
  std::vector<std::pair<std::string, std::string>> elements_;
};

std::vector<std::pair<std::string, std::string>> encoded(const ScriptLocalData& record) {
  Encoded to;
  record.encode(to);
  return to.fields;
}

TEST(LocalRecord, EncodesVersionBeforePath) {
  EXPECT_THAT(encoded(ScriptLocalData("5", "/scripts/a.sh")),
              ElementsAre(Pair("version", "5"), Pair("scriptPath", "/scripts/a.sh")));
}

TEST(LocalRecord, EncodesPresentFieldsAlone) {
  EXPECT_THAT(encoded(ScriptLocalData("5", std::nullopt)), ElementsAre(Pair("version", "5")));
  EXPECT_THAT(encoded(ScriptLocalData(std::nullopt, "/a")), ElementsAre(Pair("scriptPath", "/a")));
  EXPECT_THAT(encoded(ScriptLocalData("", "")),
              ElementsAre(Pair("version", ""), Pair("scriptPath", "")));
  EXPECT_THAT(encoded(ScriptLocalData(std::nullopt, std::nullopt)), IsEmpty());
}

TEST(LocalRecord, IsMadeOfBothItsFieldsAndOfNoFewer) {
  using Text = std::optional<std::string>;
  EXPECT_TRUE((std::is_constructible_v<ScriptLocalData, Text, Text>));
  EXPECT_FALSE(std::is_default_constructible_v<ScriptLocalData>);
  EXPECT_FALSE((std::is_constructible_v<ScriptLocalData, Text>));
}

TEST(LocalRecord, DecodesWhatIsThere) {
  const ScriptLocalData both(Elements({{"scriptPath", "/a"}, {"version", "5"}}));
  EXPECT_EQ(both.version(), "5");
  EXPECT_EQ(both.scriptPath(), "/a");

  const ScriptLocalData neither(Elements({{"Version", "5"}, {"other", "x"}}));
  EXPECT_EQ(neither.version(), std::nullopt);
  EXPECT_EQ(neither.scriptPath(), std::nullopt);
}

TEST(LocalRecord, DoesNotDecodeAnElementThatIsNotAText) {
  EXPECT_ANY_THROW(ScriptLocalData(Elements({{"version", "(number)"}, {"scriptPath", "/a"}})));
  EXPECT_ANY_THROW(ScriptLocalData(Elements({{"version", "5"}, {"scriptPath", "(number)"}})));
}

TEST(LocalRecord, IsDestroyedThroughAPointerToItsBase) {
  class Derived final : public ScriptLocalData {
   public:
    explicit Derived(bool& destroyed) : ScriptLocalData("5", "/a"), destroyed_(destroyed) {}
    ~Derived() override { destroyed_ = true; }

   private:
    bool& destroyed_;
  };
  bool destroyed = false;
  std::unique_ptr<ScriptLocalData>(std::make_unique<Derived>(destroyed)).reset();
  EXPECT_TRUE(destroyed);
}

TEST(LocalRecord, IsChangedInPlace) {
  ScriptLocalData record(std::nullopt, std::nullopt);
  record.setVersion("5");
  record.setScriptPath("/a");
  record.modifyVersion()->append("1");
  record.modifyScriptPath()->append("/b");

  EXPECT_EQ(record.version(), "51");
  EXPECT_EQ(record.scriptPath(), "/a/b");
  record.setVersion(std::nullopt);
  record.modifyScriptPath().reset();
  EXPECT_THAT(encoded(record), IsEmpty());
}

// ---- Singleton -------------------------------------------------------------------------------

class LocalMeta : public doubles::AgentFixture {
 protected:
  static ScriptRepositoryLocalMetaProcessor& shared() {
    return ScriptRepositoryLocalMetaProcessor::shared();
  }
};

TEST_F(LocalMeta, OpensTheTableOnceOnFirstUse) {
  EXPECT_THAT(journal.entries(), IsEmpty());
  shared();
  shared();

  EXPECT_THAT(
      journal.entries(),
      ElementsAre("open <data>/Configuration-Framework/ScriptRepository table ScriptToMeta"));
}

TEST_F(LocalMeta, IsMadeOnceUnderConcurrentFirstUse) {
  constexpr std::size_t kThreads = 16;
  std::array<ScriptRepositoryLocalMetaProcessor*, kThreads> seen{};
  together(kThreads, [&](std::size_t index) { seen[index] = &shared(); });

  EXPECT_THAT(seen, testing::Each(&shared()));
  EXPECT_THAT(
      journal.entries(),
      ElementsAre("open <data>/Configuration-Framework/ScriptRepository table ScriptToMeta"));
}

TEST_F(LocalMeta, DestructionReleasesTheStore) {
  std::make_unique<ScriptRepositoryLocalMetaProcessor>().reset();

  EXPECT_THAT(journal.entries(),
              ElementsAre("open <data>/Configuration-Framework/ScriptRepository table ScriptToMeta",
                          "close store"));
}

TEST_F(LocalMeta, VersionOfANewScriptMakesARowWithoutPath) {
  shared();
  journal.reset();

  shared().setScriptVersion("42", "5");

  EXPECT_THAT(journal.entries(), ElementsAre("fetch 42", "update 42 version=5"));
  EXPECT_EQ(shared().getScriptVersion("42"), "5");
  EXPECT_EQ(shared().getScriptPath("42"), std::nullopt);
}

TEST_F(LocalMeta, PathOfANewScriptMakesARowWithoutVersion) {
  shared().setScriptPath("42", "/a.sh");

  EXPECT_EQ(store.row("42"), "scriptPath=/a.sh");
  EXPECT_EQ(shared().getScriptVersion("42"), std::nullopt);
  EXPECT_EQ(shared().getScriptPath("42"), "/a.sh");
}

TEST_F(LocalMeta, EachSetterKeepsTheOtherField) {
  shared().setScriptVersion("42", "5");
  shared().setScriptPath("42", "/a.sh");
  EXPECT_EQ(store.row("42"), "version=5 scriptPath=/a.sh");
  shared().setScriptVersion("42", "6");
  EXPECT_EQ(store.row("42"), "version=6 scriptPath=/a.sh");
  shared().setScriptPath("42", "/b.sh");
  EXPECT_EQ(store.row("42"), "version=6 scriptPath=/b.sh");
}

TEST_F(LocalMeta, EachScriptHasItsOwnRowUnderItsExactID) {
  shared().setScriptVersion("a", "1");
  shared().setScriptVersion("A", "2");
  shared().setScriptVersion(" a", "3");
  shared().setScriptVersion("", "4");

  EXPECT_EQ(shared().getScriptVersion("a"), "1");
  EXPECT_EQ(shared().getScriptVersion("A"), "2");
  EXPECT_EQ(shared().getScriptVersion(" a"), "3");
  EXPECT_EQ(shared().getScriptVersion(""), "4");
  EXPECT_THAT(shared().getAllScriptIDs(), UnorderedElementsAre("a", "A", " a", ""));
}

TEST_F(LocalMeta, ARowWhoseVersionIsNoTextReadsAsAbsentAndIsReplaced) {
  store.rows["42"] = {{"version", std::nullopt}, {"scriptPath", "/a.sh"}};

  EXPECT_EQ(shared().getScriptVersion("42"), std::nullopt);
  EXPECT_EQ(shared().getScriptPath("42"), std::nullopt);
  shared().setScriptVersion("42", "5");
  EXPECT_EQ(store.row("42"), "version=5");
}

TEST_F(LocalMeta, ARowWhosePathIsNoTextIsReplacedByThePathAlone) {
  store.rows["42"] = {{"version", "5"}, {"scriptPath", std::nullopt}};

  EXPECT_EQ(shared().getScriptVersion("42"), std::nullopt);
  shared().setScriptPath("42", "/a.sh");
  EXPECT_EQ(store.row("42"), "scriptPath=/a.sh");
}

TEST_F(LocalMeta, UnknownElementsOfARowAreIgnored) {
  store.rows["42"] = {{"other", std::nullopt}, {"version", "5"}};

  EXPECT_EQ(shared().getScriptVersion("42"), "5");
}

TEST_F(LocalMeta, RemovalDeletesTheRow) {
  store.rows["42"] = {{"version", "5"}};
  store.rows["43"] = {{"version", "6"}};
  shared();
  journal.reset();

  shared().removeScriptData("42");
  shared().removeScriptData("unknown");

  EXPECT_THAT(journal.entries(), ElementsAre("delete 42", "delete unknown"));
  EXPECT_THAT(shared().getAllScriptIDs(), ElementsAre("43"));
}

TEST_F(LocalMeta, AnEmptyTableGivesAnEmptyListWithoutALine) {
  EXPECT_THAT(shared().getAllScriptIDs(), IsEmpty());
  EXPECT_THAT(journal.log(), IsEmpty());
}

// ---- A store that fails ----------------------------------------------------------------------

TEST_F(LocalMeta, WithoutAStoreGettersAreAbsentAndSettersSilent) {
  journal.throwAlways("open");
  EXPECT_EQ(shared().getScriptVersion("42"), std::nullopt);
  EXPECT_EQ(shared().getScriptPath("42"), std::nullopt);
  shared().setScriptVersion("42", "5");
  shared().setScriptPath("42", "/a.sh");
  shared().removeScriptData("42");

  EXPECT_THAT(
      journal.entries(),
      ElementsAre("open <data>/Configuration-Framework/ScriptRepository table ScriptToMeta"));
}

TEST_F(LocalMeta, WithoutAStoreEachListingWritesTheErrorLine) {
  journal.throwAlways("open");
  shared();
  EXPECT_THAT(shared().getAllScriptIDs(), IsEmpty());
  EXPECT_THAT(shared().getAllScriptIDs(), IsEmpty());

  EXPECT_THAT(journal.log(),
              ElementsAre("error ScriptRepositoryLocalMeta getAllScriptIDs(): No ScriptIDs found "
                          "in the storage.",
                          "error ScriptRepositoryLocalMeta getAllScriptIDs(): No ScriptIDs found "
                          "in the storage."));
}

TEST_F(LocalMeta, AStoreThatCouldNotBeOpenedIsNotTriedAgain) {
  journal.throwAlways("open");
  shared();
  journal.reset();

  EXPECT_EQ(shared().getScriptVersion("42"), std::nullopt);
  shared().setScriptVersion("42", "5");

  EXPECT_THAT(journal.entries(), IsEmpty());
  EXPECT_THAT(store.rows, IsEmpty());
}

TEST_F(LocalMeta, AFailedFetchCountsAsAMissingRow) {
  store.rows["42"] = {{"version", "5"}, {"scriptPath", "/a.sh"}};
  shared();
  for (const auto what : {doubles::Thrown::exception, doubles::Thrown::somethingElse}) {
    journal.reset();
    journal.throwAlways("fetch", what);
    EXPECT_EQ(shared().getScriptVersion("42"), std::nullopt);
    EXPECT_EQ(shared().getScriptPath("42"), std::nullopt);
    EXPECT_THAT(journal.entries(), ElementsAre("fetch 42", "fetch 42"));
  }

  shared().setScriptVersion("42", "6");
  // The path is lost: an unreadable row is replaced, not merged with.
  EXPECT_EQ(store.row("42"), "version=6");
}

TEST_F(LocalMeta, AFailedWriteIsDroppedWithoutALine) {
  store.rows["42"] = {{"version", "5"}, {"scriptPath", "/a.sh"}};
  shared();
  for (const auto what : {doubles::Thrown::exception, doubles::Thrown::somethingElse}) {
    journal.reset();
    journal.throwAlways("update", what);
    journal.throwAlways("delete", what);
    shared().setScriptVersion("42", "6");
    shared().setScriptPath("42", "/b.sh");
    shared().removeScriptData("42");

    EXPECT_THAT(journal.entries(),
                ElementsAre("fetch 42", "update 42 version=6 scriptPath=/a.sh", "fetch 42",
                            "update 42 version=5 scriptPath=/b.sh", "delete 42"));
    EXPECT_EQ(store.row("42"), "version=5 scriptPath=/a.sh");
  }
}

}  // namespace
