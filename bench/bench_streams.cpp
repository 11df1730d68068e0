// Throughput of the streams: memory streams growing by small and page-sized writes, and a disk
// stream writing and reading a temporary file sequentially.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "foundation/stream.h"
#include "platform/files.h"
#include "platform/kernel.h"

namespace mrwl {
namespace {

constexpr std::int64_t kMemoryTarget = 4 << 20;  // each iteration grows a stream to 4 MiB
constexpr std::size_t kFileSize = 1 << 20;
constexpr std::size_t kFileChunk = 64 << 10;

void BM_MemoryStreamWrite(benchmark::State& state) {
  const auto chunk = static_cast<std::size_t>(state.range(0));
  const std::vector<unsigned char> data(chunk, 0x5A);
  for (auto _ : state) {
    MemoryStream stream;
    if (Failed(stream.Open(0, 0))) {
      state.SkipWithError("open failed");
      return;
    }
    for (std::int64_t written = 0; written < kMemoryTarget;
         written += static_cast<std::int64_t>(chunk)) {
      std::size_t done = 0;
      benchmark::DoNotOptimize(stream.Write(data.data(), chunk, &done));
    }
    benchmark::DoNotOptimize(stream.GetData());
  }
  state.SetBytesProcessed(state.iterations() * kMemoryTarget);
}
BENCHMARK(BM_MemoryStreamWrite)->Arg(16)->Arg(4096);

WideString BenchFile() {
  const std::string path = (std::filesystem::temp_directory_path() /
                            ("mrwl-bench-" + std::to_string(platform::GetCurrentProcessId())))
                               .string();
  return Utf8ToWide(path);
}

void BM_DiskFileStreamWrite(benchmark::State& state) {
  const WideString path = BenchFile();
  const std::vector<unsigned char> data(kFileChunk, 0xA5);
  for (auto _ : state) {
    DiskFileStream stream;
    if (Failed(stream.Open(path, CREATE_ALWAYS, kAccessRead | kAccessWrite, FILE_SHARE_READ,
                           FILE_ATTRIBUTE_NORMAL))) {
      state.SkipWithError("open failed");
      return;
    }
    for (std::size_t written = 0; written < kFileSize; written += kFileChunk) {
      std::size_t done = 0;
      benchmark::DoNotOptimize(stream.Write(data.data(), kFileChunk, &done));
    }
    (void)stream.Close();
  }
  (void)platform::DeleteFileW(path.c_str());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFileSize));
}
BENCHMARK(BM_DiskFileStreamWrite);

void BM_DiskFileStreamRead(benchmark::State& state) {
  const WideString path = BenchFile();
  {
    DiskFileStream writer;
    const std::vector<unsigned char> data(kFileSize, 0x3C);
    std::size_t done = 0;
    if (Failed(writer.Open(path, CREATE_ALWAYS, kAccessRead | kAccessWrite, 0,
                           FILE_ATTRIBUTE_NORMAL)) ||
        Failed(writer.Write(data.data(), data.size(), &done))) {
      state.SkipWithError("could not write the file");
      return;
    }
  }
  DiskFileStream stream;
  if (Failed(
          stream.Open(path, OPEN_EXISTING, kAccessRead, FILE_SHARE_READ, FILE_ATTRIBUTE_NORMAL))) {
    state.SkipWithError("open failed");
    return;
  }
  std::vector<unsigned char> buffer(kFileChunk);
  for (auto _ : state) {
    stream.ResetPosition();
    for (std::size_t read = 0; read < kFileSize; read += kFileChunk) {
      std::size_t done = 0;
      benchmark::DoNotOptimize(stream.Read(buffer.data(), kFileChunk, &done));
    }
  }
  (void)stream.ReleaseRecord();
  (void)platform::DeleteFileW(path.c_str());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFileSize));
}
BENCHMARK(BM_DiskFileStreamRead);

}  // namespace
}  // namespace mrwl
