#include <cstddef>
#include <cstdint>
#include <cstring>

#include "foundation/codecs.h"

// MD5 per RFC 1321. The 64 steps are written out so that the compiler sees constant shifts and
// constants; the input words are assembled from bytes, which compilers turn into plain loads on
// little-endian machines and which stays right on the others.

namespace mrwl {
namespace {

inline std::uint32_t LoadLe32(const std::uint8_t* p) noexcept {
  return std::uint32_t{p[0]} | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16) |
         (std::uint32_t{p[3]} << 24);
}

inline void StoreLe32(std::uint8_t* p, std::uint32_t v) noexcept {
  p[0] = static_cast<std::uint8_t>(v);
  p[1] = static_cast<std::uint8_t>(v >> 8);
  p[2] = static_cast<std::uint8_t>(v >> 16);
  p[3] = static_cast<std::uint8_t>(v >> 24);
}

inline std::uint32_t RotateLeft(std::uint32_t v, int bits) noexcept {
  return (v << bits) | (v >> (32 - bits));
}

// The four round functions; F and G in the forms that need one operation less.
inline std::uint32_t RoundF(std::uint32_t x, std::uint32_t y, std::uint32_t z) noexcept {
  return z ^ (x & (y ^ z));
}
inline std::uint32_t RoundG(std::uint32_t x, std::uint32_t y, std::uint32_t z) noexcept {
  return y ^ (z & (x ^ y));
}
inline std::uint32_t RoundH(std::uint32_t x, std::uint32_t y, std::uint32_t z) noexcept {
  return x ^ y ^ z;
}
inline std::uint32_t RoundI(std::uint32_t x, std::uint32_t y, std::uint32_t z) noexcept {
  return y ^ (x | ~z);
}

#define MRWL_MD5_STEP(f, a, b, c, d, x, s, t) \
  a += f(b, c, d) + (x) + (t);                \
  a = RotateLeft(a, s) + b

void Transform(std::uint32_t* state, const std::uint8_t* block, std::size_t blocks) noexcept {
  std::uint32_t a0 = state[0], b0 = state[1], c0 = state[2], d0 = state[3];
  for (; blocks != 0; --blocks, block += 64) {
    std::uint32_t x[16];
    for (int i = 0; i < 16; ++i) x[i] = LoadLe32(block + 4 * i);
    std::uint32_t a = a0, b = b0, c = c0, d = d0;

    MRWL_MD5_STEP(RoundF, a, b, c, d, x[0], 7, 0xd76aa478);
    MRWL_MD5_STEP(RoundF, d, a, b, c, x[1], 12, 0xe8c7b756);
    MRWL_MD5_STEP(RoundF, c, d, a, b, x[2], 17, 0x242070db);
    MRWL_MD5_STEP(RoundF, b, c, d, a, x[3], 22, 0xc1bdceee);
    MRWL_MD5_STEP(RoundF, a, b, c, d, x[4], 7, 0xf57c0faf);
    MRWL_MD5_STEP(RoundF, d, a, b, c, x[5], 12, 0x4787c62a);
    MRWL_MD5_STEP(RoundF, c, d, a, b, x[6], 17, 0xa8304613);
    MRWL_MD5_STEP(RoundF, b, c, d, a, x[7], 22, 0xfd469501);
    MRWL_MD5_STEP(RoundF, a, b, c, d, x[8], 7, 0x698098d8);
    MRWL_MD5_STEP(RoundF, d, a, b, c, x[9], 12, 0x8b44f7af);
    MRWL_MD5_STEP(RoundF, c, d, a, b, x[10], 17, 0xffff5bb1);
    MRWL_MD5_STEP(RoundF, b, c, d, a, x[11], 22, 0x895cd7be);
    MRWL_MD5_STEP(RoundF, a, b, c, d, x[12], 7, 0x6b901122);
    MRWL_MD5_STEP(RoundF, d, a, b, c, x[13], 12, 0xfd987193);
    MRWL_MD5_STEP(RoundF, c, d, a, b, x[14], 17, 0xa679438e);
    MRWL_MD5_STEP(RoundF, b, c, d, a, x[15], 22, 0x49b40821);

    MRWL_MD5_STEP(RoundG, a, b, c, d, x[1], 5, 0xf61e2562);
    MRWL_MD5_STEP(RoundG, d, a, b, c, x[6], 9, 0xc040b340);
    MRWL_MD5_STEP(RoundG, c, d, a, b, x[11], 14, 0x265e5a51);
    MRWL_MD5_STEP(RoundG, b, c, d, a, x[0], 20, 0xe9b6c7aa);
    MRWL_MD5_STEP(RoundG, a, b, c, d, x[5], 5, 0xd62f105d);
    MRWL_MD5_STEP(RoundG, d, a, b, c, x[10], 9, 0x02441453);
    MRWL_MD5_STEP(RoundG, c, d, a, b, x[15], 14, 0xd8a1e681);
    MRWL_MD5_STEP(RoundG, b, c, d, a, x[4], 20, 0xe7d3fbc8);
    MRWL_MD5_STEP(RoundG, a, b, c, d, x[9], 5, 0x21e1cde6);
    MRWL_MD5_STEP(RoundG, d, a, b, c, x[14], 9, 0xc33707d6);
    MRWL_MD5_STEP(RoundG, c, d, a, b, x[3], 14, 0xf4d50d87);
    MRWL_MD5_STEP(RoundG, b, c, d, a, x[8], 20, 0x455a14ed);
    MRWL_MD5_STEP(RoundG, a, b, c, d, x[13], 5, 0xa9e3e905);
    MRWL_MD5_STEP(RoundG, d, a, b, c, x[2], 9, 0xfcefa3f8);
    MRWL_MD5_STEP(RoundG, c, d, a, b, x[7], 14, 0x676f02d9);
    MRWL_MD5_STEP(RoundG, b, c, d, a, x[12], 20, 0x8d2a4c8a);

    MRWL_MD5_STEP(RoundH, a, b, c, d, x[5], 4, 0xfffa3942);
    MRWL_MD5_STEP(RoundH, d, a, b, c, x[8], 11, 0x8771f681);
    MRWL_MD5_STEP(RoundH, c, d, a, b, x[11], 16, 0x6d9d6122);
    MRWL_MD5_STEP(RoundH, b, c, d, a, x[14], 23, 0xfde5380c);
    MRWL_MD5_STEP(RoundH, a, b, c, d, x[1], 4, 0xa4beea44);
    MRWL_MD5_STEP(RoundH, d, a, b, c, x[4], 11, 0x4bdecfa9);
    MRWL_MD5_STEP(RoundH, c, d, a, b, x[7], 16, 0xf6bb4b60);
    MRWL_MD5_STEP(RoundH, b, c, d, a, x[10], 23, 0xbebfbc70);
    MRWL_MD5_STEP(RoundH, a, b, c, d, x[13], 4, 0x289b7ec6);
    MRWL_MD5_STEP(RoundH, d, a, b, c, x[0], 11, 0xeaa127fa);
    MRWL_MD5_STEP(RoundH, c, d, a, b, x[3], 16, 0xd4ef3085);
    MRWL_MD5_STEP(RoundH, b, c, d, a, x[6], 23, 0x04881d05);
    MRWL_MD5_STEP(RoundH, a, b, c, d, x[9], 4, 0xd9d4d039);
    MRWL_MD5_STEP(RoundH, d, a, b, c, x[12], 11, 0xe6db99e5);
    MRWL_MD5_STEP(RoundH, c, d, a, b, x[15], 16, 0x1fa27cf8);
    MRWL_MD5_STEP(RoundH, b, c, d, a, x[2], 23, 0xc4ac5665);

    MRWL_MD5_STEP(RoundI, a, b, c, d, x[0], 6, 0xf4292244);
    MRWL_MD5_STEP(RoundI, d, a, b, c, x[7], 10, 0x432aff97);
    MRWL_MD5_STEP(RoundI, c, d, a, b, x[14], 15, 0xab9423a7);
    MRWL_MD5_STEP(RoundI, b, c, d, a, x[5], 21, 0xfc93a039);
    MRWL_MD5_STEP(RoundI, a, b, c, d, x[12], 6, 0x655b59c3);
    MRWL_MD5_STEP(RoundI, d, a, b, c, x[3], 10, 0x8f0ccc92);
    MRWL_MD5_STEP(RoundI, c, d, a, b, x[10], 15, 0xffeff47d);
    MRWL_MD5_STEP(RoundI, b, c, d, a, x[1], 21, 0x85845dd1);
    MRWL_MD5_STEP(RoundI, a, b, c, d, x[8], 6, 0x6fa87e4f);
    MRWL_MD5_STEP(RoundI, d, a, b, c, x[15], 10, 0xfe2ce6e0);
    MRWL_MD5_STEP(RoundI, c, d, a, b, x[6], 15, 0xa3014314);
    MRWL_MD5_STEP(RoundI, b, c, d, a, x[13], 21, 0x4e0811a1);
    MRWL_MD5_STEP(RoundI, a, b, c, d, x[4], 6, 0xf7537e82);
    MRWL_MD5_STEP(RoundI, d, a, b, c, x[11], 10, 0xbd3af235);
    MRWL_MD5_STEP(RoundI, c, d, a, b, x[2], 15, 0x2ad7d2bb);
    MRWL_MD5_STEP(RoundI, b, c, d, a, x[9], 21, 0xeb86d391);

    a0 += a;
    b0 += b;
    c0 += c;
    d0 += d;
  }
  state[0] = a0;
  state[1] = b0;
  state[2] = c0;
  state[3] = d0;
}

#undef MRWL_MD5_STEP

}  // namespace

void Md5::Init() noexcept {
  state_[0] = 0x67452301;
  state_[1] = 0xefcdab89;
  state_[2] = 0x98badcfe;
  state_[3] = 0x10325476;
  byteCount_ = 0;
}

void Md5::Update(const void* data, std::size_t length) noexcept {
  if (length == 0 || data == nullptr) return;
  const auto* in = static_cast<const std::uint8_t*>(data);
  std::size_t used = static_cast<std::size_t>(byteCount_ & 63);
  byteCount_ += length;
  if (used != 0) {
    std::size_t take = 64 - used;
    if (length < take) {
      std::memcpy(buffer_ + used, in, length);
      return;
    }
    std::memcpy(buffer_ + used, in, take);
    Transform(state_, buffer_, 1);
    in += take;
    length -= take;
  }
  if (length >= 64) {
    Transform(state_, in, length / 64);
    in += length & ~std::size_t{63};
    length &= 63;
  }
  if (length != 0) std::memcpy(buffer_, in, length);
}

void Md5::Final(std::uint8_t* digest) noexcept {
  const std::uint64_t bitCount = byteCount_ * 8;
  std::size_t used = static_cast<std::size_t>(byteCount_ & 63);
  buffer_[used++] = 0x80;
  if (used > 56) {
    std::memset(buffer_ + used, 0, 64 - used);
    Transform(state_, buffer_, 1);
    used = 0;
  }
  std::memset(buffer_ + used, 0, 56 - used);
  StoreLe32(buffer_ + 56, static_cast<std::uint32_t>(bitCount));
  StoreLe32(buffer_ + 60, static_cast<std::uint32_t>(bitCount >> 32));
  Transform(state_, buffer_, 1);
  for (int i = 0; i < 4; ++i) StoreLe32(digest + 4 * i, state_[i]);
}

void Md5::Compute(const void* data, std::size_t length, std::uint8_t* digest) noexcept {
  Md5 md5;
  md5.Update(data, length);
  md5.Final(digest);
}

}  // namespace mrwl
