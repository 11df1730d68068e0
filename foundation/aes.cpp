#include <array>
#include <cstddef>
#include <cstdint>

#include "foundation/codecs.h"

// The state is kept as four 32-bit big-endian columns, and a round is table lookups: each entry of
// a round table is the MixColumns column of one substituted byte, and the four tables are its byte
// rotations. Decryption uses the equivalent inverse cipher (FIPS-197 5.3.5), whose round keys carry
// InvMixColumns so that it has the same shape as encryption. The tables come from GF(2^8)
// arithmetic on each SetKey, so the code holds no large constant tables.

namespace mrwl {
namespace {

inline std::uint32_t LoadBe32(const std::uint8_t* p) noexcept {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         std::uint32_t{p[3]};
}

inline void StoreBe32(std::uint8_t* p, std::uint32_t v) noexcept {
  p[0] = static_cast<std::uint8_t>(v >> 24);
  p[1] = static_cast<std::uint8_t>(v >> 16);
  p[2] = static_cast<std::uint8_t>(v >> 8);
  p[3] = static_cast<std::uint8_t>(v);
}

inline std::uint32_t RotateRight(std::uint32_t v, int bits) noexcept {
  return (v >> bits) | (v << (32 - bits));
}

inline std::uint8_t XTime(std::uint8_t b) noexcept {
  return static_cast<std::uint8_t>((b << 1) ^ ((b & 0x80) ? 0x1B : 0));
}

inline std::uint32_t Byte(std::uint32_t word, int shift) noexcept { return (word >> shift) & 0xFF; }

// The S-box: the multiplicative inverse followed by the affine map. The inverses come from powers
// of the generator 3, which walk through every non-zero element.
void BuildSbox(std::uint8_t* sbox, std::uint8_t* inverseSbox) noexcept {
  std::uint8_t power[256];
  std::uint8_t logarithm[256] = {};
  std::uint8_t x = 1;
  for (int i = 0; i < 255; ++i) {
    power[i] = x;
    logarithm[x] = static_cast<std::uint8_t>(i);
    x = static_cast<std::uint8_t>(x ^ XTime(x));  // x * 3
  }
  power[255] = power[0];
  for (int value = 0; value < 256; ++value) {
    // power[255] equals power[0], so 255 - log needs no reduction modulo 255.
    std::uint8_t inverse = value == 0 ? 0 : power[255 - logarithm[value]];
    std::uint32_t b = inverse;
    std::uint32_t s = b ^ (b << 1) ^ (b << 2) ^ (b << 3) ^ (b << 4);
    s = (s ^ (s >> 8)) & 0xFF;  // the left shifts above, folded back: rotations within a byte
    auto substituted = static_cast<std::uint8_t>(s ^ 0x63);
    sbox[value] = substituted;
    if (inverseSbox != nullptr) inverseSbox[substituted] = static_cast<std::uint8_t>(value);
  }
}

}  // namespace

bool Aes::SetKey(const void* key, std::size_t keyBits, AesDirection direction) noexcept {
  rounds_ = 0;
  if (key == nullptr || (keyBits != 128 && keyBits != 192 && keyBits != 256)) return false;
  const bool encrypt = (static_cast<int>(direction) & static_cast<int>(AesDirection::kEncrypt));
  const bool decrypt = (static_cast<int>(direction) & static_cast<int>(AesDirection::kDecrypt));

  BuildSbox(sbox_, decrypt ? inverseSbox_ : nullptr);
  if (encrypt) {
    for (int i = 0; i < 256; ++i) {
      std::uint8_t s = sbox_[i];
      std::uint8_t s2 = XTime(s);
      std::uint32_t column = (std::uint32_t{s2} << 24) | (std::uint32_t{s} << 16) |
                             (std::uint32_t{s} << 8) | std::uint32_t(s2 ^ s);
      encryptTable_[0][i] = column;
      encryptTable_[1][i] = RotateRight(column, 8);
      encryptTable_[2][i] = RotateRight(column, 16);
      encryptTable_[3][i] = RotateRight(column, 24);
    }
  }
  if (decrypt) {
    for (int i = 0; i < 256; ++i) {
      // The inverse MixColumns factors 14, 9, 13 and 11 from the doublings of s.
      std::uint8_t s = inverseSbox_[i];
      std::uint8_t s2 = XTime(s);
      std::uint8_t s4 = XTime(s2);
      std::uint8_t s8 = XTime(s4);
      std::uint32_t column = (std::uint32_t(s8 ^ s4 ^ s2) << 24) | (std::uint32_t(s8 ^ s) << 16) |
                             (std::uint32_t(s8 ^ s4 ^ s) << 8) | std::uint32_t(s8 ^ s2 ^ s);
      decryptTable_[0][i] = column;
      decryptTable_[1][i] = RotateRight(column, 8);
      decryptTable_[2][i] = RotateRight(column, 16);
      decryptTable_[3][i] = RotateRight(column, 24);
    }
  }

  // Key expansion (FIPS-197 5.2).
  const int keyWords = static_cast<int>(keyBits / 32);
  const int rounds = keyWords + 6;
  const int totalWords = 4 * (rounds + 1);
  const auto* keyBytes = static_cast<const std::uint8_t*>(key);
  std::uint32_t* w = encryptKey_;
  for (int i = 0; i < keyWords; ++i) w[i] = LoadBe32(keyBytes + 4 * i);
  std::uint8_t roundConstant = 1;
  for (int i = keyWords; i < totalWords; ++i) {
    std::uint32_t t = w[i - 1];
    if (i % keyWords == 0) {
      t = (std::uint32_t{sbox_[Byte(t, 16)]} << 24) | (std::uint32_t{sbox_[Byte(t, 8)]} << 16) |
          (std::uint32_t{sbox_[Byte(t, 0)]} << 8) | std::uint32_t{sbox_[Byte(t, 24)]};
      t ^= std::uint32_t{roundConstant} << 24;
      roundConstant = XTime(roundConstant);
    } else if (keyWords > 6 && i % keyWords == 4) {
      t = (std::uint32_t{sbox_[Byte(t, 24)]} << 24) | (std::uint32_t{sbox_[Byte(t, 16)]} << 16) |
          (std::uint32_t{sbox_[Byte(t, 8)]} << 8) | std::uint32_t{sbox_[Byte(t, 0)]};
    }
    w[i] = w[i - keyWords] ^ t;
  }

  if (decrypt) {
    // The round keys in reverse order, with InvMixColumns on all but the first and the last.
    // InvMixColumns(k) = Td[S[k]], because the decryption table undoes the S-box it contains.
    for (int round = 0; round <= rounds; ++round) {
      const std::uint32_t* from = encryptKey_ + 4 * (rounds - round);
      std::uint32_t* to = decryptKey_ + 4 * round;
      for (int c = 0; c < 4; ++c) {
        std::uint32_t k = from[c];
        if (round != 0 && round != rounds) {
          k = decryptTable_[0][sbox_[Byte(k, 24)]] ^ decryptTable_[1][sbox_[Byte(k, 16)]] ^
              decryptTable_[2][sbox_[Byte(k, 8)]] ^ decryptTable_[3][sbox_[Byte(k, 0)]];
        }
        to[c] = k;
      }
    }
  }
  rounds_ = rounds;
  return true;
}

namespace {

// One block on columns already loaded, for the CBC loops and the single-block calls alike.
using Columns = std::array<std::uint32_t, 4>;

// The rounds of either direction. Both have the same shape; they differ only in which column
// feeds each byte position: ShiftRows moves rows left, so output column i takes its bytes from
// columns i, i+1, i+2, i+3, and InvShiftRows moves them right, giving i, i+3, i+2, i+1. kStep is
// that column stride, 1 or 3.
template <int kStep>
inline Columns Rounds(Columns s, const std::uint32_t* rk, int rounds,
                      const std::uint32_t (*table)[256], const std::uint8_t* sbox) noexcept {
  constexpr auto at = [](int i, int k) { return (i + k * kStep) & 3; };
  for (int c = 0; c < 4; ++c) s[c] ^= rk[c];
  for (int round = 1; round < rounds; ++round) {
    rk += 4;
    Columns t;
    for (int i = 0; i < 4; ++i) {
      t[i] = table[0][s[at(i, 0)] >> 24] ^ table[1][Byte(s[at(i, 1)], 16)] ^
             table[2][Byte(s[at(i, 2)], 8)] ^ table[3][s[at(i, 3)] & 0xFF] ^ rk[i];
    }
    s = t;
  }
  rk += 4;
  Columns out;
  for (int i = 0; i < 4; ++i) {
    out[i] = ((std::uint32_t{sbox[s[at(i, 0)] >> 24]} << 24) |
              (std::uint32_t{sbox[Byte(s[at(i, 1)], 16)]} << 16) |
              (std::uint32_t{sbox[Byte(s[at(i, 2)], 8)]} << 8) |
              std::uint32_t{sbox[s[at(i, 3)] & 0xFF]}) ^
             rk[i];
  }
  return out;
}

inline Columns EncryptColumns(Columns s, const std::uint32_t* rk, int rounds,
                              const std::uint32_t (*te)[256], const std::uint8_t* sbox) noexcept {
  return Rounds<1>(s, rk, rounds, te, sbox);
}

inline Columns DecryptColumns(Columns s, const std::uint32_t* rk, int rounds,
                              const std::uint32_t (*td)[256],
                              const std::uint8_t* inverseSbox) noexcept {
  return Rounds<3>(s, rk, rounds, td, inverseSbox);
}

inline Columns Load(const std::uint8_t* p) noexcept {
  return {LoadBe32(p), LoadBe32(p + 4), LoadBe32(p + 8), LoadBe32(p + 12)};
}

inline void Store(std::uint8_t* p, Columns s) noexcept {
  for (int c = 0; c < 4; ++c) StoreBe32(p + 4 * c, s[c]);
}

}  // namespace

void Aes::EncryptBlock(const std::uint8_t* in, std::uint8_t* out) const noexcept {
  Store(out, EncryptColumns(Load(in), encryptKey_, rounds_, encryptTable_, sbox_));
}

void Aes::DecryptBlock(const std::uint8_t* in, std::uint8_t* out) const noexcept {
  Store(out, DecryptColumns(Load(in), decryptKey_, rounds_, decryptTable_, inverseSbox_));
}

void Aes::EncryptCbc(std::uint8_t* chain, const std::uint8_t* in, std::uint8_t* out,
                     std::size_t blocks) const noexcept {
  Columns c = Load(chain);
  for (std::size_t i = 0; i < blocks; ++i, in += kAesBlockSize, out += kAesBlockSize) {
    const Columns p = Load(in);
    for (int k = 0; k < 4; ++k) c[k] ^= p[k];
    c = EncryptColumns(c, encryptKey_, rounds_, encryptTable_, sbox_);
    Store(out, c);
  }
  Store(chain, c);
}

void Aes::DecryptCbc(std::uint8_t* chain, const std::uint8_t* in, std::uint8_t* out,
                     std::size_t blocks) const noexcept {
  Columns previous = Load(chain);
  for (std::size_t i = 0; i < blocks; ++i, in += kAesBlockSize, out += kAesBlockSize) {
    // Read the cipher block before writing, so that in-place decryption keeps its chain.
    Columns cipher = Load(in);
    Columns p = DecryptColumns(cipher, decryptKey_, rounds_, decryptTable_, inverseSbox_);
    for (int k = 0; k < 4; ++k) p[k] ^= previous[k];
    Store(out, p);
    previous = cipher;
  }
  Store(chain, previous);
}

}  // namespace mrwl
