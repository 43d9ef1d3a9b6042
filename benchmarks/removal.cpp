// The removal of COUNT scripts, each with a script file, a data document and a local record:
// `removal library|bare DIRECTORY COUNT`. `bare` is the unlinks and a deleting transaction for
// each, by a statement that is prepared once. `removal list DIRECTORY COUNT` removes nothing and
// reads the IDs of all records. The result is the number of scripts.

#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string_view>

#include "AgentSettings.h"
#include "Contestant.h"
#include "Directories.h"
#include "ScriptRepositoryLocalMetaProcessor.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

namespace {

using VarnScriptRepository::ScriptRepositoryLocalMetaProcessor;
using VarnScriptRepository::ScriptRepositoryMetaProcessor;
using VarnScriptRepository::ScriptRepositoryProcessor;

/// A connection of the bench's own, with the settings of the store's.
class Database {
 public:
  explicit Database(const std::string& path) {
    if (sqlite3_open_v2(path.c_str(), &database_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
      bench::fail("the store can't be opened");
    }
    sqlite3_busy_timeout(database_, 5000);
  }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  ~Database() { sqlite3_close(database_); }

  void execute(const char* text) {
    if (sqlite3_exec(database_, text, nullptr, nullptr, nullptr) != SQLITE_OK) bench::fail(text);
  }

  sqlite3_stmt* prepare(const char* text) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database_, text, -1, &statement, nullptr) != SQLITE_OK) {
      bench::fail(text);
    }
    return statement;
  }

  static void bind(sqlite3_stmt* statement, int index, const std::string& text) {
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()),
                      SQLITE_TRANSIENT);
  }

  static void run(sqlite3_stmt* statement) {
    if (sqlite3_step(statement) != SQLITE_DONE) bench::fail("a statement failed");
    sqlite3_reset(statement);
  }

 private:
  sqlite3* database_ = nullptr;
};

class Scripts {
 public:
  explicit Scripts(std::size_t count) {
    for (std::size_t number = 0; number < count; ++number) {
      ids.push_back(std::to_string(100000 + number));
    }
  }

  [[nodiscard]] static std::string scriptPath(const std::string& id) {
    return VarnScriptRepository::scriptRepoScriptsDirectory() + "/" + id + ".sh";
  }
  [[nodiscard]] static std::string documentPath(const std::string& id) {
    return VarnScriptRepository::scriptRepoDataDirectory() + "/" + id + ".xml";
  }

  void make(Database& database) const {
    std::filesystem::create_directories(VarnScriptRepository::scriptRepoScriptsDirectory());
    std::filesystem::create_directories(VarnScriptRepository::scriptRepoDataDirectory());
    database.execute("BEGIN");
    sqlite3_stmt* const insert =
        database.prepare("INSERT OR REPLACE INTO ScriptToMeta (key, value) VALUES (?, ?)");
    for (const std::string& id : ids) {
      std::ofstream(scriptPath(id)) << "echo " << id << '\n';
      std::ofstream(documentPath(id)) << "<script/>\n";
      Database::bind(insert, 1, id);
      Database::bind(insert, 2, R"({"version":"1","scriptPath":")" + scriptPath(id) + R"("})");
      Database::run(insert);
    }
    sqlite3_finalize(insert);
    database.execute("COMMIT");
  }

  std::vector<std::string> ids;
};

std::size_t removeBare(const Scripts& scripts, sqlite3_stmt* remove) {
  for (const std::string& id : scripts.ids) {
    if (::unlink(Scripts::scriptPath(id).c_str()) != 0) bench::fail("unlink");
    if (::unlink(Scripts::documentPath(id).c_str()) != 0) bench::fail("unlink");
    Database::bind(remove, 1, id);
    Database::run(remove);
  }
  return scripts.ids.size();
}

std::size_t removeByLibrary(const Scripts& scripts) {
  ScriptRepositoryProcessor::removeServerRemovedScripts();
  // Whether it has removed them is looked at on the last one.
  if (::access(Scripts::documentPath(scripts.ids.back()).c_str(), F_OK) == 0) {
    bench::fail("nothing was removed");
  }
  return scripts.ids.size();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) bench::fail("usage: removal library|bare|list DIRECTORY COUNT");
  const std::string_view mode = argv[1];
  AgentUtils::AgentSettings settings;
  settings.basePath = argv[2];
  settings.dataPath = settings.basePath + "/data";
  settings.customerID = "7";
  AgentUtils::configure(settings);
  const Scripts scripts(std::strtoull(argv[3], nullptr, 10));
  auto& local = ScriptRepositoryLocalMetaProcessor::shared();
  ScriptRepositoryMetaProcessor::shared().setScriptRepoAllMetaData(
      VarnScriptRepository::ScriptRepoAllMetaData{});
  Database database(VarnScriptRepository::ScriptRepositoryConstants::FilePath::scriptRepository());
  if (mode == "list") {
    scripts.make(database);
    return bench::serve([&] { return local.getAllScriptIDs().size(); });
  }
  const auto make = [&] { scripts.make(database); };
  if (mode == "library") return bench::serve([&] { return removeByLibrary(scripts); }, make);
  sqlite3_stmt* const remove = database.prepare("DELETE FROM ScriptToMeta WHERE key = ?");
  const int status = bench::serve([&] { return removeBare(scripts, remove); }, make);
  sqlite3_finalize(remove);
  return status;
}
