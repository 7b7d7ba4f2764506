// The registry beside bare SQLite with prepared statements in the same transactions.
#include <kel/sqlite.h>

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kNames = 10'000;
constexpr int kBatch = 1'000;  // items a transaction

void require(bool condition) {
  if (!condition) std::abort();
}

/// A new database file with a full registry, and names in random order.
class Sample {
 public:
  Sample() {
    std::mt19937 random(1);
    for (int i = 0; i < 4096; ++i) names_.push_back(name_of(static_cast<int>(random() % kNames)));
    remove();
    db.SetDBFilename(path());
    require(db.Open(nullptr) && db.CreateRegistryTable(nullptr) &&
            db.SetAutoCommit(false, nullptr));
    for (int i = 0; i < kNames; ++i) require(db.SetRegistryItem(name_of(i), value, nullptr));
    require(db.Commit(nullptr));
  }
  ~Sample() {
    db.Close();
    remove();
  }
  Sample(const Sample&) = delete;
  Sample& operator=(const Sample&) = delete;

  const std::string& next_name() { return names_[next_++ % names_.size()]; }

  SQLiteConnection db;
  const std::string value = "the value of a setting, some 50 bytes of any text ";

 private:
  static std::string name_of(int i) { return "settings/of/a/service/" + std::to_string(i); }
  static std::string path() { return "/tmp/kel-sqlite-bench-" + std::to_string(::getpid()); }
  static void remove() { ::unlink(path().c_str()); }

  std::vector<std::string> names_;
  size_t next_ = 0;
};

/// A statement of bare SQLite.
class Bare {
 public:
  Bare(Sample& sample, const char* sql) {
    require(sqlite3_prepare_v2(sample.db.GetHandle(), sql, -1, &statement_, nullptr) == SQLITE_OK);
  }
  ~Bare() { sqlite3_finalize(statement_); }
  Bare(const Bare&) = delete;
  Bare& operator=(const Bare&) = delete;

  void bind(int index, const std::string& text) {
    sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }
  int step() { return sqlite3_step(statement_); }
  void reset() { sqlite3_reset(statement_); }
  void run() {
    require(step() == SQLITE_DONE);
    reset();
  }
  std::string text() {
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, 0));
    return {bytes, static_cast<size_t>(sqlite3_column_bytes(statement_, 0))};
  }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

void set_kel(benchmark::State& state) {
  Sample sample;
  SQLiteException error;
  for (auto _ : state) {
    require(sample.db.SetAutoCommit(false, &error));
    for (int i = 0; i < kBatch; ++i)
      require(sample.db.SetRegistryItem(sample.next_name(), sample.value, &error));
    require(sample.db.Commit(&error));
  }
}

void set_sqlite(benchmark::State& state) {
  Sample sample;
  Bare begin(sample, "BEGIN IMMEDIATE TRANSACTION");
  Bare commit(sample, "COMMIT");
  Bare set(sample, "INSERT OR REPLACE INTO registry(name, value) VALUES(?,?)");
  for (auto _ : state) {
    begin.run();
    for (int i = 0; i < kBatch; ++i) {
      set.bind(1, sample.next_name());
      set.bind(2, sample.value);
      set.run();
    }
    commit.run();
  }
}

template <class Get>
void run_get(benchmark::State& state, Sample& sample, bool together, Get get) {
  if (together) require(sample.db.SetAutoCommit(false, nullptr));
  for (auto _ : state) {
    const std::string value = get(sample.next_name());
    benchmark::DoNotOptimize(value);
  }
}

void get_kel(benchmark::State& state) {
  Sample sample;
  SQLiteException error;
  run_get(state, sample, state.range(0) != 0,
          [&](const std::string& name) { return sample.db.GetRegistryItem(name, &error); });
}

void get_sqlite(benchmark::State& state) {
  Sample sample;
  Bare get(sample, "SELECT value FROM registry WHERE name=?");
  run_get(state, sample, state.range(0) != 0, [&](const std::string& name) {
    get.bind(1, name);
    require(get.step() == SQLITE_ROW);
    std::string value = get.text();
    get.reset();
    return value;
  });
}

BENCHMARK(set_kel)->Name("registry_set/1000_a_transaction/kel");
BENCHMARK(set_sqlite)->Name("registry_set/1000_a_transaction/sqlite");
BENCHMARK(get_kel)->Name("registry_get/in_a_transaction/kel")->Arg(1);
BENCHMARK(get_sqlite)->Name("registry_get/in_a_transaction/sqlite")->Arg(1);
BENCHMARK(get_kel)->Name("registry_get/alone/kel")->Arg(0);
BENCHMARK(get_sqlite)->Name("registry_get/alone/sqlite")->Arg(0);

}  // namespace
