#include <kel/cipher.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <climits>
#include <set>

#include "support/test.h"

namespace {

using namespace kel::testing;

using Bytes = std::vector<unsigned char>;
using CipherPtr = std::unique_ptr<Cipher>;

Bytes from_hex(const std::string& text) {
  Bytes bytes(text.size() / 2);
  EXPECT_EQ(OPENSSL_hexstr2buf_ex(bytes.data(), bytes.size(), nullptr, text.c_str(), '\0'), 1);
  return bytes;
}

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

/// The same by OpenSSL alone, the last Blowfish block filled with zero bytes.
Bytes peer(const EVP_CIPHER* cipher, bool encrypt, const Bytes& key, const Bytes& iv, Bytes in) {
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                          EVP_CIPHER_CTX_free);
  EXPECT_EQ(EVP_CipherInit_ex(context.get(), cipher, nullptr, nullptr, nullptr, encrypt), 1);
  EXPECT_EQ(EVP_CIPHER_CTX_set_key_length(context.get(), 32), 1);
  EXPECT_EQ(EVP_CipherInit_ex(context.get(), nullptr, nullptr, key.data(), iv.data(), encrypt), 1);
  EVP_CIPHER_CTX_set_padding(context.get(), 0);
  if (EVP_CIPHER_get_block_size(cipher) == 8) in.resize((in.size() + 7) / 8 * 8);
  Bytes out(in.size() + 16);
  int n = 0;
  EXPECT_EQ(EVP_CipherUpdate(context.get(), out.data(), &n, in.data(), static_cast<int>(in.size())),
            1);
  out.resize(static_cast<size_t>(n));
  return out;
}

TEST(Cipher, AesModesMatchTheVectorsOfSp800_38a) {
  const Bytes key = from_hex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
  const Bytes plain = from_hex(
      "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
      "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
  const struct {
    int type;
    const char* iv;
    const char* encrypted;
  } rows[] = {{1, "000102030405060708090a0b0c0d0e0f",
               "dc7e84bfda79164b7ecd8486985d386039ffed143b28b1c832113c6331e5407b"
               "df10132415e54b92a13ed0a8267ae2f975a385741ab9cef82031623d55b1e471"},
              {2, "000102030405060708090a0b0c0d0e0f",
               "dc7e84bfda79164b7ecd8486985d38604febdc6740d20b3ac88f6ad82a4fb08d"
               "71ab47a086e86eedf39d1c5bba97c4080126141d67f37be8538f5a8be740e484"},
              {3, "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff",
               "601ec313775789a5b7a7f504bbf3d228f443e3ca4d62b59aca84e990cacaf5c5"
               "2b0930daa23de94ce87017ba2d84988ddfc9c58db67aada613c2dd08457941a6"}};
  for (const auto& row : rows) {
    const CipherPtr cipher(Cipher::NewCipher(row.type));
    unsigned pad = 9;
    ASSERT_TRUE(cipher->Init(0, KelKey::NewKey(key.data()), from_hex(row.iv).data()));
    EXPECT_EQ(run(*cipher, plain, &pad), from_hex(row.encrypted)) << row.type;
    EXPECT_EQ(pad, 0u);
    ASSERT_TRUE(cipher->InitSession(1, KelKey::NewKey(key.data()), from_hex(row.iv).data()));
    EXPECT_EQ(run(*cipher, from_hex(row.encrypted)), plain) << row.type;
  }
}

TEST(Cipher, AgreesWithOpenSslOverRandomDataAndSplits) {
  const std::unique_ptr<OSSL_PROVIDER, decltype(&OSSL_PROVIDER_unload)> legacy(
      OSSL_PROVIDER_load(nullptr, "legacy"), OSSL_PROVIDER_unload);
  const std::unique_ptr<OSSL_PROVIDER, decltype(&OSSL_PROVIDER_unload)> standard(
      OSSL_PROVIDER_load(nullptr, "default"), OSSL_PROVIDER_unload);
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
        ASSERT_EQ(out, peer(row.peer, mode == 0, raw_key, used_iv, data)) << row.type;
        ASSERT_EQ(pad, out.size() - data.size());
      }
    }
  }
}

TEST(Cipher, BlowfishWorksInPlaceAndForgetsAnIncompleteBlockWhenFreed) {
  const CipherPtr cipher(Cipher::NewCipher(0));
  const KelKey key = KelKey::NewKey(nullptr);
  const Bytes expected = from_hex("7369787465656e2062797465732e2e2e7800000000000000");
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

// Archive streams end every piece and go on: the key stream must not start over.
TEST(Cipher, AesKeyStreamRunsOnAcrossFinishedPieces) {
  std::mt19937 random(3);
  const Bytes data = random_bytes<Bytes>(random, 1000);
  for (int type = 1; type <= 3; ++type) {
    const CipherPtr cipher(Cipher::NewCipher(type));
    ASSERT_TRUE(cipher->Init(0, KelKey::Zero(), nullptr));
    Bytes joined = run(*cipher, Bytes(data.begin(), data.begin() + 333));
    const Bytes rest = run(*cipher, Bytes(data.begin() + 333, data.end()));
    joined.insert(joined.end(), rest.begin(), rest.end());
    ASSERT_TRUE(cipher->Init(0, KelKey::Zero(), nullptr));
    EXPECT_EQ(joined, run(*cipher, data)) << type;
  }
}

TEST(Cipher, InitialValuesHaveTheSizeOfTheHeader) {
  const struct {
    const char* description;
    int padding, header;
  } rows[] = {
      {"Blowfish", 8, 8}, {"AES-256-CFB", 1, 8}, {"AES-256-OFB", 1, 8}, {"AES-256-CTR", 1, 16}};
  for (int type = 0; type < 4; ++type) {
    const auto& [description, padding, header] = rows[type];
    const CipherPtr cipher(Cipher::NewCipher(type));
    EXPECT_STREQ(cipher->GetDescription(), description);
    EXPECT_EQ(cipher->GetType(), type);
    EXPECT_EQ(cipher->GetBlockSize(), type == 0 ? 8 : 16);
    EXPECT_EQ(cipher->GetPaddingSize(), padding);
    EXPECT_EQ(cipher->GetHeaderSize(), header);
    Bytes iv(17, 0xA5);
    cipher->makeIv(iv.data());
    EXPECT_THAT(Bytes(iv.begin() + header, iv.end()), Each(0xA5));
    EXPECT_EQ(cipher->UseIv8(), header == 8);
    EXPECT_EQ(std::memcmp(iv.data(), iv.data() + 4, 4) == 0, header == 8);
  }
}

TEST(Cipher, MisuseIsReportedUnderTheCallThatMetIt) {
  ReportCapture reports;
  EXPECT_EQ(Cipher::NewCipher(4), nullptr);
  EXPECT_EQ(Cipher::NewCipher(-1), nullptr);
  EXPECT_THAT(reports.take(), ElementsAre(error(EINVAL, "Invalid cipher type 4"),
                                          error(EINVAL, "Invalid cipher type -1")));
  unsigned char buf[16] = {};
  for (const int type : {0, 3}) {
    const CipherPtr cipher(Cipher::NewCipher(type));
    ASSERT_TRUE(cipher->Init(0, KelKey::Zero(), nullptr));
    EXPECT_EQ(cipher->Update(nullptr, 1, buf), -1);
    EXPECT_EQ(cipher->Update(buf, 1, nullptr), -1);
    EXPECT_EQ(cipher->Update(buf, -1, buf), -1);
    EXPECT_EQ(cipher->Final(nullptr, nullptr), -1);
    const std::string update = "Update: invalid arguments";
    EXPECT_THAT(reports.take_texts(),
                ElementsAre(update, update, update,
                            type == 0 ? "Final: invalid argument" : "Final: invalid arguments"));
  }
  const CipherPtr blowfish(Cipher::NewCipher(0)), aes(Cipher::NewCipher(1));  // not initialised
  EXPECT_EQ(blowfish->Process(buf, INT_MAX, false, buf, nullptr), -1);
  EXPECT_EQ(blowfish->Encrypt(buf, 8, false, buf, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(aes->Process(buf, 8, true, buf, nullptr), -1);
  EXPECT_EQ(aes->Final(buf, nullptr), -1);
  EXPECT_THAT(
      reports.take_texts(),
      ElementsAre("Update: invalid arguments", "Process: Update failed for Blowfish(0)",
                  "BlowfishEncode: Invalid parameter: Null context", "Update: UpdateAligned failed",
                  "Process: Update failed for Blowfish(0)", "Update: EVP_CipherUpdate failed(0)",
                  "Process: Update failed for AES-256-CFB(0)",
                  "Final: EVP_CipherFinal_ex failed(0)"));
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
  EXPECT_THAT(reports.take(), ElementsAre(error(ENOMEM, "Init: EVP_CipherInit failed(1)"),
                                          error(ENOMEM, "Init: EVP_CipherInit failed(1)"),
                                          error(EIO, "Final: EVP_CipherFinal_ex failed(1)"),
                                          error(EIO, "Process: Final failed for AES-256-OFB(1)")));
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
  EXPECT_EQ(buf, Bytes(34, 0xEE));
  EXPECT_TRUE(key.CopyToBuffer(buf.data(), 33));
  EXPECT_EQ(key.Compare(buf.data()), 0);
  EXPECT_TRUE(buf[32] == 0 && buf[33] == 0xEE);
  key.AssignZero();
  EXPECT_EQ(Bytes(key.Bytes(), key.Bytes() + 33), Bytes(33));
}

}  // namespace
