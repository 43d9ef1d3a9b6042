// The store: rows, their stored form, and the database file.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>

#include "AgentUtils.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/StoredRecord.h"
#include "support/TemporaryDirectory.h"

using AgentUtils::RootAccessKeyValueStorage;

namespace {

using namespace std::string_literals;
using Rows = std::map<std::string, std::string>;

constexpr std::type_identity<StoredRecord> kRecord;

class Store : public testing::Test {
 protected:
  /// Runs SQL on the database file as another program would; gives the first column of all rows,
  /// separated by '|'.
  std::string sql(const std::string& statement) {
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    std::string result;
    char* message = nullptr;
    const auto collect = [](void* to, int, char** values, char**) {
      *static_cast<std::string*>(to) += (values[0] == nullptr ? "NULL" : values[0]) + "|"s;
      return 0;
    };
    EXPECT_EQ(sqlite3_exec(database, statement.c_str(), collect, &result, &message), SQLITE_OK)
        << (message == nullptr ? "" : message);
    sqlite3_free(message);
    sqlite3_close(database);
    return result;
  }

  std::unique_ptr<RootAccessKeyValueStorage> open(const std::string& container = "ScriptToMeta") {
    return std::make_unique<RootAccessKeyValueStorage>(path, container);
  }

  static void update(RootAccessKeyValueStorage& store, const std::string& key,
                     const StoredRecord& record) {
    store.updateValue(&record, key);
  }

  const LogCapture log;
  const TemporaryDirectory directory;
  std::string path = directory / "data/Configuration-Framework/ScriptRepository";
};

TEST_F(Store, KeepsRowsAsObjectsInTheRecordsOrderWithAbsentFieldsLeftOut) {
  const auto store = open();
  update(*store, "both", {"5", "/opt/clean.sh"});
  update(*store, "neither", {{}, {}});
  update(*store, "path", {{}, "/opt/\xC3\xA9 \"x\".sh"});
  update(*store, "version", {"", {}});
  EXPECT_EQ(store->fetchTableAsDictionary(),
            (Rows{{"both", R"({"version":"5","scriptPath":"/opt/clean.sh"})"},
                  {"neither", "{}"},
                  {"path", "{\"scriptPath\":\"/opt/\xC3\xA9 \\\"x\\\".sh\"}"},
                  {"version", R"({"version":""})"}}));
}

TEST_F(Store, ATextThatIsNotUTF8IsAFailedWriteAndLeavesTheRow) {
  const auto store = open();
  update(*store, "42", {"5", {}});
  EXPECT_ANY_THROW(update(*store, "42", {"6\xFF", {}}));
  EXPECT_ANY_THROW(update(*store, "42", {"6", "\xC3"}));
  EXPECT_ANY_THROW(update(*store, "\xFF", {"6", {}}));
  EXPECT_EQ(store->fetchTableAsDictionary(), (Rows{{"42", R"({"version":"5"})"}}));
}

TEST_F(Store, ARowThatIsNoSuchObjectThrowsWhenFetchedButIsListed) {
  const std::string values[] = {"",
                                "x",
                                "[]",
                                "null",
                                "\"5\"",
                                "{",
                                "{\"version\":5}",
                                "{\"version\":null}",
                                "{\"scriptPath\":{}}"};
  const auto store = open();
  for (const std::string& value : values) {
    sql("INSERT OR REPLACE INTO ScriptToMeta VALUES ('42', '" + value + "')");
    EXPECT_ANY_THROW(static_cast<void>(store->fetchValue("42", kRecord))) << value;
    EXPECT_EQ(store->fetchTableAsDictionary(), (Rows{{"42", value}}));
  }
  // Fetching goes on after such a row.
  update(*store, "42", {"5", {}});
  EXPECT_EQ(store->fetchValue("42", kRecord)->version, "5");
}

TEST_F(Store, IgnoresElementsThatTheRecordDoesNotName) {
  const auto store = open();
  sql("INSERT INTO ScriptToMeta VALUES ('42', '{\"other\":[1,{}], \"version\" : \"5\"}')");
  const auto fetched = store->fetchValue("42", kRecord);
  ASSERT_NE(fetched, nullptr);
  EXPECT_EQ(fetched->version, "5");
  EXPECT_EQ(fetched->scriptPath, std::nullopt);
}

TEST_F(Store, HasATableOfItsNameWithTheTwoColumns) {
  open();
  EXPECT_EQ(sql("SELECT sql FROM sqlite_master WHERE type = 'table'"),
            "CREATE TABLE \"ScriptToMeta\" (key TEXT PRIMARY KEY, value TEXT NOT NULL)|");
}

TEST_F(Store, KeepsContainersApartWhateverTheirNames) {
  const std::string names[] = {"A", "a b",      "a\"b",   "x; DROP TABLE A",
                               "'", "\xC3\xA9", "select", "]"};
  for (const std::string& name : names) update(*open(name), "name", {name, {}});
  for (const std::string& name : names) {
    EXPECT_EQ(open(name)->fetchValue("name", kRecord)->version, name);
  }
}

TEST_F(Store, RefusesAContainerThatIsNoTableName) {
  EXPECT_ANY_THROW(open(""));
  EXPECT_ANY_THROW(open("a\0b"s));
  EXPECT_ANY_THROW(open("\xFF"));
}

TEST_F(Store, CreatesFileAndDirectoriesForTheOwnerAloneWhateverTheUmask) {
  for (const mode_t mask : {0000u, 0022u, 0277u}) {
    const Umask umask(mask);
    path = directory / (std::to_string(mask) + "/Configuration-Framework/ScriptRepository");
    update(*open(), "42", {"5", {}});
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(modeOf(directory / (std::to_string(mask) + "/Configuration-Framework")), 0700u);
    EXPECT_EQ(modeOf(directory / std::to_string(mask)), 0700u);
  }
}

TEST_F(Store, LeavesNothingButTheDatabaseFileBehind) {
  update(*open(), "42", {"5", {}});
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory.path())) {
    if (entry.is_regular_file()) names.push_back(entry.path().string());
  }
  EXPECT_EQ(names, std::vector<std::string>{path});
  EXPECT_EQ(sql("PRAGMA integrity_check"), "ok|");
}

TEST_F(Store, IsNotOpenedThroughALink) {
  path = directory / "store";
  open();
  const std::string target = path;
  const std::string before = readFile(target);
  path = directory / "link";
  ASSERT_EQ(::symlink("store", path.c_str()), 0);
  EXPECT_ANY_THROW(open("Other"));
  EXPECT_EQ(readFile(target), before);
  path = directory / "dangling";
  ASSERT_EQ(::symlink("made-by-link", path.c_str()), 0);
  EXPECT_ANY_THROW(open());
  EXPECT_FALSE(std::filesystem::exists(directory / "made-by-link"));
}

TEST_F(Store, IsOpenedThroughALinkedDirectory) {
  ASSERT_EQ(::mkdir((directory / "real").c_str(), 0700), 0);
  ASSERT_EQ(::symlink("real", (directory / "link").c_str()), 0);
  path = directory / "link/store";
  update(*open(), "42", {"5", {}});
  EXPECT_TRUE(std::filesystem::exists(directory / "real/store"));
}

TEST_F(Store, RefusesWhatIsNoDatabaseFile) {
  path = directory / "store";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_ANY_THROW(open());
  ASSERT_EQ(::unlink(path.c_str()), 0);
  ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
  EXPECT_ANY_THROW(open());
  path = directory / "text";
  const std::string text(1000, 't');
  writeFile(path, text);
  EXPECT_ANY_THROW(open());
  EXPECT_EQ(readFile(path), text);
}

TEST_F(Store, IsNotWaitedForAtWhatIsNoJournal) {
  path = directory / "store";
  update(*open(), "42", {"5", {}});
  for (const char* const suffix : {"-journal", "-wal", "-shm"}) {
    const std::string companion = path + suffix;
    // SQLite would wait for the other end.
    ASSERT_EQ(::mkfifo(companion.c_str(), 0600), 0);
    EXPECT_ANY_THROW(open());
    ASSERT_EQ(::unlink(companion.c_str()), 0);
    ASSERT_EQ(::symlink("made-by-link", companion.c_str()), 0);
    EXPECT_ANY_THROW(open());
    ASSERT_EQ(::unlink(companion.c_str()), 0);
  }
  EXPECT_FALSE(std::filesystem::exists(directory / "made-by-link"));
  EXPECT_EQ(open()->fetchValue("42", kRecord)->version, "5");
}

TEST_F(Store, RefusesATableThatIsNotAsItMakesOne) {
  const std::string columns = "(key TEXT PRIMARY KEY, value TEXT NOT NULL)";
  const std::string endless =
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT i, i FROM n";
  const std::string large = "length(hex(zeroblob(400000000)))";
  const std::string rows[] = {
      "CREATE TABLE ScriptToMeta " + columns + "; CREATE TABLE other (a, b);" +
          "CREATE TRIGGER t AFTER INSERT ON ScriptToMeta BEGIN INSERT INTO other SELECT * FROM (" +
          endless + "); END",
      "CREATE VIEW ScriptToMeta (key, value) AS " + endless,
      "CREATE TABLE ScriptToMeta (key TEXT PRIMARY KEY, value TEXT NOT NULL CHECK (" + large + "))",
      "CREATE TABLE ScriptToMeta (key TEXT PRIMARY KEY, value TEXT NOT NULL, x AS (" + large + "))",
      "CREATE TABLE ScriptToMeta " + columns + "; CREATE INDEX i ON ScriptToMeta (" + large +
          " || key)",
      "CREATE TABLE ScriptToMeta (key TEXT, value TEXT NOT NULL)",
      "CREATE TABLE ScriptToMeta (key, value)",
      "CREATE TABLE scripttometa (a)",
  };
  int number = 0;
  for (const std::string& row : rows) {
    path = directory / std::to_string(number++);
    writeFile(path, "");
    sql(row);
    EXPECT_ANY_THROW({
      const auto store = open();
      update(*store, "42", {"5", {}});
      static_cast<void>(store->fetchTableAsDictionary());
    }) << row;
  }
}

TEST_F(Store, TakesATableThatIsSpelledInAnotherWay) {
  path = directory / "store";
  writeFile(path, "");
  sql("create table [ScriptToMeta]\n( 'key' text primary key , value TEXT not null);"
      "CREATE TABLE other (a); CREATE TRIGGER t AFTER INSERT ON other BEGIN SELECT 1; END");
  update(*open(), "42", {"5", {}});
  EXPECT_EQ(open()->fetchValue("42", kRecord)->version, "5");
}

TEST_F(Store, ATriggerThatComesLaterIsNotPulled) {
  const auto store = open();
  sql("CREATE TABLE other (a);"
      "CREATE TRIGGER t AFTER INSERT ON ScriptToMeta BEGIN INSERT INTO other VALUES (1); END");
  update(*store, "42", {"5", {}});
  EXPECT_EQ(sql("SELECT count(*) FROM other"), "0|");
}

TEST_F(Store, RefusesAPathThatCannotBe) {
  writeFile(directory / "file", "");
  for (const std::string& impossible :
       {directory / "file/store", directory / "store/", directory / "a\0b"s, ""s}) {
    path = impossible;
    EXPECT_ANY_THROW(open()) << impossible;
  }
}

TEST_F(Store, ATableThatCannotBeReadIsEmpty) {
  const auto store = open();
  update(*store, "42", {"5", {}});
  sql("ALTER TABLE ScriptToMeta RENAME TO Gone");
  EXPECT_EQ(store->fetchTableAsDictionary(), Rows{});
  EXPECT_ANY_THROW(static_cast<void>(store->fetchValue("42", kRecord)));
  EXPECT_ANY_THROW(update(*store, "42", {"6", {}}));
  EXPECT_ANY_THROW(store->deleteValue("42"));
  sql("ALTER TABLE Gone RENAME TO ScriptToMeta");
  EXPECT_EQ(store->fetchTableAsDictionary(), (Rows{{"42", R"({"version":"5"})"}}));
}

TEST_F(Store, WritableByOthersIsReportedOnce) {
  ASSERT_EQ(::mkdir((directory / "open").c_str(), 0700), 0);
  ASSERT_EQ(::chmod((directory / "open").c_str(), 0777), 0);
  path = directory / "open/store";
  open();
  ASSERT_EQ(::chmod(path.c_str(), 0620), 0);
  open();
  open();
  const std::string start =
      "info RootAccessKeyValueStorage init(storagePath:container:): "
      "Writable by others than its owner: ";
  EXPECT_EQ(log.lines(), (std::vector<std::string>{start + (directory / "open"), start + path}));
}

TEST_F(Store, ForItsOwnerAloneIsNotReported) {
  update(*open(), "42", {"5", {}});
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

}  // namespace
