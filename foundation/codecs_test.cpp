#include "foundation/codecs.h"

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "foundation/memory.h"
#include "foundation/result_codes.h"
#include "foundation/wide_string.h"

namespace mrwl {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes FromHex(std::string_view hex) {
  Bytes out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

std::string ToHex(const std::uint8_t* p, std::size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < n; ++i) {
    out += kDigits[p[i] >> 4];
    out += kDigits[p[i] & 15];
  }
  return out;
}

Bytes RandomBytes(std::mt19937& random, std::size_t n) {
  Bytes out(n);
  for (auto& b : out) b = static_cast<std::uint8_t>(random());
  return out;
}

// OpenSSL as the independent reference: raw AES-CBC without padding, and MD5.
Bytes OpenSslCbc(bool encrypt, const Bytes& key, const Bytes& iv, const Bytes& in) {
  const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_cbc()
                             : key.size() == 24 ? EVP_aes_192_cbc()
                                                : EVP_aes_256_cbc();
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  Bytes out(in.size() + 16);
  int n = 0, tail = 0;
  EVP_CipherInit_ex(ctx, cipher, nullptr, key.data(), iv.data(), encrypt ? 1 : 0);
  EVP_CIPHER_CTX_set_padding(ctx, 0);
  EVP_CipherUpdate(ctx, out.data(), &n, in.data(), static_cast<int>(in.size()));
  EVP_CipherFinal_ex(ctx, out.data() + n, &tail);
  EVP_CIPHER_CTX_free(ctx);
  out.resize(static_cast<std::size_t>(n + tail));
  return out;
}

std::string OpenSslMd5(const Bytes& in) {
  unsigned char digest[16];
  unsigned int n = 0;
  EVP_Digest(in.data(), in.size(), digest, &n, EVP_md5(), nullptr);
  return ToHex(digest, n);
}

// --- AES -----------------------------------------------------------------------------------------

// FIPS-197 appendix C (one block) and SP 800-38A F.2 (CBC), for each key size.
TEST(Aes, PublishedVectorsEncryptAndDecrypt) {
  struct Case {
    const char *blockKey, *blockCipher, *cbcKey, *cbcCipher;
  } const kCases[] = {
      {"000102030405060708090a0b0c0d0e0f", "69c4e0d86a7b0430d8cdb78070b4c55a",
       "2b7e151628aed2a6abf7158809cf4f3c",
       "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
       "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
      {"000102030405060708090a0b0c0d0e0f1011121314151617", "dda97ca4864cdfe06eaf70a0ec0d7191",
       "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
       "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
       "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd"},
      {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f",
       "8ea2b7ca516745bfeafc49904b496089",
       "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
       "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
       "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"},
  };
  const Bytes block = FromHex("00112233445566778899aabbccddeeff");
  const Bytes plain = FromHex(
      "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
      "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
  const Bytes iv = FromHex("000102030405060708090a0b0c0d0e0f");
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.blockKey);
    Bytes key = FromHex(c.blockKey);
    Aes aes;
    ASSERT_TRUE(aes.SetKey(key.data(), key.size() * 8));
    EXPECT_EQ(static_cast<int>(key.size() / 4 + 6), aes.Rounds());
    std::uint8_t out[16];
    aes.EncryptBlock(block.data(), out);
    EXPECT_EQ(c.blockCipher, ToHex(out, 16));
    aes.DecryptBlock(out, out);  // in place
    EXPECT_EQ(ToHex(block.data(), 16), ToHex(out, 16));

    key = FromHex(c.cbcKey);
    ASSERT_TRUE(aes.SetKey(key.data(), key.size() * 8));
    // Two calls continue one chain: the chain block carries over.
    Bytes chain = iv, cipher(plain.size());
    aes.EncryptCbc(chain.data(), plain.data(), cipher.data(), 1);
    aes.EncryptCbc(chain.data(), plain.data() + 16, cipher.data() + 16, 3);
    EXPECT_EQ(c.cbcCipher, ToHex(cipher.data(), cipher.size()));
    EXPECT_EQ(ToHex(cipher.data() + 48, 16), ToHex(chain.data(), 16));
    chain = iv;
    aes.DecryptCbc(chain.data(), cipher.data(), cipher.data(), 4);  // in place
    EXPECT_EQ(plain, cipher);
  }
}

TEST(Aes, RejectsOtherKeySizes) {
  const std::uint8_t key[32] = {};
  Aes aes;
  for (std::size_t bits : {0u, 64u, 127u, 160u, 224u, 257u, 512u}) {
    SCOPED_TRACE(bits);
    EXPECT_FALSE(aes.SetKey(key, bits));
    EXPECT_EQ(0, aes.Rounds());
  }
  EXPECT_FALSE(aes.SetKey(nullptr, 128));
}

TEST(Aes, AgreesWithOpenSslOverRandomKeysAndLengths) {
  std::mt19937 random(1234);
  for (std::size_t keyLength : {16u, 24u, 32u}) {
    for (int trial = 0; trial < 40; ++trial) {
      const std::size_t blocks = trial < 20 ? trial : random() % 300;
      SCOPED_TRACE(testing::Message() << "key " << keyLength << " blocks " << blocks);
      Bytes key = RandomBytes(random, keyLength), iv = RandomBytes(random, 16);
      Bytes plain = RandomBytes(random, blocks * 16);
      Aes encryptOnly, decryptOnly;
      ASSERT_TRUE(encryptOnly.SetKey(key.data(), keyLength * 8, AesDirection::kEncrypt));
      ASSERT_TRUE(decryptOnly.SetKey(key.data(), keyLength * 8, AesDirection::kDecrypt));
      Bytes chain = iv, cipher(plain.size());
      encryptOnly.EncryptCbc(chain.data(), plain.data(), cipher.data(), blocks);
      ASSERT_EQ(OpenSslCbc(true, key, iv, plain), cipher);
      Bytes foreign = RandomBytes(random, blocks * 16), decrypted(foreign.size());
      chain = iv;
      decryptOnly.DecryptCbc(chain.data(), foreign.data(), decrypted.data(), blocks);
      ASSERT_EQ(OpenSslCbc(false, key, iv, foreign), decrypted);
    }
  }
}

// --- MD5 -----------------------------------------------------------------------------------------

TEST(Md5, Rfc1321TestSuiteOneShotAndInPieces) {
  struct Case {
    const char* text;
    const char* digest;
  };
  const Case kCases[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"1234567890123456789012345678901234567890123456789012345678901234567890123456789"
       "0",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    const std::size_t n = std::strlen(c.text);
    std::uint8_t digest[16];
    Md5::Compute(c.text, n, digest);
    EXPECT_EQ(c.digest, ToHex(digest, 16));
    // Every split point in two pieces, which crosses the buffered path of Update.
    for (std::size_t split = 0; split <= n; ++split) {
      Md5 md5;
      md5.Update(c.text, split);
      md5.Update(c.text + split, n - split);
      md5.Final(digest);
      ASSERT_EQ(c.digest, ToHex(digest, 16)) << "split at " << split;
    }
  }
}

TEST(Md5, AgreesWithOpenSslOverRandomLengthsAndPieces) {
  std::mt19937 random(99);
  std::vector<std::size_t> lengths;
  for (std::size_t n = 0; n <= 200; ++n) lengths.push_back(n);
  for (std::size_t n : {511u, 512u, 513u, 4095u, 65536u, 100003u}) lengths.push_back(n);
  Md5 md5;
  for (std::size_t n : lengths) {
    SCOPED_TRACE(n);
    Bytes data = RandomBytes(random, n);
    md5.Init();  // reuse of one object after Final
    for (std::size_t at = 0; at < n;) {
      std::size_t piece = std::min<std::size_t>(n - at, random() % 150);
      md5.Update(data.data() + at, piece);
      at += piece;
    }
    std::uint8_t digest[16];
    md5.Final(digest);
    ASSERT_EQ(OpenSslMd5(data), ToHex(digest, 16));
  }
}

// --- Sealed values -------------------------------------------------------------------------------

class SealTest : public testing::Test {
 protected:
  void UseKey(std::string_view key) {
    ASSERT_EQ(kOk, SetSealKey(&context_, key.data(), key.size()));
  }

  Bytes SealBytes(const Bytes& plain) {
    std::size_t size = 0;
    EXPECT_EQ(kOk, Seal(&context_, plain.data(), plain.size(), nullptr, &size));
    Bytes blob(size);
    EXPECT_EQ(kOk, Seal(&context_, plain.data(), plain.size(), blob.data(), &size));
    EXPECT_EQ(blob.size(), size);
    return blob;
  }

  // Unseals into a heap block of exactly `room` bytes (by default the blob's size), so that the
  // sanitizer sees any overrun.
  ResultCode UnsealBytes(const Bytes& blob, Bytes* plain, std::size_t room = SIZE_MAX) {
    if (room == SIZE_MAX) room = blob.size();
    void* buffer = MemAlloc(room == 0 ? 1 : room);
    std::size_t length = room;
    ResultCode code = Unseal(&context_, blob.data(), blob.size(), buffer, &length);
    if (code == kOk) {
      plain->assign(static_cast<std::uint8_t*>(buffer),
                    static_cast<std::uint8_t*>(buffer) + length);
    } else {
      EXPECT_EQ(room, length) << "the length must stay on failure";
    }
    MemFree(buffer);
    return code;
  }

  SealContext context_{};
};

TEST_F(SealTest, KeyLengthIsCutRoundedAndAtLeastSixteen) {
  const std::string key = "0123456789abcdefghijklmnopqrstuvwxyz0123";
  const struct {
    std::size_t given;
    std::uint32_t keyLength;
  } kCases[] = {{0, 16},  {5, 16},  {16, 16}, {17, 16}, {23, 16}, {24, 24},
                {25, 24}, {31, 24}, {32, 32}, {33, 32}, {40, 32}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.given);
    context_.KeyLength = 0xCCCCCCCC;  // stale state that must not survive
    std::memset(context_.Key, 0xCC, sizeof(context_.Key));
    ASSERT_EQ(kOk, SetSealKey(&context_, key.data(), c.given));
    EXPECT_EQ(c.keyLength, context_.KeyLength);
    const std::size_t copied = std::min<std::size_t>(c.given, c.keyLength);
    std::string expected = key.substr(0, copied) + std::string(32 - copied, '\0');
    EXPECT_EQ(expected, std::string(reinterpret_cast<char*>(context_.Key), 32));
  }
  EXPECT_EQ(kCodecInvalidArgument, SetSealKey(nullptr, key.data(), 16));
}

TEST_F(SealTest, RoundTripsEveryLengthWithEachKeySize) {
  std::mt19937 random(7);
  for (std::string_view key : {"k", "0123456789abcdef0123", "0123456789abcdef01234567",
                               "0123456789abcdef0123456789abcdef!!"}) {
    UseKey(key);
    for (std::size_t n = 1; n <= 100; ++n) {
      SCOPED_TRACE(testing::Message() << "key " << key.size() << " length " << n);
      Bytes plain = RandomBytes(random, n), result;
      Bytes blob = SealBytes(plain);
      EXPECT_EQ(n / 16 * 16 + 48, blob.size());
      std::size_t length = 0;
      ASSERT_EQ(kOk, Unseal(&context_, blob.data(), blob.size(), nullptr, &length));
      EXPECT_EQ(n, length);
      ASSERT_EQ(kOk, UnsealBytes(blob, &result, n));  // room of exactly the result suffices
      EXPECT_EQ(plain, result);
    }
  }
}

TEST_F(SealTest, TwoSealsOfTheSameDataDifferInEveryBlock) {
  UseKey("same key for both");
  Bytes plain(40, 'x');
  Bytes first = SealBytes(plain), second = SealBytes(plain);
  ASSERT_EQ(first.size(), second.size());
  for (std::size_t at = 0; at < first.size(); at += 16) {
    EXPECT_NE(ToHex(first.data() + at, 16), ToHex(second.data() + at, 16)) << "block at " << at;
  }
}

TEST_F(SealTest, RoomAndArgumentsAreChecked) {
  UseKey("key");
  Bytes plain(20, 'r'), result;
  std::size_t size = 63;
  Bytes blob(64);
  EXPECT_EQ(kCodecInvalidArgument, Seal(&context_, plain.data(), 20, blob.data(), &size));
  EXPECT_EQ(64u, size);  // told what it takes
  EXPECT_EQ(kCodecInvalidArgument, Seal(&context_, nullptr, 20, blob.data(), &size));
  EXPECT_EQ(kCodecInvalidArgument, Seal(nullptr, plain.data(), 20, blob.data(), &size));
  EXPECT_EQ(kCodecInvalidArgument, Seal(&context_, plain.data(), 20, blob.data(), nullptr));
  EXPECT_EQ(kCodecInvalidArgument, Seal(&context_, plain.data(), SIZE_MAX - 8, blob.data(), &size));
  blob = SealBytes(plain);
  EXPECT_EQ(kCodecInvalidArgument, UnsealBytes(blob, &result, 19));
  EXPECT_EQ(kOk, UnsealBytes(blob, &result, 20));
  std::size_t length = 20;
  EXPECT_EQ(kCodecInvalidArgument, Unseal(&context_, nullptr, 64, result.data(), &length));
  EXPECT_EQ(kCodecInvalidArgument, Unseal(&context_, blob.data(), 64, result.data(), nullptr));
  // An empty value seals, but its blob cannot be told from damage.
  std::uint8_t nothing = 0;
  size = 48;
  ASSERT_EQ(kOk, Seal(&context_, &nothing, 0, blob.data(), &size));
  blob.resize(48);
  EXPECT_EQ(kCodecInvalidArgument, UnsealBytes(blob, &result));
  length = 7;
  EXPECT_EQ(kCodecInvalidArgument, Unseal(&context_, blob.data(), 48, nullptr, &length));
  EXPECT_EQ(7u, length);
  // A key length that the cipher does not take is refused both ways.
  blob = SealBytes(plain);
  context_.KeyLength = 20;
  size = 64;
  EXPECT_EQ(kCodecInvalidArgument, Seal(&context_, plain.data(), 20, blob.data(), &size));
  EXPECT_EQ(kCodecInvalidArgument, UnsealBytes(blob, &result));
}

TEST_F(SealTest, DamagedTruncatedAndForeignBlobsFailSafely) {
  UseKey("the right key");
  std::mt19937 random(5);
  const Bytes plain = RandomBytes(random, 40);
  const Bytes blob = SealBytes(plain);  // 80 bytes
  Bytes result;
  for (std::size_t at = 0; at < blob.size(); ++at) {
    SCOPED_TRACE(::testing::Message() << "changed byte " << at);
    Bytes damaged = blob;
    damaged[at] ^= 0x01;
    EXPECT_EQ(kCodecInvalidArgument, UnsealBytes(damaged, &result));
  }
  for (std::size_t extra = 1; extra < 16; ++extra) {
    SCOPED_TRACE(::testing::Message() << "tail of " << extra);  // not a whole block: ignored
    Bytes longer = blob;
    longer.resize(blob.size() + extra, 0xEE);
    ASSERT_EQ(kOk, UnsealBytes(longer, &result));
    EXPECT_EQ(plain, result);
  }
  for (std::size_t n = 0; n <= 80; ++n) {
    SCOPED_TRACE(::testing::Message() << "length " << n);
    // A prefix of the real blob: all but the whole one are refused.
    Bytes prefix(blob.begin(), blob.begin() + static_cast<std::ptrdiff_t>(n));
    for (std::size_t room : {std::size_t{0}, std::size_t{1}, n, std::size_t{80}}) {
      ResultCode code = UnsealBytes(prefix, &result, room);
      EXPECT_EQ(n == 80 && room >= 40 ? kOk : kCodecInvalidArgument, code) << "room " << room;
    }
    // Random bytes, as sealed text too, with and without the marker.
    Bytes noise = RandomBytes(random, n);
    EXPECT_EQ(kCodecInvalidArgument, UnsealBytes(noise, &result));
    std::u16string text(n / 2, u'\0');
    if (!text.empty()) std::memcpy(text.data(), noise.data(), text.size() * 2);
    WideString out;
    ResultCode code = UnsealTextToString(&context_, text, out);
    EXPECT_TRUE(code == kCodecInvalidArgument || code == kCodecDecryptFailure) << code;
    EXPECT_TRUE(out.IsEmpty());
  }
  UseKey("the wrong key");
  EXPECT_EQ(kCodecInvalidArgument, UnsealBytes(blob, &result));
}

TEST_F(SealTest, SealedTextIsReadWithOrWithoutTheMarker) {
  UseKey("text key");
  WideString sealed, plain;
  for (std::size_t n : {1u, 7u, 8u, 255u, 256u, 300u, 1000u}) {
    SCOPED_TRACE(n);
    std::u16string text;
    for (std::size_t i = 0; i < n; ++i) text += static_cast<char16_t>(0x3B1 + i % 700);
    ASSERT_EQ(kOk, SealTextToString(&context_, text, sealed));
    ASSERT_EQ(0, sealed[0]);
    EXPECT_EQ(((2 * n) / 16 * 16 + 48) / 2 + 1, sealed.Length());
    ASSERT_EQ(kOk, UnsealTextToString(&context_, sealed, plain));
    EXPECT_EQ(text, plain.view());
  }

  // Values stored before the marker existed are a bare blob.
  const std::u16string text = u"written before the marker existed";
  Bytes blob(text.size() * 2 + 48);
  std::size_t size = blob.size();
  ASSERT_EQ(kOk, Seal(&context_, text.data(), text.size() * 2, blob.data(), &size));
  ASSERT_NE(0, blob[0] | blob[1]) << "a marker-like start would make this test ambiguous";
  std::u16string stored(size / 2, u'\0');
  std::memcpy(stored.data(), blob.data(), size);
  ASSERT_EQ(kOk, UnsealTextToString(&context_, stored, plain));
  EXPECT_EQ(text, plain.view());

  // Marked text that fails both as marked and as whole is a decrypt failure.
  ASSERT_EQ(kOk, SealTextToString(&context_, u"secret", sealed));
  context_.KeyLength = 20;  // a key of a length the cipher does not take
  EXPECT_EQ(kCodecDecryptFailure, UnsealTextToString(&context_, sealed, plain));
  EXPECT_TRUE(plain.IsEmpty());
  UseKey("another key");
  EXPECT_EQ(kCodecDecryptFailure, UnsealTextToString(&context_, sealed, plain));
  // Without the marker the single attempt reports as Unseal does.
  EXPECT_EQ(kCodecInvalidArgument, UnsealTextToString(&context_, sealed.view().substr(1), plain));
}

TEST_F(SealTest, TextRoomIsCheckedWithTheLengthNeeded) {
  // Without a context the text is copied, and too little room is an insufficient buffer.
  std::u16string_view text = u"plain as it stands";
  char16_t buffer[33];
  std::size_t length = text.size() - 1;
  EXPECT_EQ(kCodecInsufficientBuffer, SealText(nullptr, text.data(), text.size(), buffer, &length));
  EXPECT_EQ(text.size(), length);
  EXPECT_EQ(kCodecInsufficientBuffer,
            UnsealText(nullptr, text.data(), text.size(), buffer, &(length = 3)));
  length = 32;
  ASSERT_EQ(kOk, UnsealText(nullptr, text.data(), text.size(), buffer, &length));
  EXPECT_EQ(text, std::u16string_view(buffer, length));
  WideString out;
  ASSERT_EQ(kOk, SealTextToString(nullptr, text, out));
  EXPECT_EQ(text, out.view());
  ASSERT_EQ(kOk, SealTextToString(nullptr, u"", out));
  EXPECT_TRUE(out.IsEmpty());

  // With one, too little room is an invalid argument when sealing.
  UseKey("text key");
  text = u"0123456789";  // 20 bytes: a blob of 64, 33 units
  ASSERT_EQ(kOk, SealText(&context_, text.data(), text.size(), nullptr, &length));
  EXPECT_EQ(33u, length);
  length = 32;
  EXPECT_EQ(kCodecInvalidArgument, SealText(&context_, text.data(), text.size(), buffer, &length));
  EXPECT_EQ(33u, length);
  ASSERT_EQ(kOk, SealText(&context_, text.data(), text.size(), buffer, &length));
  char16_t plain[10];
  std::size_t plainLength = 9;
  EXPECT_EQ(kCodecDecryptFailure, UnsealText(&context_, buffer, 33, plain, &plainLength));
  plainLength = 10;
  ASSERT_EQ(kOk, UnsealText(&context_, buffer, 33, plain, &plainLength));
  EXPECT_EQ(text, std::u16string_view(plain, plainLength));
}

TEST(CodecsDomain, IsRegisteredByName) {
  char name[32] = {};
  GetErrorText(MakeResultCode(2, kDomainCodecs, 1), kErrorTextDomain, name, sizeof(name));
  EXPECT_STREQ("Codecs", name);
}

TEST(Base64, StrictRefusesWhatSkippingPassesOver) {
  const struct {
    std::string_view text;
    Base64Input input;
    bool ok;
    std::string_view bytes;
  } cases[] = {
      {"TWFu", Base64Input::kStrict, true, "Man"},
      {"TWE=", Base64Input::kStrict, true, "Ma"},
      {"TQ==", Base64Input::kStrict, true, "M"},
      {"TWFuT", Base64Input::kStrict, false, ""},
      {"TW=Fu", Base64Input::kStrict, false, ""},
      {"TW\r\nFu", Base64Input::kStrict, false, ""},
      {"TW\r\nFu", Base64Input::kSkipOthers, true, "Man"},
      {"TWE=\r\n", Base64Input::kSkipOthers, true, "Ma"},
      {"TWFuT", Base64Input::kSkipOthers, true, "Man"},
      {std::string_view("TWFu\0TWFu", 9), Base64Input::kSkipOthers, true, "Man"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.text));
    std::string out;
    EXPECT_EQ(c.ok, DecodeBase64(c.text, c.input, out));
    if (c.ok) {
      EXPECT_EQ(c.bytes, out);
    }
  }
}

}  // namespace
}  // namespace mrwl
