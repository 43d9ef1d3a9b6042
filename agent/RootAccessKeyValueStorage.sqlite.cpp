// The bundled store: one SQLite database file, one table for each container, one row of JSON for
// each key.
//
// Every operation is one statement and so one transaction: a process that is killed at any moment
// leaves the row before or the row after, and SQLite mends the file when it is opened next. The
// journal is the default one: it leaves a single file behind, and a program that only reads opens
// no further ones. Several processes may use a store at once; a writer that finds it busy waits up
// to 5 s and then throws, and so does a statement that works for 5 s. One object may be used from
// several threads.

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "AgentSettings.h"
#include "AgentUtils.h"
#include "FileDescriptor.h"
#include "RowCoding.h"
#include "WritableByOthers.h"

namespace AgentUtils {
namespace {

using posix::FileDescriptor;

constexpr char kUnit[] = "RootAccessKeyValueStorage";
constexpr char kOpening[] = "init(storagePath:container:)";
constexpr int kBusyTimeoutMilliseconds = 5000;
constexpr mode_t kFileMode = 0600;
constexpr char kColumns[] = " (key TEXT PRIMARY KEY, value TEXT NOT NULL)";
constexpr int kLongestValue = 64 << 20;
constexpr int kStepsBetweenLooks = 10'000;
constexpr std::chrono::seconds kLongestStatement{5};

[[noreturn]] void throwError(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

struct FreeMemory {
  void operator()(char* memory) const { std::free(memory); }
};

/// `path` with the links of its directories resolved and its last component as it is, so that
/// SQLite can be asked to follow no link at all.
std::string pathWithoutLinks(const std::string& directory, const std::string& name) {
  const std::unique_ptr<char, FreeMemory> resolved(::realpath(directory.c_str(), nullptr));
  if (!resolved) throwError(errno, "can't resolve " + directory);
  return std::string(resolved.get()) + '/' + name;
}

/// Refuses what stands where SQLite keeps a journal or a log and is no file of its own: a link
/// would lead a write somewhere else, a FIFO would be waited for without end.
void requireRegularCompanions(const std::string& path) {
  for (const char* const suffix : {"-journal", "-wal", "-shm"}) {
    const std::string companion = path + suffix;
    struct stat status {};
    if (::lstat(companion.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
      throwError(EINVAL, "not a regular file: " + companion);
    }
  }
}

/// Creates the database file, empty, so that its mode never depends on the umask. What exists must
/// be a regular file: a link would lead a write somewhere else, a FIFO would be waited for.
void ensureRegularFile(const std::string& path) {
  // Never opened when it exists: closing the descriptor would drop the locks that this process
  // holds on the database through another connection. One thread at a time, so that "exists" is
  // known before another thread connects.
  static std::mutex& mutex = *new std::mutex;
  const std::lock_guard lock(mutex);
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode)) throwError(EINVAL, "not a regular file: " + path);
    return;
  }
  const FileDescriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!file) {
    // Another process was faster; SQLite itself refuses a link.
    if (errno == EEXIST) return;
    throwError(errno, "can't create " + path);
  }
  if (::fchmod(file.get(), kFileMode) != 0) throwError(errno, "can't set the mode of " + path);
}

/// Makes what is missing for a database at `storagePath` and gives the path to open.
std::string preparedPath(const std::string& storagePath) {
  const std::size_t slash = storagePath.rfind('/');
  if (slash == std::string::npos || slash + 1 == storagePath.size() ||
      storagePath.find('\0') != std::string::npos) {
    throwError(EINVAL, "not the path of a file: " + storagePath);
  }
  const std::string directory = slash == 0 ? "/" : storagePath.substr(0, slash);
  if (!FileUtils().createDirectory(directory, true)) {
    throwError(errno, "can't create the directory " + directory);
  }
  std::string path = pathWithoutLinks(directory, storagePath.substr(slash + 1));
  ensureRegularFile(path);
  requireRegularCompanions(path);
  reportWhenWritableByOthers(directory, kUnit, kOpening);
  reportWhenWritableByOthers(path, kUnit, kOpening);
  return path;
}

/// The name of a table as SQL spells it.
std::string quoted(const std::string& container) {
  if (container.empty() || container.find('\0') != std::string::npos) {
    throwError(EINVAL, "not the name of a table");
  }
  AgentStore::requireUTF8(container);
  std::string name = "\"";
  for (const char c : container) {
    name += c;
    if (c == '"') name += c;
  }
  return name + '"';
}

/// SQL in which two spellings of one table are the same text.
std::string withoutSpelling(const std::string& sql) {
  std::string text;
  for (const char c : sql) {
    if (std::string_view(" \t\r\n\"'`[]").find(c) != std::string_view::npos) continue;
    text += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return text;
}

/// The connection, with the table in it. A database can hold programs: views, triggers, checks,
/// generated columns. None of its own has any, so those of a file that somebody else has made are
/// not run, and a table that is more than rows is refused.
class Connection {
 public:
  Connection(const std::string& path, const std::string& container)
      : database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_NOFOLLOW | SQLite::OPEN_FULLMUTEX,
                 kBusyTimeoutMilliseconds) {
    sqlite3* const handle = database.getHandle();
    for (const int off : {SQLITE_DBCONFIG_TRUSTED_SCHEMA, SQLITE_DBCONFIG_ENABLE_TRIGGER,
                          SQLITE_DBCONFIG_ENABLE_VIEW}) {
      sqlite3_db_config(handle, off, 0, nullptr);
    }
    sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, kLongestValue);
    sqlite3_progress_handler(handle, kStepsBetweenLooks, &isOverdue, this);
    database.exec("PRAGMA cell_size_check = ON");
    const std::string table = quoted(container) + kColumns;
    database.exec("CREATE TABLE IF NOT EXISTS " + table);
    requireOnly(container, withoutSpelling("CREATE TABLE " + table));
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// A statement begins. It is given up when it works for longer than any of ours.
  void beginStatement() { deadline_.reset(); }

  SQLite::Database database;

 private:
  using Clock = std::chrono::steady_clock;

  void requireOnly(const std::string& container, const std::string& table) const {
    SQLite::Statement parts(database,
                            "SELECT sql FROM sqlite_master WHERE tbl_name = ? COLLATE NOCASE AND "
                            "sql IS NOT NULL");
    parts.bind(1, container);
    while (parts.executeStep()) {
      if (withoutSpelling(parts.getColumn(0).getString()) != table) {
        throw std::runtime_error("its table is not one of keys and values alone");
      }
    }
  }

  /// SQLite asks now and then while a statement works, not while it waits for another process.
  static int isOverdue(void* connection) {
    auto& deadline = static_cast<Connection*>(connection)->deadline_;
    const auto now = Clock::now();
    if (!deadline) deadline = now + kLongestStatement;
    return now > *deadline ? 1 : 0;
  }

  std::optional<Clock::time_point> deadline_;
};

/// Takes a prepared statement back to its beginning, whatever happens, so that it holds no lock.
class Use {
 public:
  Use(Connection& connection, SQLite::Statement& statement) : statement_(statement) {
    connection.beginStatement();
  }
  ~Use() { statement_.tryReset(); }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

 private:
  SQLite::Statement& statement_;
};

}  // namespace

/// The open table: its statements are prepared once and kept.
struct RootAccessKeyValueStorage::Table {
  Table(const std::string& path, const std::string& container, const std::string& name)
      : connection(path, container),
        select(connection.database, "SELECT value FROM " + name + " WHERE key = ?"),
        selectAll(connection.database, "SELECT key, value FROM " + name + " WHERE key IS NOT NULL"),
        upsert(connection.database, "INSERT INTO " + name +
                                        " (key, value) VALUES (?, ?) ON CONFLICT (key) DO UPDATE "
                                        "SET value = excluded.value"),
        remove(connection.database, "DELETE FROM " + name + " WHERE key = ?") {}

  Connection connection;
  SQLite::Statement select;
  SQLite::Statement selectAll;
  SQLite::Statement upsert;
  SQLite::Statement remove;
  std::mutex mutex;  ///< one statement at a time: binding, stepping and resetting belong together
};

RootAccessKeyValueStorage::RootAccessKeyValueStorage(const std::string& storagePath,
                                                     const std::string& container)
    : table_(std::make_unique<Table>(preparedPath(storagePath), container, quoted(container))) {}

RootAccessKeyValueStorage::~RootAccessKeyValueStorage() = default;

void RootAccessKeyValueStorage::deleteValue(const std::string& forKey) {
  const std::lock_guard lock(table_->mutex);
  const Use use(table_->connection, table_->remove);
  table_->remove.bind(1, forKey);
  table_->remove.exec();
}

std::map<std::string, std::string> RootAccessKeyValueStorage::fetchTableAsDictionary() noexcept {
  try {
    const std::lock_guard lock(table_->mutex);
    const Use use(table_->connection, table_->selectAll);
    std::map<std::string, std::string> rows;
    while (table_->selectAll.executeStep()) {
      rows.emplace(table_->selectAll.getColumn(0).getString(),
                   table_->selectAll.getColumn(1).getString());
    }
    return rows;
  } catch (...) {
    return {};
  }
}

void RootAccessKeyValueStorage::fetchRow(
    const std::string& forKey, const std::function<void(const AgentStore::KeyedDecoder&)>& decode) {
  std::string row;
  {
    const std::lock_guard lock(table_->mutex);
    const Use use(table_->connection, table_->select);
    table_->select.bind(1, forKey);
    if (!table_->select.executeStep()) return;
    row = table_->select.getColumn(0).getString();
  }
  decode(AgentStore::RowDecoder(row));
}

void RootAccessKeyValueStorage::updateRow(
    const std::string& forKey, const std::function<void(AgentStore::KeyedEncoder&)>& encode) {
  AgentStore::requireUTF8(forKey);
  AgentStore::RowEncoder encoder;
  encode(encoder);
  const std::string row = encoder.row();
  {
    const std::lock_guard lock(table_->mutex);
    const Use use(table_->connection, table_->upsert);
    table_->upsert.bind(1, forKey);
    table_->upsert.bind(2, row);
    table_->upsert.exec();
  }
  if (settings().afterRowWrite) settings().afterRowWrite(forKey);
}

}  // namespace AgentUtils
