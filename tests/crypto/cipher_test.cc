#include <kel/cipher.h>

#include <openssl/provider.h>

#include <climits>
#include <set>

#include "crypto/peer.h"

namespace {

using namespace kel::testing;

using Bytes = std::vector<unsigned char>;
using CipherPtr = std::unique_ptr<Cipher>;

/// Runs `in` through an initialised cipher, in pieces of random size when `random` is given.
Bytes run(Cipher& cipher, const Bytes& in, unsigned* pad = nullptr,
          std::mt19937* random = nullptr) {
  Bytes out(in.size() + 16);
  const unsigned char* from = in.empty() ? out.data() : in.data();  // null is refused
  size_t read = 0;
  size_t written = 0;
  for (bool last = false; !last;) {
    size_t count = in.size() - read;
    if (random != nullptr) count = std::min<size_t>(count, (*random)() % 40);
    last = read + count == in.size();
    const int n =
        cipher.Process(from + read, static_cast<int>(count), last, out.data() + written, pad);
    EXPECT_GE(n, 0);
    read += count;
    written += static_cast<size_t>(n);
    // Everything but less than a block comes out at once.
    if (!last) {
      EXPECT_EQ(written + static_cast<size_t>(cipher.GetAcUsed()), read);
    }
  }
  out.resize(written);
  return out;
}

TEST(Cipher, AgreesWithOpenSslOverRandomDataAndSplits) {
  const std::unique_ptr<OSSL_PROVIDER, decltype(&OSSL_PROVIDER_unload)> legacy(
      OSSL_PROVIDER_try_load(nullptr, "legacy", 1), OSSL_PROVIDER_unload);
  ASSERT_NE(legacy, nullptr);
  const struct {
    int type;
    bool session;
    const EVP_CIPHER* peer;
  } rows[] = {{0, false, EVP_bf_ecb()},
              {0, true, EVP_bf_cbc()},
              {1, false, EVP_aes_256_cfb128()},
              {2, false, EVP_aes_256_ofb()},
              {3, true, EVP_aes_256_ctr()}};
  std::mt19937 random(2);
  for (int round = 0; round < 100; ++round) {
    for (const auto& row : rows) {
      const Bytes data = random_bytes<Bytes>(random, random() % 300);
      const Bytes raw_key = random_bytes<Bytes>(random, 32);
      const KelKey key = KelKey::NewKey(raw_key.data());
      // Blowfish ignores the initial value, AES takes 16 zero bytes for a null one.
      const Bytes iv = random_bytes<Bytes>(random, 16);
      const bool null_iv = row.type == 0 || random() % 2 == 0;
      const Bytes used_iv = null_iv ? Bytes(16) : iv;
      const CipherPtr cipher(Cipher::NewCipher(row.type));
      for (const int mode : {0, 1}) {
        ASSERT_TRUE(row.session ? cipher->InitSession(mode, key, null_iv ? nullptr : iv.data())
                                : cipher->Init(mode, key, null_iv ? nullptr : iv.data()));
        EXPECT_EQ(cipher->GetOpMode(), mode);
        unsigned pad = 99;
        const Bytes out = run(*cipher, data, &pad, &random);
        ASSERT_EQ(std::string(out.begin(), out.end()),
                  peer_cipher(row.peer, mode == 0, raw_key.data(), used_iv.data(),
                              {data.begin(), data.end()}))
            << row.type;
        ASSERT_EQ(pad, out.size() - data.size());
      }
    }
  }
}

TEST(Cipher, BlowfishWorksInPlaceAndForgetsAnIncompleteBlockWhenFreed) {
  const CipherPtr cipher(Cipher::NewCipher(0));
  const KelKey key = KelKey::NewKey(nullptr);
  const std::string sixteen = "sixteen bytes...";
  Bytes expected(sixteen.begin(), sixteen.end());
  expected.push_back('x');
  expected.resize(24);
  Bytes text = expected;
  unsigned pad = 0;
  ASSERT_TRUE(cipher->Init(0, key, nullptr));
  EXPECT_EQ(cipher->Process(text.data(), 17, true, text.data(), &pad), 24);
  EXPECT_EQ(pad, 7u);
  EXPECT_EQ(cipher->Final(text.data(), nullptr), 0);
  ASSERT_TRUE(cipher->Init(1, key, nullptr));
  EXPECT_EQ(cipher->Decrypt(text.data(), 24, true, text.data(), &pad), 24);
  EXPECT_EQ(text, expected);
  EXPECT_EQ(cipher->Update("abc", 3, text.data()), 0);
  cipher->Free();
  EXPECT_EQ(cipher->GetAcUsed(), 0);
}

TEST(Cipher, InitialValuesHaveTheSizeOfTheHeader) {
  for (int type = 0; type < 4; ++type) {
    const CipherPtr cipher(Cipher::NewCipher(type));
    const int header = type == 3 ? 16 : 8;
    EXPECT_EQ(cipher->GetHeaderSize(), header);
    Bytes iv(17, 0xA5);
    cipher->makeIv(iv.data());
    EXPECT_THAT(Bytes(iv.begin() + header, iv.end()), Each(0xA5));
    EXPECT_EQ(std::memcmp(iv.data(), iv.data() + 4, 4) == 0, header == 8);
  }
}

TEST(Cipher, MisuseIsReported) {
  ReportCapture reports;
  unsigned char buf[16] = {};
  expect_refused(reports, EINVAL,
                 {[] { return !Cipher::NewCipher(4); }, [] { return !Cipher::NewCipher(-1); }});
  for (const int type : {0, 3}) {
    const CipherPtr cipher(Cipher::NewCipher(type));
    EXPECT_EQ(cipher->Process(buf, 8, true, buf, nullptr), -1) << "not initialised";
    ASSERT_TRUE(cipher->Init(0, KelKey::Zero(), nullptr));
    EXPECT_EQ(cipher->Update(nullptr, 1, buf), -1);
    EXPECT_EQ(cipher->Update(buf, 1, nullptr), -1);
    EXPECT_EQ(cipher->Update(buf, -1, buf), -1);
    EXPECT_EQ(cipher->Final(nullptr, nullptr), -1);
  }
  const CipherPtr blowfish(Cipher::NewCipher(0)), aes(Cipher::NewCipher(1));  // not initialised
  EXPECT_EQ(blowfish->Process(buf, INT_MAX, false, buf, nullptr), -1);
  EXPECT_EQ(aes->Final(buf, nullptr), -1);
}

TEST(Cipher, FailuresOfOpenSslAreReported) {
  ReportCapture reports;
  using Init =
      int(EVP_CIPHER_CTX*, const EVP_CIPHER*, const unsigned char*, const unsigned char*, int);
  using Final = int(EVP_CIPHER_CTX*, unsigned char*, int*);
  const CipherPtr cipher(Cipher::NewCipher(2));
  unsigned char byte = 0;
  const auto init = [&] { cipher->Free(), cipher->Init(1, KelKey::Zero(), nullptr); };
  const auto use = [&] { cipher->Process(&byte, 1, true, &byte, nullptr); };
  EXPECT_EQ((fail_each<"EVP_CIPHER_CTX_new", EVP_CIPHER_CTX*()>(nullptr, ENOMEM, init)), 1);
  EXPECT_EQ((fail_each<"EVP_CipherInit", Init>(0, ENOMEM, init)), 1);
  EXPECT_EQ((fail_each<"EVP_CipherFinal_ex", Final>(0, EIO, use)), 1);
  EXPECT_EQ(reports.take().size(), 4u);
}

TEST(KelKey, RandomKeysAreStringsWithAHighBit) {
  std::set<std::string> seen;
  for (int i = 0; i < 500; ++i) {
    const KelKey key = KelKey::NewKey(nullptr);
    const std::string text(reinterpret_cast<const char*>(key.Bytes()));
    EXPECT_EQ(text.size(), 32u);
    EXPECT_TRUE(std::any_of(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; }));
    EXPECT_TRUE(seen.insert(text).second);
  }
}

TEST(KelKey, IsTakenComparedAndCopiedByValue) {
  Bytes raw(32, 1);
  KelKey key = KelKey::NewKey(raw.data());
  EXPECT_EQ(key.Compare(raw.data()), 0);
  raw[31] ^= 0x80;
  EXPECT_LT(key.Compare(raw.data()), 0);
  EXPECT_GT(key.Compare(KelKey::Zero().Bytes()), 0);
  Bytes buf(34, 0xEE);
  EXPECT_FALSE(key.CopyToBuffer(buf.data(), 32));
  EXPECT_THAT(buf, Each(0xEE));
  EXPECT_TRUE(key.CopyToBuffer(buf.data(), 33));
  EXPECT_EQ(key.Compare(buf.data()), 0);
  EXPECT_TRUE(buf[32] == 0 && buf[33] == 0xEE);
  key.AssignZero();
  EXPECT_EQ(Bytes(key.Bytes(), key.Bytes() + 33), Bytes(33));
}

}  // namespace
