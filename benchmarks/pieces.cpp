// Pieces that are measured within one process, by Google Benchmark: each beside its limit, under
// the name "PIECE/CONTESTANT". The files are below VARN_BENCH_DIRECTORY.

#include "Pieces.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <memory>

#include "AgentSettings.h"
#include "ScriptRepositoryLocalMetaProcessor.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"

namespace {

using VarnScriptRepository::ScriptRepositoryConstants;
using VarnScriptRepository::ScriptRepositoryLocalMetaProcessor;

// ---- Checksum of a small script
// ------------------------------------------------------------------

// Of 4096 bytes 'x'.
constexpr char kChecksum[] = "a2e659dacb4691e887ac0139f8893d04764ee197d70fb73d3190d56113d18e3e";

const std::string& smallScript() {
  static const std::string& path = *new std::string([] {
    const std::string file = bench::freshDirectory("checksum") + "/small.sh";
    std::ofstream(file) << std::string(4096, 'x');
    return file;
  }());
  return path;
}

void checksumByLibrary(benchmark::State& state) {
  for (auto _ : state) {
    if (!AgentUtils::VyCryptography::validateCheckSumForFile(smallScript(), "sha256", kChecksum)) {
      state.SkipWithError("the checksum does not match");
      return;
    }
  }
}
BENCHMARK(checksumByLibrary)->Name("checksum of 4 KiB/library");

void checksumBare(benchmark::State& state) {
  EVP_MD_CTX* const context = EVP_MD_CTX_new();
  EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  std::array<char, 8192> bytes{};
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  for (auto _ : state) {
    const int fd = ::open(smallScript().c_str(), O_RDONLY | O_CLOEXEC);
    EVP_DigestInit_ex2(context, algorithm, nullptr);
    ssize_t got = 0;
    while ((got = ::read(fd, bytes.data(), bytes.size())) > 0) {
      EVP_DigestUpdate(context, bytes.data(), static_cast<std::size_t>(got));
    }
    ::close(fd);
    EVP_DigestFinal_ex(context, digest.data(), nullptr);
    benchmark::DoNotOptimize(digest);
  }
  EVP_MD_free(algorithm);
  EVP_MD_CTX_free(context);
}
BENCHMARK(checksumBare)->Name("checksum of 4 KiB/open, read, digest");

// ---- Store
// ---------------------------------------------------------------------------------------

/// The library's store, with rows in it; opened once in a process, as the library does.
ScriptRepositoryLocalMetaProcessor& store() {
  static auto& instance = *[] {
    AgentUtils::AgentSettings settings;
    settings.basePath = bench::freshDirectory("store");
    settings.dataPath = settings.basePath + "/data";
    settings.customerID = "7";
    AgentUtils::configure(settings);
    auto& local = ScriptRepositoryLocalMetaProcessor::shared();
    for (int number = 0; number < bench::kRows; ++number) {
      local.setScriptVersion(bench::key(number), "1795248929145");
      local.setScriptPath(bench::key(number),
                          "/opt/agent/client-data/7/scripts-repository/" + bench::key(number));
    }
    return &local;
  }();
  return instance;
}

/// A connection of the bench's own to the same file, with the settings of the store's connection.
class Bare {
 public:
  Bare() {
    store();
    if (sqlite3_open_v2(ScriptRepositoryConstants::FilePath::scriptRepository().c_str(), &database_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr) != SQLITE_OK) {
      std::abort();
    }
    sqlite3_busy_timeout(database_, 5000);
    select_ = prepare("SELECT value FROM \"ScriptToMeta\" WHERE key = ?");
    upsert_ = prepare(
        "INSERT INTO \"ScriptToMeta\" (key, value) VALUES (?, ?) ON CONFLICT (key) DO UPDATE SET "
        "value = excluded.value");
  }
  Bare(const Bare&) = delete;
  Bare& operator=(const Bare&) = delete;
  ~Bare() {
    sqlite3_finalize(select_);
    sqlite3_finalize(upsert_);
    sqlite3_close(database_);
  }

  std::string get(const std::string& key) {
    bind(select_, 1, key);
    if (sqlite3_step(select_) != SQLITE_ROW) std::abort();
    std::string value(reinterpret_cast<const char*>(sqlite3_column_text(select_, 0)),
                      static_cast<std::size_t>(sqlite3_column_bytes(select_, 0)));
    sqlite3_reset(select_);
    return value;
  }

  void put(const std::string& key, const std::string& value) {
    bind(upsert_, 1, key);
    bind(upsert_, 2, value);
    if (sqlite3_step(upsert_) != SQLITE_DONE) std::abort();
    sqlite3_reset(upsert_);
  }

 private:
  sqlite3_stmt* prepare(const char* text) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database_, text, -1, &statement, nullptr) != SQLITE_OK) std::abort();
    return statement;
  }

  static void bind(sqlite3_stmt* statement, int index, const std::string& text) {
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }

  sqlite3* database_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
  sqlite3_stmt* upsert_ = nullptr;
};

void getByLibrary(benchmark::State& state) {
  auto& local = store();
  const std::string key = bench::key(500);
  for (auto _ : state) {
    if (!local.getScriptVersion(key)) {
      state.SkipWithError("no such row");
      return;
    }
  }
}
BENCHMARK(getByLibrary)->Name("store get/library");

void getBare(benchmark::State& state) {
  Bare bare;
  const std::string key = bench::key(500);
  for (auto _ : state) benchmark::DoNotOptimize(bare.get(key));
}
BENCHMARK(getBare)->Name("store get/prepared statements");

void modifyByLibrary(benchmark::State& state) {
  auto& local = store();
  const std::string key = bench::key(500);
  int version = 0;
  for (auto _ : state) local.setScriptVersion(key, std::to_string(++version));
}
BENCHMARK(modifyByLibrary)->Name("store read-modify-write/library");

void modifyBare(benchmark::State& state) {
  Bare bare;
  const std::string key = bench::key(500);
  for (auto _ : state) {
    std::string value = bare.get(key);
    // Another value each time, or SQLite would have nothing to write.
    value[12] = value[12] == '1' ? '2' : '1';
    bare.put(key, value);
  }
}
BENCHMARK(modifyBare)->Name("store read-modify-write/prepared statements");

}  // namespace

BENCHMARK_MAIN();
