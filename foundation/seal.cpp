#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "foundation/codecs.h"
#include "foundation/result_codes.h"
#include "foundation/wide_string.h"
#include "platform/kernel.h"

namespace mrwl {
namespace {

// The codecs report with system codes, but their domain is known by name to the message registry.
[[maybe_unused]] const ResultCode kCodecsDomainRegistered =
    RegisterErrorDomain(kDomainCodecs, nullptr, 0, "Codecs");

constexpr std::size_t kIvSize = 16;
constexpr std::size_t kHeaderSize = kIvSize + kMd5DigestSize;  // in clear, then the digest block
// The largest plain length whose blob size still fits in a size_t.
constexpr std::size_t kMaxPlainLength =
    std::numeric_limits<std::size_t>::max() - kHeaderSize - kAesBlockSize;
constexpr char16_t kEmptyText[1] = {0};

constexpr std::size_t SealedSize(std::size_t plainLength) noexcept {
  return (plainLength & ~(kAesBlockSize - 1)) + kAesBlockSize + kHeaderSize;
}

// Builds the cipher anew from the context's key; the key schedule is never kept between calls.
bool PrepareCipher(SealContext* context, AesDirection direction) noexcept {
  const std::uint32_t keyLength = context->KeyLength;
  if (keyLength != 16 && keyLength != 24 && keyLength != 32) return false;
  return context->Cipher.SetKey(context->Key, std::size_t{keyLength} * 8, direction);
}

// Compares without an early exit, so that the time taken says nothing about where digests differ.
bool SameDigest(const std::uint8_t* a, const std::uint8_t* b) noexcept {
  std::uint8_t difference = 0;
  for (std::size_t i = 0; i < kMd5DigestSize; ++i) difference |= a[i] ^ b[i];
  return difference == 0;
}

ResultCode CopyText(const char16_t* text, std::size_t length, char16_t* result,
                    std::size_t* resultLength) noexcept {
  if (result == nullptr) {
    *resultLength = length;
    return kOk;
  }
  if (*resultLength < length) {
    *resultLength = length;
    return kCodecInsufficientBuffer;
  }
  if (length != 0) std::memmove(result, text, length * sizeof(char16_t));
  *resultLength = length;
  return kOk;
}

// One attempt of UnsealText on a span of code units.
ResultCode UnsealUnits(SealContext* context, const char16_t* units, std::size_t count,
                       char16_t* result, std::size_t* resultLength) noexcept {
  std::size_t bytes = 0;
  if (result == nullptr) {
    ResultCode code = Unseal(context, units, count * sizeof(char16_t), nullptr, &bytes);
    if (Succeeded(code)) *resultLength = bytes / sizeof(char16_t);
    return code;
  }
  bytes = *resultLength > std::numeric_limits<std::size_t>::max() / sizeof(char16_t)
              ? std::numeric_limits<std::size_t>::max()
              : *resultLength * sizeof(char16_t);
  ResultCode code = Unseal(context, units, count * sizeof(char16_t), result, &bytes);
  // A plain value of an odd byte count was not a text; its last byte has no code unit to go to.
  if (Succeeded(code)) *resultLength = bytes / sizeof(char16_t);
  return code;
}

using TextCodec = ResultCode (*)(SealContext*, const char16_t*, std::size_t, char16_t*,
                                 std::size_t*) noexcept;

ResultCode TextToString(TextCodec codec, SealContext* context, std::u16string_view text,
                        WideString& result) noexcept {
  std::size_t room = text.size() + 256;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!result.Reserve(room)) {
      result.Reset();
      return kCodecOutOfMemory;
    }
    std::size_t length = room;
    ResultCode code = codec(context, text.data(), text.size(), result.data(), &length);
    if (Succeeded(code)) {
      result.SetLength(length);
      return code;
    }
    std::size_t needed = 0;
    if (attempt == 0 && Succeeded(codec(context, text.data(), text.size(), nullptr, &needed)) &&
        needed > room) {
      room = needed;
      continue;
    }
    result.Clear();
    return code;
  }
  result.Clear();
  return kCodecInvalidArgument;
}

}  // namespace

ResultCode SetSealKey(SealContext* context, const void* key, std::size_t length) noexcept {
  if (context == nullptr) return kCodecInvalidArgument;
  if (key == nullptr) length = 0;
  const std::size_t taken = std::min<std::size_t>(length, sizeof(context->Key));
  const std::size_t keyLength = std::max<std::size_t>(taken & ~std::size_t{7}, 16);
  std::memset(context->Key, 0, sizeof(context->Key));
  if (taken != 0) std::memcpy(context->Key, key, std::min(taken, keyLength));
  context->KeyLength = static_cast<std::uint32_t>(keyLength);
  std::memset(context->Chain, 0, sizeof(context->Chain));
  return kOk;
}

ResultCode Seal(SealContext* context, const void* plain, std::size_t length, void* blob,
                std::size_t* blobLength) noexcept {
  if (context == nullptr || blobLength == nullptr || length > kMaxPlainLength) {
    return kCodecInvalidArgument;
  }
  const std::size_t needed = SealedSize(length);
  if (blob == nullptr) {
    *blobLength = needed;
    return kOk;
  }
  if (plain == nullptr) return kCodecInvalidArgument;
  if (*blobLength < needed) {
    *blobLength = needed;
    return kCodecInvalidArgument;
  }
  if (!PrepareCipher(context, AesDirection::kEncrypt)) return kCodecInvalidArgument;

  // The counter is the only input that varies between two seals of the same data; hashed with
  // the digest it gives an initialisation vector that no one can choose or predict from the data.
  LARGE_INTEGER counter;
  counter.QuadPart = 0;
  if (!platform::QueryPerformanceCounter(&counter)) counter.QuadPart = 0;
  std::uint8_t seed[8 + kMd5DigestSize];
  const auto counterValue = static_cast<std::uint64_t>(counter.QuadPart);
  for (int i = 0; i < 8; ++i) seed[i] = static_cast<std::uint8_t>(counterValue >> (8 * i));
  std::uint8_t* digest = seed + 8;
  Md5::Compute(plain, length, digest);

  const auto* in = static_cast<const std::uint8_t*>(plain);
  auto* out = static_cast<std::uint8_t*>(blob);
  Md5::Compute(seed, sizeof(seed), out);
  std::memcpy(context->Chain, out, kIvSize);
  const Aes& cipher = context->Cipher;
  cipher.EncryptCbc(context->Chain, digest, out + kIvSize, 1);

  const std::size_t fullBlocks = length / kAesBlockSize;
  cipher.EncryptCbc(context->Chain, in, out + kHeaderSize, fullBlocks);
  const std::size_t rest = length % kAesBlockSize;
  std::uint8_t last[kAesBlockSize];
  std::memset(last, static_cast<int>(kAesBlockSize - rest), sizeof(last));
  if (rest != 0) std::memcpy(last, in + fullBlocks * kAesBlockSize, rest);
  cipher.EncryptCbc(context->Chain, last, out + kHeaderSize + fullBlocks * kAesBlockSize, 1);
  *blobLength = needed;
  return kOk;
}

ResultCode Unseal(SealContext* context, const void* blob, std::size_t length, void* plain,
                  std::size_t* plainLength) noexcept {
  if (context == nullptr || blob == nullptr || plainLength == nullptr) {
    return kCodecInvalidArgument;
  }
  length &= ~(kAesBlockSize - 1);  // a partial tail is not part of any block
  if (length < kHeaderSize) return kCodecInvalidArgument;
  if (!PrepareCipher(context, AesDirection::kDecrypt)) return kCodecInvalidArgument;
  const std::size_t dataBlocks = (length - kHeaderSize) / kAesBlockSize;
  // With no data block the pad would come out of the digest, and the result could not be longer
  // than zero bytes.
  if (dataBlocks == 0) return kCodecInvalidArgument;

  const auto* in = static_cast<const std::uint8_t*>(blob);
  const Aes& cipher = context->Cipher;
  // The last block alone gives the pad, and so the length, before anything is written.
  const std::uint8_t* lastCipher = in + length - kAesBlockSize;
  std::uint8_t lastPlain[kAesBlockSize];
  std::memcpy(context->Chain, lastCipher - kAesBlockSize, kAesBlockSize);
  cipher.DecryptCbc(context->Chain, lastCipher, lastPlain, 1);
  const std::size_t pad = std::min<std::size_t>(lastPlain[kAesBlockSize - 1], kAesBlockSize);
  const std::size_t resultLength = dataBlocks * kAesBlockSize - pad;
  if (resultLength == 0) return kCodecInvalidArgument;
  if (plain == nullptr) {
    *plainLength = resultLength;
    return kOk;
  }
  if (*plainLength < resultLength) return kCodecInvalidArgument;

  std::memcpy(context->Chain, in, kIvSize);
  std::uint8_t storedDigest[kMd5DigestSize];
  cipher.DecryptCbc(context->Chain, in + kIvSize, storedDigest, 1);
  auto* out = static_cast<std::uint8_t*>(plain);
  const std::size_t wholeBlocks = resultLength / kAesBlockSize;
  cipher.DecryptCbc(context->Chain, in + kHeaderSize, out, wholeBlocks);
  // A partial block of data is always the last block, which is decrypted already.
  const std::size_t tail = resultLength % kAesBlockSize;
  if (tail != 0) std::memcpy(out + wholeBlocks * kAesBlockSize, lastPlain, tail);
  std::memcpy(context->Chain, lastCipher, kAesBlockSize);

  std::uint8_t digest[kMd5DigestSize];
  Md5::Compute(out, resultLength, digest);
  if (!SameDigest(digest, storedDigest)) return kCodecInvalidArgument;
  *plainLength = resultLength;
  return kOk;
}

ResultCode SealText(SealContext* context, const char16_t* text, std::size_t length,
                    char16_t* result, std::size_t* resultLength) noexcept {
  if (resultLength == nullptr || (text == nullptr && length != 0)) return kCodecInvalidArgument;
  if (text == nullptr) text = kEmptyText;
  if (context == nullptr) return CopyText(text, length, result, resultLength);
  if (length > kMaxPlainLength / sizeof(char16_t)) return kCodecInvalidArgument;

  const std::size_t bytes = length * sizeof(char16_t);
  // The blob is always a whole number of blocks, so it fills whole code units.
  const std::size_t needed = SealedSize(bytes) / sizeof(char16_t) + 1;
  if (result == nullptr) {
    *resultLength = needed;
    return kOk;
  }
  if (*resultLength < needed) {
    *resultLength = needed;
    return kCodecInvalidArgument;
  }
  result[0] = 0;
  std::size_t blobLength = (needed - 1) * sizeof(char16_t);
  ResultCode code = Seal(context, text, bytes, result + 1, &blobLength);
  if (Failed(code)) return code;
  *resultLength = blobLength / sizeof(char16_t) + 1;
  return kOk;
}

ResultCode UnsealText(SealContext* context, const char16_t* text, std::size_t length,
                      char16_t* result, std::size_t* resultLength) noexcept {
  if (resultLength == nullptr || (text == nullptr && length != 0)) return kCodecInvalidArgument;
  if (text == nullptr) text = kEmptyText;
  if (context == nullptr) return CopyText(text, length, result, resultLength);
  if (length > std::numeric_limits<std::size_t>::max() / sizeof(char16_t)) {
    return kCodecInvalidArgument;
  }
  // Values written without the marker are read as they stand.
  if (length == 0 || text[0] != 0) return UnsealUnits(context, text, length, result, resultLength);
  if (Succeeded(UnsealUnits(context, text + 1, length - 1, result, resultLength))) return kOk;
  if (Succeeded(UnsealUnits(context, text, length, result, resultLength))) return kOk;
  return kCodecDecryptFailure;
}

ResultCode SealTextToString(SealContext* context, std::u16string_view text,
                            WideString& result) noexcept {
  return TextToString(&SealText, context, text, result);
}

ResultCode UnsealTextToString(SealContext* context, std::u16string_view text,
                              WideString& result) noexcept {
  return TextToString(&UnsealText, context, text, result);
}

}  // namespace mrwl
