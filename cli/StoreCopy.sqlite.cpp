#include "StoreCopy.h"

#include <SQLiteCpp/Backup.h>
#include <SQLiteCpp/Database.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <tuple>

namespace VarnScripts {
namespace {

constexpr int kBusyMilliseconds = 5000;
constexpr int kCopyAttempts = 100;

// The files that can make up a store together.
constexpr const char* kSuffixes[] = {"", "-journal", "-wal"};

// Whether reading the store in its place would need a shared file beside it: the header's byte 18
// says that there is a write-ahead log.
bool hasWriteAheadLog(const std::string& path) {
  std::array<char, 20> header{};
  std::ifstream file(path, std::ios::binary);
  file.read(header.data(), static_cast<std::streamsize>(header.size()));
  return file && header[18] == 2;
}

bool hasJournal(const std::string& path) {
  std::error_code none;
  const auto size = std::filesystem::file_size(path + "-journal", none);
  return !none && size > 0;
}

void copyByLibrary(const std::string& from, const std::string& to) {
  SQLite::Database source(from, SQLite::OPEN_READONLY, kBusyMilliseconds);
  SQLite::Database target(to, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  // Nobody reads what an interrupted copy leaves.
  target.exec("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF");
  SQLite::Backup backup(target, source);
  const int result = backup.executeStep(-1);
  if (result != SQLITE_DONE) throw std::runtime_error(::sqlite3_errstr(result));
}

using State = std::tuple<bool, ino_t, off_t, decltype(stat::st_mtime), long>;

State stateOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return {};
#ifdef __APPLE__
  const long part = status.st_mtimespec.tv_nsec;
#else
  const long part = status.st_mtim.tv_nsec;
#endif
  return {true, status.st_ino, status.st_size, status.st_mtime, part};
}

std::array<State, std::size(kSuffixes)> statesOf(const std::string& path) {
  std::array<State, std::size(kSuffixes)> states;
  for (std::size_t i = 0; i < states.size(); ++i) states[i] = stateOf(path + kSuffixes[i]);
  return states;
}

// Copies the store's files as they stand, with the log or journal of an interrupted transaction,
// which whoever opens the copy then brings to its end there.
void copyFiles(const std::string& from, const std::string& to) {
  for (int attempt = 0; attempt < kCopyAttempts; ++attempt) {
    const auto before = statesOf(from);
    for (std::size_t i = 0; i < before.size(); ++i) {
      std::filesystem::remove(to + kSuffixes[i]);
      if (!std::get<bool>(before[i])) continue;
      std::filesystem::copy_file(from + kSuffixes[i], to + kSuffixes[i]);
    }
    if (statesOf(from) == before) return;
  }
  throw std::runtime_error("it is being written all the time");
}

}  // namespace

void copyStore(const std::string& from, const std::string& to) {
  // Anything else, such as a FIFO, could be waited for without end.
  for (const char* const suffix : kSuffixes) {
    const auto kind = std::filesystem::status(from + suffix).type();
    if (kind != std::filesystem::file_type::regular &&
        kind != std::filesystem::file_type::not_found) {
      throw std::runtime_error("it is not a file");
    }
  }
  // A transaction that is open or was interrupted is ended by whoever reads the store in its place.
  if (hasWriteAheadLog(from) || hasJournal(from)) return copyFiles(from, to);
  copyByLibrary(from, to);
}

}  // namespace VarnScripts
