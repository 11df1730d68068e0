// Throughput of the SQLite hive against SQLite itself: each RegSetValueExW is one committed
// transaction, so the fair yardstick is one committed INSERT per value into a plain table of the
// same file settings (WAL, synchronous=NORMAL). The ratio between the two is the cost of what the
// registry adds: key lookup, the last-write clock and the order of first writes.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "platform/registry.h"

namespace {

using namespace mrwl::platform;

// A scratch folder for the run, removed at exit.
class Scratch {
 public:
  Scratch() {
    std::random_device random;
    path_ = std::filesystem::temp_directory_path() /
            ("mrwl-bench-registry-" + std::to_string(random()));
    std::filesystem::create_directories(path_);
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string File(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

Scratch& Folder() {
  static Scratch scratch;
  return scratch;
}

// Names and data as the settings record writes them: short names, four-byte numbers.
std::vector<std::u16string> Names(int count) {
  std::vector<std::u16string> names;
  for (int i = 0; i < count; ++i) {
    const std::string name = "Value" + std::to_string(i);
    names.emplace_back(name.begin(), name.end());
  }
  return names;
}

constexpr int kNames = 64;

void BM_RegSetValueExW(benchmark::State& state) {
  setenv("MRWL_REGISTRY", Folder().File("set.db").c_str(), 1);
  HKEY key = nullptr;
  if (RegCreateKeyExW(HKEY_CURRENT_USER, u"Software\\Bench", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                      &key, nullptr) != ERROR_SUCCESS) {
    state.SkipWithError("no hive");
    return;
  }
  const auto names = Names(kNames);
  DWORD value = 0;
  for (auto _ : state) {
    const std::u16string& name = names[value % kNames];
    ++value;
    if (RegSetValueExW(key, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), 4) !=
        ERROR_SUCCESS) {
      state.SkipWithError("write failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
  RegCloseKey(key);
}
BENCHMARK(BM_RegSetValueExW);

void BM_SqliteInsert(benchmark::State& state) {
  sqlite3* db = nullptr;
  sqlite3_open(Folder().File("raw.db").c_str(), &db);
  sqlite3_exec(db,
               "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
               "CREATE TABLE IF NOT EXISTS vals(key INTEGER, name BLOB, type INTEGER, data BLOB,"
               " PRIMARY KEY(key, name)) WITHOUT ROWID;",
               nullptr, nullptr, nullptr);
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO vals VALUES(1, ?1, 4, ?2)", -1, &insert, nullptr);
  const auto names = Names(kNames);
  DWORD value = 0;
  for (auto _ : state) {
    const std::u16string& name = names[value % kNames];
    ++value;
    sqlite3_bind_blob(insert, 1, name.data(), static_cast<int>(name.size() * 2), SQLITE_STATIC);
    sqlite3_bind_blob(insert, 2, &value, 4, SQLITE_STATIC);
    if (sqlite3_step(insert) != SQLITE_DONE) {
      state.SkipWithError("insert failed");
      break;
    }
    sqlite3_reset(insert);
  }
  state.SetItemsProcessed(state.iterations());
  sqlite3_finalize(insert);
  sqlite3_close(db);
}
BENCHMARK(BM_SqliteInsert);

void BM_RegQueryValueExW(benchmark::State& state) {
  setenv("MRWL_REGISTRY", Folder().File("query.db").c_str(), 1);
  HKEY key = nullptr;
  RegCreateKeyExW(HKEY_CURRENT_USER, u"Software\\Bench", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                  &key, nullptr);
  const auto names = Names(kNames);
  for (DWORD i = 0; i < kNames; ++i) {
    RegSetValueExW(key, names[i].c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&i), 4);
  }
  DWORD i = 0;
  for (auto _ : state) {
    DWORD data = 0;
    DWORD size = 4;
    DWORD type = 0;
    if (RegQueryValueExW(key, names[i++ % kNames].c_str(), nullptr, &type,
                         reinterpret_cast<BYTE*>(&data), &size) != ERROR_SUCCESS) {
      state.SkipWithError("read failed");
      break;
    }
    benchmark::DoNotOptimize(data);
  }
  state.SetItemsProcessed(state.iterations());
  RegCloseKey(key);
}
BENCHMARK(BM_RegQueryValueExW);

// Opening a key three levels down, as every load and save of the settings does first.
void BM_RegOpenKeyExW(benchmark::State& state) {
  setenv("MRWL_REGISTRY", Folder().File("open.db").c_str(), 1);
  HKEY key = nullptr;
  RegCreateKeyExW(HKEY_CURRENT_USER, u"Software\\Bench\\Deep", 0, nullptr, 0, KEY_ALL_ACCESS,
                  nullptr, &key, nullptr);
  RegCloseKey(key);
  for (auto _ : state) {
    if (RegOpenKeyExW(HKEY_CURRENT_USER, u"Software\\Bench\\Deep", 0, KEY_READ, &key) !=
        ERROR_SUCCESS) {
      state.SkipWithError("open failed");
      break;
    }
    RegCloseKey(key);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RegOpenKeyExW);

}  // namespace

// Walking all values of a key by index, as every load of a stored tree does.
void BM_RegEnumValueW(benchmark::State& state) {
  setenv("MRWL_REGISTRY", Folder().File("enum.db").c_str(), 1);
  HKEY key = nullptr;
  RegCreateKeyExW(HKEY_CURRENT_USER, u"Software\\Enum", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                  &key, nullptr);
  const auto count = static_cast<int>(state.range(0));
  const auto names = Names(count);
  RegDeleteTreeW(key, nullptr);
  for (DWORD i = 0; i < static_cast<DWORD>(count); ++i) {
    RegSetValueExW(key, names[i].c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&i), 4);
  }
  for (auto _ : state) {
    char16_t name[64];
    BYTE data[16];
    for (DWORD i = 0;; ++i) {
      DWORD length = 64;
      DWORD size = sizeof data;
      if (RegEnumValueW(key, i, name, &length, nullptr, nullptr, data, &size) != ERROR_SUCCESS) {
        break;
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * count);
  RegCloseKey(key);
}
BENCHMARK(BM_RegEnumValueW)->Arg(10)->Arg(1000);
