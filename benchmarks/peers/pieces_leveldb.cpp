// LevelDB beside the store: one get, and one get followed by a synced put.

#include <benchmark/benchmark.h>
#include <leveldb/db.h>

#include <memory>

#include "../Pieces.h"

namespace {

std::unique_ptr<leveldb::DB> openDatabase() {
  leveldb::Options options;
  options.create_if_missing = true;
  leveldb::DB* database = nullptr;
  if (!leveldb::DB::Open(options, bench::freshDirectory("leveldb"), &database).ok()) std::abort();
  for (int number = 0; number < bench::kRows; ++number) {
    if (!database->Put({}, bench::key(number), bench::kRow).ok()) std::abort();
  }
  return std::unique_ptr<leveldb::DB>(database);
}

void get(benchmark::State& state) {
  const auto database = openDatabase();
  for (auto _ : state) {
    std::string value;
    if (!database->Get({}, bench::key(500), &value).ok()) std::abort();
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(get)->Name("store get/LevelDB");

void modify(benchmark::State& state) {
  const auto database = openDatabase();
  leveldb::WriteOptions synced;
  synced.sync = true;
  for (auto _ : state) {
    std::string value;
    if (!database->Get({}, bench::key(500), &value).ok()) std::abort();
    if (!database->Put(synced, bench::key(500), bench::kRow).ok()) std::abort();
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(modify)->Name("store read-modify-write/LevelDB");

}  // namespace
