// Codecs: sealed values, and the AES cipher and MD5 digest they are built from.
//
// A sealed value is data encrypted with a key that the caller holds (AES in CBC mode), carrying
// an encrypted MD5 digest of the plain data so that a wrong key or a damaged value is detected.
// Layout of a sealed blob: 16 bytes of initialisation vector in clear, then the digest encrypted
// as the first CBC block, then the data and a pad of 1 to 16 bytes (each holding the pad's length)
// as the following blocks. A blob is therefore the plain length rounded down to a multiple of 16,
// plus 48 bytes. A sealed text is one zero code unit followed by the blob's bytes as code units.
//
// AES and MD5 are this system's own code and follow their published standards. The cipher's tables
// are computed when a key is set and live in the Aes object; nothing is precomputed at start-up.
//
// Threads: a SealContext or an Aes holds the chaining block and the key schedule, so one serves
// one call at a time; make one for each operation. Md5 objects are likewise single-threaded. The
// functions themselves keep no shared state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/result_codes.h"

namespace mrwl {

class WideString;

// Results of the codecs. These are the system's own values, not codes of the "Codecs" domain.
inline constexpr ResultCode kCodecInvalidArgument = static_cast<ResultCode>(0x80070057u);
inline constexpr ResultCode kCodecInsufficientBuffer = static_cast<ResultCode>(0x8007007Au);
inline constexpr ResultCode kCodecDecryptFailure = static_cast<ResultCode>(0x80090330u);
inline constexpr ResultCode kCodecOutOfMemory = static_cast<ResultCode>(0x8007000Eu);

inline constexpr std::size_t kAesBlockSize = 16;
inline constexpr std::size_t kMd5DigestSize = 16;

// Which halves of the cipher SetKey prepares. Each half costs a table build, so the sealing code
// asks only for the one it uses.
enum class AesDirection : std::uint8_t {
  kEncrypt = 1,
  kDecrypt = 2,
  kBoth = 3,
};

// The AES block cipher (FIPS-197) with 128-, 192- and 256-bit keys, and CBC over whole blocks.
// The object is large (about 9 KiB, its lookup tables) and holds no pointers, so it may be copied
// or placed anywhere; it needs no destruction.
class Aes {
 public:
  // Builds the key schedule and the tables of `direction` for `key` of `keyBits` bits. Returns
  // false, and leaves the object unusable, unless `keyBits` is 128, 192 or 256 and `key` is not
  // null.
  [[nodiscard]] bool SetKey(const void* key, std::size_t keyBits,
                            AesDirection direction = AesDirection::kBoth) noexcept;

  // The number of rounds of the current key: 10, 12 or 14; 0 before a successful SetKey.
  [[nodiscard]] int Rounds() const noexcept { return rounds_; }

  // One block. `in` and `out` may be the same. REQUIRES: SetKey with the matching direction.
  void EncryptBlock(const std::uint8_t* in, std::uint8_t* out) const noexcept;
  void DecryptBlock(const std::uint8_t* in, std::uint8_t* out) const noexcept;

  // CBC over `blocks` whole blocks from `in` to `out`, which may be the same buffer but must not
  // otherwise overlap. `chain` (16 bytes) is the initialisation vector on entry and the last
  // cipher block on return, so consecutive calls continue one chain. No padding is applied.
  // REQUIRES: SetKey with the matching direction.
  void EncryptCbc(std::uint8_t* chain, const std::uint8_t* in, std::uint8_t* out,
                  std::size_t blocks) const noexcept;
  void DecryptCbc(std::uint8_t* chain, const std::uint8_t* in, std::uint8_t* out,
                  std::size_t blocks) const noexcept;

 private:
  int rounds_ = 0;
  std::uint32_t encryptKey_[60];
  std::uint32_t decryptKey_[60];
  // Round tables: each entry is a column of SubBytes followed by MixColumns (or their inverses),
  // in the four byte rotations so that a round is sixteen lookups and XORs.
  std::uint32_t encryptTable_[4][256];
  std::uint32_t decryptTable_[4][256];
  std::uint8_t sbox_[256];
  std::uint8_t inverseSbox_[256];
};

// The MD5 digest (RFC 1321), incremental. Init may be called again to start over.
class Md5 {
 public:
  Md5() noexcept { Init(); }

  void Init() noexcept;
  // Adds `length` bytes. A null `data` with a length of 0 is allowed.
  void Update(const void* data, std::size_t length) noexcept;
  // Writes the 16-byte digest of everything added since Init. The object then needs Init before
  // further use.
  void Final(std::uint8_t* digest) noexcept;

  // The digest of one buffer.
  static void Compute(const void* data, std::size_t length, std::uint8_t* digest) noexcept;

 private:
  std::uint32_t state_[4];
  std::uint64_t byteCount_;
  std::uint8_t buffer_[64];
};

// The state of sealing with one key. Fill it with SetSealKey; Seal and Unseal rebuild the cipher
// from Key and KeyLength each time and overwrite Chain and Cipher.
struct SealContext {
  std::uint32_t KeyLength;  // in bytes: 16, 24 or 32
  std::uint8_t Key[32];     // zero-padded
  std::uint8_t Chain[16];   // the CBC chaining block
  Aes Cipher;               // the expanded key and the cipher's tables
};

// Sets the key of `context`. KeyLength becomes `length` cut to 32, rounded down to a multiple of 8,
// and at least 16: 0 to 23 bytes give a 16-byte key (a shorter key padded with zero bytes, a longer
// one cut), 24 to 31 give 24, 32 and more give 32. A null `key` counts as a key of zero bytes.
// Returns 0, or kCodecInvalidArgument for a null `context`.
ResultCode SetSealKey(SealContext* context, const void* key, std::size_t length) noexcept;

// Seals `length` bytes of `plain` into `blob`, whose room in bytes `*blobLength` gives on entry.
// With a null `blob`, sets `*blobLength` to the size needed and returns 0 without reading `plain`.
// On success `*blobLength` is the blob's size. Returns kCodecInvalidArgument for a null `context`,
// `plain` or `blobLength`, a key whose length is not 16, 24 or 32, or too little room; in the last
// case `*blobLength` is set to the size needed. REQUIRES: `plain` and `blob` do not overlap.
ResultCode Seal(SealContext* context, const void* plain, std::size_t length, void* blob,
                std::size_t* blobLength) noexcept;

// Unseals the blob of `length` bytes into `plain`, whose room in bytes `*plainLength` gives on
// entry; a tail beyond a multiple of 16 is ignored. With a null `plain`, sets `*plainLength` to the
// length of the result, without checking the digest. On success `*plainLength` is that length.
// Returns kCodecInvalidArgument for null pointers, a blob too short or whose result would be
// empty, a bad key length, too little room, or a digest that does not match (a wrong key or
// damaged data); on failure `*plainLength` is unchanged and `plain` may hold decrypted bytes.
// REQUIRES: `blob` and `plain` do not overlap.
ResultCode Unseal(SealContext* context, const void* blob, std::size_t length, void* plain,
                  std::size_t* plainLength) noexcept;

// Seals `length` code units of `text` into `result`, whose room in code units `*resultLength`
// gives on entry: one zero code unit, then the blob of the text's bytes. On success
// `*resultLength` is the length in code units. With a null `result`, sets `*resultLength` to the
// length needed and returns 0. With a null `context` the text is copied unchanged, and too little
// room gives kCodecInsufficientBuffer; with a context, too little room gives
// kCodecInvalidArgument. In both cases `*resultLength` is then set to the length needed.
ResultCode SealText(SealContext* context, const char16_t* text, std::size_t length,
                    char16_t* result, std::size_t* resultLength) noexcept;

// Unseals a text of `length` code units into `result` (room and result length as for SealText).
// With a null `context` the text is copied unchanged, and too little room gives
// kCodecInsufficientBuffer. A text that does not begin with a zero code unit is unsealed whole,
// which reads values written without the marker, and a failure gives the code of Unseal. A text
// that does is unsealed behind the marker and, failing that, whole once more; if both fail the
// result is kCodecDecryptFailure. With a null `result`, sets `*resultLength` to the length of the
// result, unchecked, and returns 0 when a length could be found.
ResultCode UnsealText(SealContext* context, const char16_t* text, std::size_t length,
                      char16_t* result, std::size_t* resultLength) noexcept;

// SealText and UnsealText into a string object, first with room for the input's length plus 256
// code units and once more if that proves too small. On failure `result` is empty. Returns as
// SealText and UnsealText, or kCodecOutOfMemory. REQUIRES: `text` does not lie in `result`.
ResultCode SealTextToString(SealContext* context, std::u16string_view text,
                            WideString& result) noexcept;
ResultCode UnsealTextToString(SealContext* context, std::u16string_view text,
                              WideString& result) noexcept;

// What a base64 decoder does with characters outside the alphabet.
enum class Base64Input {
  kStrict,      // refused; '=' only as trailing padding, and no last group of one character
  kSkipOthers,  // passed over (line breaks, padding); the text ends at a NUL; a lone last
                // character is dropped
};

// Appends the bytes of base64 `text` to `out`. False, with `out` partly filled, only when a strict
// decode meets what it refuses.
bool DecodeBase64(std::string_view text, Base64Input input, std::string& out);

}  // namespace mrwl
