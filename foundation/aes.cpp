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
struct Columns {
  std::uint32_t c0, c1, c2, c3;
};

inline Columns EncryptColumns(Columns s, const std::uint32_t* rk, int rounds,
                              const std::uint32_t (*te)[256], const std::uint8_t* sbox) noexcept {
  const std::uint32_t* te0 = te[0];
  const std::uint32_t* te1 = te[1];
  const std::uint32_t* te2 = te[2];
  const std::uint32_t* te3 = te[3];
  std::uint32_t s0 = s.c0 ^ rk[0], s1 = s.c1 ^ rk[1], s2 = s.c2 ^ rk[2], s3 = s.c3 ^ rk[3];
  for (int round = 1; round < rounds; ++round) {
    rk += 4;
    std::uint32_t t0 =
        te0[s0 >> 24] ^ te1[Byte(s1, 16)] ^ te2[Byte(s2, 8)] ^ te3[s3 & 0xFF] ^ rk[0];
    std::uint32_t t1 =
        te0[s1 >> 24] ^ te1[Byte(s2, 16)] ^ te2[Byte(s3, 8)] ^ te3[s0 & 0xFF] ^ rk[1];
    std::uint32_t t2 =
        te0[s2 >> 24] ^ te1[Byte(s3, 16)] ^ te2[Byte(s0, 8)] ^ te3[s1 & 0xFF] ^ rk[2];
    std::uint32_t t3 =
        te0[s3 >> 24] ^ te1[Byte(s0, 16)] ^ te2[Byte(s1, 8)] ^ te3[s2 & 0xFF] ^ rk[3];
    s0 = t0;
    s1 = t1;
    s2 = t2;
    s3 = t3;
  }
  rk += 4;
  auto last = [sbox](std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
    return (std::uint32_t{sbox[a >> 24]} << 24) | (std::uint32_t{sbox[Byte(b, 16)]} << 16) |
           (std::uint32_t{sbox[Byte(c, 8)]} << 8) | std::uint32_t{sbox[d & 0xFF]};
  };
  return {last(s0, s1, s2, s3) ^ rk[0], last(s1, s2, s3, s0) ^ rk[1], last(s2, s3, s0, s1) ^ rk[2],
          last(s3, s0, s1, s2) ^ rk[3]};
}

inline Columns DecryptColumns(Columns s, const std::uint32_t* rk, int rounds,
                              const std::uint32_t (*td)[256],
                              const std::uint8_t* inverseSbox) noexcept {
  const std::uint32_t* td0 = td[0];
  const std::uint32_t* td1 = td[1];
  const std::uint32_t* td2 = td[2];
  const std::uint32_t* td3 = td[3];
  std::uint32_t s0 = s.c0 ^ rk[0], s1 = s.c1 ^ rk[1], s2 = s.c2 ^ rk[2], s3 = s.c3 ^ rk[3];
  for (int round = 1; round < rounds; ++round) {
    rk += 4;
    std::uint32_t t0 =
        td0[s0 >> 24] ^ td1[Byte(s3, 16)] ^ td2[Byte(s2, 8)] ^ td3[s1 & 0xFF] ^ rk[0];
    std::uint32_t t1 =
        td0[s1 >> 24] ^ td1[Byte(s0, 16)] ^ td2[Byte(s3, 8)] ^ td3[s2 & 0xFF] ^ rk[1];
    std::uint32_t t2 =
        td0[s2 >> 24] ^ td1[Byte(s1, 16)] ^ td2[Byte(s0, 8)] ^ td3[s3 & 0xFF] ^ rk[2];
    std::uint32_t t3 =
        td0[s3 >> 24] ^ td1[Byte(s2, 16)] ^ td2[Byte(s1, 8)] ^ td3[s0 & 0xFF] ^ rk[3];
    s0 = t0;
    s1 = t1;
    s2 = t2;
    s3 = t3;
  }
  rk += 4;
  auto last = [inverseSbox](std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
    return (std::uint32_t{inverseSbox[a >> 24]} << 24) |
           (std::uint32_t{inverseSbox[Byte(b, 16)]} << 16) |
           (std::uint32_t{inverseSbox[Byte(c, 8)]} << 8) | std::uint32_t{inverseSbox[d & 0xFF]};
  };
  return {last(s0, s3, s2, s1) ^ rk[0], last(s1, s0, s3, s2) ^ rk[1], last(s2, s1, s0, s3) ^ rk[2],
          last(s3, s2, s1, s0) ^ rk[3]};
}

inline Columns Load(const std::uint8_t* p) noexcept {
  return {LoadBe32(p), LoadBe32(p + 4), LoadBe32(p + 8), LoadBe32(p + 12)};
}

inline void Store(std::uint8_t* p, Columns s) noexcept {
  StoreBe32(p, s.c0);
  StoreBe32(p + 4, s.c1);
  StoreBe32(p + 8, s.c2);
  StoreBe32(p + 12, s.c3);
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
    Columns p = Load(in);
    c = EncryptColumns({p.c0 ^ c.c0, p.c1 ^ c.c1, p.c2 ^ c.c2, p.c3 ^ c.c3}, encryptKey_, rounds_,
                       encryptTable_, sbox_);
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
    Store(out, {p.c0 ^ previous.c0, p.c1 ^ previous.c1, p.c2 ^ previous.c2, p.c3 ^ previous.c3});
    previous = cipher;
  }
  Store(chain, previous);
}

}  // namespace mrwl
