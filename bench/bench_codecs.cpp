// Throughput of the codecs: sealed values as the Cab framework uses them, and the raw cipher and
// digest next to OpenSSL on the same data, so that a regression shows as a changed ratio.
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include "foundation/codecs.h"

namespace {

using mrwl::Aes;
using mrwl::AesDirection;

constexpr std::size_t kBulkSize = 64 * 1024;

std::vector<std::uint8_t> Pattern(std::size_t n) {
  std::vector<std::uint8_t> out(n);
  std::uint32_t x = 2463534242u;
  for (auto& b : out) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    b = static_cast<std::uint8_t>(x);
  }
  return out;
}

void SetKey(mrwl::SealContext& context) {
  const auto key = Pattern(32);
  (void)mrwl::SetSealKey(&context, key.data(), 16);
}

// Each seal builds its key schedule and tables anew, so short values measure mostly that.
void BM_Seal(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const auto plain = Pattern(size);
  mrwl::SealContext context{};
  SetKey(context);
  std::vector<std::uint8_t> blob(size + 48);
  for (auto _ : state) {
    std::size_t length = blob.size();
    if (mrwl::Seal(&context, plain.data(), size, blob.data(), &length) != 0) {
      state.SkipWithError("Seal failed");
      break;
    }
    benchmark::DoNotOptimize(blob.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}
BENCHMARK(BM_Seal)->Arg(64)->Arg(4096);

void BM_Unseal(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const auto plain = Pattern(size);
  mrwl::SealContext context{};
  SetKey(context);
  std::vector<std::uint8_t> blob(size + 48), result(size);
  std::size_t blobLength = blob.size();
  (void)mrwl::Seal(&context, plain.data(), size, blob.data(), &blobLength);
  for (auto _ : state) {
    std::size_t length = result.size();
    if (mrwl::Unseal(&context, blob.data(), blobLength, result.data(), &length) != 0) {
      state.SkipWithError("Unseal failed");
      break;
    }
    benchmark::DoNotOptimize(result.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}
BENCHMARK(BM_Unseal)->Arg(64)->Arg(4096);

// Raw CBC over 64 KiB; the argument is the key size in bits.
void BM_AesCbcEncrypt(benchmark::State& state) {
  const auto key = Pattern(32);
  auto data = Pattern(kBulkSize);
  std::vector<std::uint8_t> out(kBulkSize);
  Aes aes;
  (void)aes.SetKey(key.data(), static_cast<std::size_t>(state.range(0)), AesDirection::kEncrypt);
  std::uint8_t chain[16] = {};
  for (auto _ : state) {
    aes.EncryptCbc(chain, data.data(), out.data(), kBulkSize / 16);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBulkSize));
}
BENCHMARK(BM_AesCbcEncrypt)->Arg(128)->Arg(256);

void BM_AesCbcDecrypt(benchmark::State& state) {
  const auto key = Pattern(32);
  auto data = Pattern(kBulkSize);
  std::vector<std::uint8_t> out(kBulkSize);
  Aes aes;
  (void)aes.SetKey(key.data(), static_cast<std::size_t>(state.range(0)), AesDirection::kDecrypt);
  std::uint8_t chain[16] = {};
  for (auto _ : state) {
    aes.DecryptCbc(chain, data.data(), out.data(), kBulkSize / 16);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBulkSize));
}
BENCHMARK(BM_AesCbcDecrypt)->Arg(128)->Arg(256);

// OpenSSL on the same data; it uses AES-NI where the processor has it.
void OpenSslCbc(benchmark::State& state, int encrypt) {
  const auto key = Pattern(32);
  auto data = Pattern(kBulkSize);
  std::vector<std::uint8_t> out(kBulkSize);
  const std::uint8_t iv[16] = {};
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  EVP_CipherInit_ex(ctx, state.range(0) == 128 ? EVP_aes_128_cbc() : EVP_aes_256_cbc(), nullptr,
                    key.data(), iv, encrypt);
  EVP_CIPHER_CTX_set_padding(ctx, 0);
  for (auto _ : state) {
    int n = 0;
    EVP_CipherUpdate(ctx, out.data(), &n, data.data(), static_cast<int>(kBulkSize));
    benchmark::DoNotOptimize(out.data());
  }
  EVP_CIPHER_CTX_free(ctx);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBulkSize));
}

void BM_OpenSslCbcEncrypt(benchmark::State& state) { OpenSslCbc(state, 1); }
void BM_OpenSslCbcDecrypt(benchmark::State& state) { OpenSslCbc(state, 0); }
BENCHMARK(BM_OpenSslCbcEncrypt)->Arg(128)->Arg(256);
BENCHMARK(BM_OpenSslCbcDecrypt)->Arg(128)->Arg(256);

void BM_Md5(benchmark::State& state) {
  const auto data = Pattern(kBulkSize);
  std::uint8_t digest[16];
  for (auto _ : state) {
    mrwl::Md5::Compute(data.data(), data.size(), digest);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBulkSize));
}
BENCHMARK(BM_Md5);

void BM_OpenSslMd5(benchmark::State& state) {
  const auto data = Pattern(kBulkSize);
  unsigned char digest[16];
  unsigned int n = 0;
  for (auto _ : state) {
    EVP_Digest(data.data(), data.size(), digest, &n, EVP_md5(), nullptr);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBulkSize));
}
BENCHMARK(BM_OpenSslMd5);

}  // namespace
