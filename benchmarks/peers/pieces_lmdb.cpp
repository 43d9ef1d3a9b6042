// LMDB beside the store: one get, and one read-modify-write in a synced transaction.

#include <benchmark/benchmark.h>
#include <lmdb.h>

#include "../Pieces.h"

namespace {

class Environment {
 public:
  Environment() {
    const std::string directory = bench::freshDirectory("lmdb");
    mdb_env_create(&environment_);
    mdb_env_set_mapsize(environment_, std::size_t{64} << 20);
    if (mdb_env_open(environment_, directory.c_str(), 0, 0600) != 0) std::abort();
    mdb_txn_begin(environment_, nullptr, 0, &transaction_);
    mdb_dbi_open(transaction_, nullptr, 0, &table_);
    for (int number = 0; number < bench::kRows; ++number) put(bench::key(number));
    mdb_txn_commit(transaction_);
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;
  ~Environment() { mdb_env_close(environment_); }

  std::string get(std::string key) {
    MDB_val name{key.size(), key.data()};
    MDB_val value{};
    if (mdb_get(transaction_, table_, &name, &value) != 0) std::abort();
    return {static_cast<const char*>(value.mv_data), value.mv_size};
  }

  void put(std::string key) {
    std::string text = bench::kRow;
    MDB_val name{key.size(), key.data()};
    MDB_val value{text.size(), text.data()};
    if (mdb_put(transaction_, table_, &name, &value, 0) != 0) std::abort();
  }

  void begin(unsigned flags) { mdb_txn_begin(environment_, nullptr, flags, &transaction_); }
  void end() {
    if (mdb_txn_commit(transaction_) != 0) std::abort();
  }

 private:
  MDB_env* environment_ = nullptr;
  MDB_txn* transaction_ = nullptr;
  MDB_dbi table_ = 0;
};

void get(benchmark::State& state) {
  Environment environment;
  for (auto _ : state) {
    environment.begin(MDB_RDONLY);
    benchmark::DoNotOptimize(environment.get(bench::key(500)));
    environment.end();
  }
}
BENCHMARK(get)->Name("store get/LMDB");

void modify(benchmark::State& state) {
  Environment environment;
  for (auto _ : state) {
    environment.begin(0);
    benchmark::DoNotOptimize(environment.get(bench::key(500)));
    environment.put(bench::key(500));
    environment.end();
  }
}
BENCHMARK(modify)->Name("store read-modify-write/LMDB");

}  // namespace
