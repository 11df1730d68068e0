// Loading and saving the settings record against a warm hive: what a conversion pays before it
// starts (one load) and what OK in the options dialog pays (one save).
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>

#include <benchmark/benchmark.h>

#include "settings/addin_settings.h"

namespace {

// A hive file in a folder of its own, named by MRWL_REGISTRY before the first registry call of
// the process, and removed with the folder at exit.
class BenchHive {
 public:
  BenchHive() {
    std::random_device random;
    folder_ = std::filesystem::temp_directory_path() /
              ("mrwl-bench-settings-" + std::to_string(random()) + "-" +
               std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
    std::filesystem::create_directories(folder_);
    setenv("MRWL_REGISTRY", (folder_ / "hive.db").c_str(), 1);
  }
  ~BenchHive() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

 private:
  std::filesystem::path folder_;
};

BenchHive& Hive() {
  static BenchHive hive;
  return hive;
}

// A record with every stored field away from its default, passwords included, saved once so that
// the key and all its values exist before timing starts.
void Prepare(mrwl::AddinSettings& settings) {
  settings.PageWidth = 612.0;
  settings.MarginTop = 36.5;
  settings.LandscapeOrienatation = true;
  settings.Security->secEnabled = true;
  (void)settings.Security->secUserPassword.Assign(u"user password");
  (void)settings.Security->secOwnerPassword.Assign(u"an owner password of some length");
  (void)settings.RunApp->RunPDFPath.Assign(u"C:\\Program Files\\Viewer\\view.exe");
  settings.SaveSettings();
}

void BM_LoadSettings(benchmark::State& state) {
  Hive();
  mrwl::AddinSettings settings;
  Prepare(settings);
  for (auto _ : state) {
    settings.LoadSettings();
    benchmark::DoNotOptimize(settings.PageWidth);
  }
}
BENCHMARK(BM_LoadSettings)->Unit(benchmark::kMicrosecond);

void BM_SaveSettings(benchmark::State& state) {
  Hive();
  mrwl::AddinSettings settings;
  Prepare(settings);
  for (auto _ : state) {
    settings.SaveSettings();
  }
}
BENCHMARK(BM_SaveSettings)->Unit(benchmark::kMicrosecond);

}  // namespace
