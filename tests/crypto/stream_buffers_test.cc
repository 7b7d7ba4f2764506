#include <kel/logging.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <new>

#include "crypto/stream_samples.h"

namespace {

using namespace kel::testing;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class StreamBuffers : public ::testing::Test {
 protected:
  /// The first use of each compression in a process is logged; no test waits for these lines.
  StreamBuffers() {
    for (const unsigned long flags : {0, KEL_CRYPT_ZLIB}) encrypt("x", 200, flags);
    reports.take();
  }
  long encrypt(const std::string& data, size_t room, unsigned long flags = 0,
               unsigned char type = 3) {
    errno = 0;
    buffer.assign(room, '\0');
    const long size =
        dcpEncryptDataToBuffer(kStreamKey, type, bytes_of(data), data.size(), out(), room, flags);
    if (size >= 0) buffer.resize(static_cast<size_t>(size));
    return size;
  }
  long decrypt(std::string stream, size_t room, unsigned char type = 3,
               const KelKey& key = kStreamKey) {
    errno = 0;
    buffer.assign(room, '\0');
    const long size = dcpDecryptDataToBuffer(
        key, type, reinterpret_cast<unsigned char*>(stream.data()),
        static_cast<unsigned>(stream.size()), out(), static_cast<unsigned>(room));
    if (size >= 0) buffer.resize(static_cast<size_t>(size));
    return size;
  }
  /// dcpDecryptData() of `stream`; empty after a failure.
  std::string decrypt_data(const std::string& stream, unsigned char type, unsigned initial = 0) {
    errno = 0;
    auto size = static_cast<unsigned>(stream.size());
    const std::unique_ptr<unsigned char, decltype(&std::free)> data(
        dcpDecryptData(kStreamKey, type, bytes_of(stream), &size, nullptr, initial), std::free);
    if (data == nullptr) {
      EXPECT_EQ(size, stream.size());
      return "";
    }
    return {reinterpret_cast<char*>(data.get()), size};
  }
  unsigned char* out() { return reinterpret_cast<unsigned char*>(buffer.data()); }

  std::string buffer;
  ReportCapture reports;
};

TEST_F(StreamBuffers, OneCallEachWayInBuffersThatJustFit) {
  const std::string data = sample_data(3000);
  const size_t room = 3000 * 105 / 100 + 100;
  for (const unsigned long flags :
       {0, KEL_CRYPT_ZLIB, KEL_CRYPT_NO_COMPRESSION, KEL_CRYPT_NO_ENCRYPTION,
        KEL_CRYPT_NO_ENCRYPTION | KEL_CRYPT_ZLIB}) {
    for (unsigned char type = 0; type < 4; ++type) {
      SCOPED_TRACE("flags " + std::to_string(flags) + ", type " + std::to_string(type));
      ASSERT_GT(encrypt(data, room, flags, type), 0);
      const std::string stream = buffer;
      EXPECT_EQ(decrypt(stream, data.size(), type), 3000);
      EXPECT_EQ(buffer, data);
      EXPECT_EQ(decrypt_data(stream, type), data);
      reports.take();
      EXPECT_EQ(decrypt(stream, data.size() - 1, type), -1);
      EXPECT_EQ(errno, ENOBUFS);
      EXPECT_THAT(reports.take(),
                  ElementsAre(error(-5, "<stream>: decryption error (buffer error)")));
    }
  }
}

TEST_F(StreamBuffers, BadArgumentsAreRefused) {
  const Report no_input =
      warning(1144, "dcpEncryptDataToBuffer: invalid argument specified [Internal Error]");
  const Report no_stream = warning(1120, "invalid argument specified [Internal Error]");
  unsigned char room[300] = {}, *const none = nullptr;
  const auto encrypted = [&](unsigned char* in, size_t in_size, unsigned char* to, size_t to_size) {
    return dcpEncryptDataToBuffer(kStreamKey, 3, in, in_size, to, to_size, 0);
  };
  const std::pair<const Report&, std::function<long()>> rows[] = {
      {no_input, [&] { return encrypted(none, 100, room, 300); }},
      {no_input, [&] { return encrypted(room, 0, room, 300); }},
      {no_input, [&] { return encrypted(room, 100, none, 300); }},
      {no_input, [&] { return encrypted(room, 100, room, 0); }},
      {no_input, [&] { return encrypted(room, 1UL << 32, room, ~0UL); }},
      {no_stream, [&] { return dcpDecryptDataToBuffer(kStreamKey, 3, none, 1, room, 1); }},
      {no_stream, [&] { return dcpDecryptDataToBuffer(kStreamKey, 3, room, 1, room, 0); }}};
  for (const auto& [report, call] : rows) {
    errno = 0;
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(reports.take(), ElementsAre(report));
  }
  unsigned size = 0;
  EXPECT_EQ(dcpDecryptData(kStreamKey, 3, nullptr, &size, nullptr, 0), nullptr);
  EXPECT_EQ(dcpDecryptData(kStreamKey, 3, room, nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(StreamBuffers, FailuresNameWhatIsWrong) {
  const auto failed = [&](long result, int code) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, code == 0 ? errno : code);
    return reports.take();
  };
  const std::string data(100, 'x');
  EXPECT_THAT(failed(encrypt(data, 204), ENOBUFS), IsEmpty());
  EXPECT_GT(encrypt(data, 205), 0);
  const Report no_cipher = error(EINVAL, "Invalid cipher type 7");
  EXPECT_THAT(
      failed(encrypt(data, 300, 0, 7), 0),
      ElementsAre(no_cipher, error(-2,
                                   "dcpEncryptDataToBuffer: Could not initialize encryption "
                                   "(stream error)")));
  {
    const Fault<"deflate", int(void*, int)> broken(1, -2, 0);
    EXPECT_EQ(failed(encrypt(data, 300, KEL_CRYPT_ZLIB), 0).back(),
              error(-2, "dcpEncryptDataToBuffer: Encryption error (stream error)"));
  }
  EXPECT_THAT(failed(decrypt("short", 10), EBADMSG),
              ElementsAre(error(ENODATA, "kelMagicDecode: insufficient header buffer"),
                          error(-3, "<stream>: decryption error (data error)")));
  EXPECT_EQ(decrypt_data("short", 3), "");
  EXPECT_THAT(reports.take(), ElementsAre(error(-3, "decryption error (data error)")));
  const std::string stream = write_stream("secret", {0, 1});
  EXPECT_THAT(failed(decrypt(stream, 100, 1, KelKey::Zero()), EACCES),
              ElementsAre(error(-31, "<stream>: decryption error (invalid or missing key)")));
  EXPECT_THAT(failed(decrypt(stream, 100, 7), 0),
              ElementsAre(no_cipher,
                          error(-2, "<stream>: could not initialize decryption (stream error)")));
  EXPECT_EQ(decrypt_data(stream, 7), "");
  EXPECT_THAT(reports.take(),
              ElementsAre(no_cipher, error(-2, "could not initialize decryption (stream error)")));
}

TEST_F(StreamBuffers, PlainStreamsAreCopiedBlockByBlock) {
  const std::string data = sample_data(10000);
  const std::string stream = write_stream(data, {kPlain});
  for (const size_t room : {size_t{1}, size_t{4088}, size_t{5000}, data.size()}) {
    EXPECT_EQ(decrypt(stream, room), static_cast<long>(room));
    EXPECT_EQ(buffer, data.substr(0, room));
  }
  for (size_t size = 14; size < stream.size(); size += 61) {
    ASSERT_GE(decrypt(stream.substr(0, size), data.size()), 0);
    EXPECT_EQ(buffer, data.substr(0, buffer.size()));
  }
  EXPECT_EQ(decrypt(stream.substr(0, 14 + 8 + 100), 1000), 100);
  EXPECT_EQ(decrypt("no archive, but more than 14 bytes", 1000), 34);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST_F(StreamBuffers, ANewBufferGrowsUntilTheStreamFits) {
  std::string data(3 << 20, 'z');
  data.replace(1 << 20, 50000, sample_data(50000));
  for (const unsigned long flags : {0, KEL_CRYPT_ZLIB, KEL_CRYPT_NO_COMPRESSION}) {
    const std::string stream = write_stream(data, {flags, 2, 0});
    for (const unsigned initial : {0u, 1u, 1u << 22}) {
      EXPECT_EQ(decrypt_data(stream, 2, initial), data);
    }
    EXPECT_EQ(decrypt_data(stream.substr(0, stream.size() - 1), 2), "");
    reports.take();
    // Every block and every growth fails once.
    long refused = 0;
    const long failed = fail_each<"realloc", void*(void*, size_t)>(nullptr, ENOMEM, [&] {
      const std::string result = decrypt_data(stream, 2, 1);
      if (result == data) return;
      EXPECT_EQ(result, "");
      ++refused;
      EXPECT_EQ(errno, ENOMEM);
      EXPECT_FALSE(reports.take().empty());
    });
    EXPECT_GT(failed, 1);
    EXPECT_EQ(refused, failed);
  }
  EXPECT_EQ(decrypt_data("", 2), "");
  EXPECT_EQ(decrypt_data("no archive, but more than 14 bytes", 2).size(), 34u);

  const std::string stream = write_stream(std::string(40000, 'x'), {KEL_CRYPT_ZLIB, 2, 0});
  const std::string input = std::to_string(stream.size()) + " bytes input, ";
  kelLogSetFlags(KEL_LOG_VERBOSE | KEL_LOG_TRACE | KEL_LOG_NO_OUTPUT, 0xffff);
  reports.take();
  EXPECT_EQ(decrypt_data(stream, 2, 33001).size(), 40000u);
  EXPECT_EQ(decrypt(stream, 40000, 2), 40000);
  EXPECT_THAT(
      reports.take_texts(),
      ElementsAre(HasSubstr(input + "initial output buffer is 33001 bytes"),
                  HasSubstr("resizing output buffer from 33001 to 66008 bytes"),
                  HasSubstr("<stream>: decrypt completed, " + input + "40000 bytes output")));
}

TEST_F(StreamBuffers, DerivedKeysStayTheSame) {
  char text[80];
  const auto key = [&](size_t size, const char* seed) {
    std::memset(text, '#', sizeof text);
    EXPECT_EQ(dcpGetDecrptKeyFromSeed(text, size, seed), 0);
    return std::string(text, 70);
  };
  // Data out there are encrypted with it.
  const std::string whole = "2eff901e5cf51d69b6c0b8b88b4b9baa851fa6208b9f86ba378f76cc9e1d063e";
  const std::string terminated = whole + '\0' + "#####";
  EXPECT_EQ(key(80, nullptr), terminated);
  EXPECT_EQ(key(65, nullptr), terminated);
  EXPECT_EQ(key(64, nullptr), whole + "######");
  EXPECT_EQ(key(5, nullptr), whole.substr(0, 5) + std::string(65, '#'));
  EXPECT_NE(key(64, "a"), key(64, "b"));
}

TEST_F(StreamBuffers, EncodedTextsOpenWithTheDerivedKeyOrAreRefused) {
  char key[65], encoded[200], again[200];
  dcpGetDecrptKeyFromSeed(key, sizeof key, nullptr);
  for (const std::string plain : {"", "a", "a password of some length"}) {
    const size_t size = 2 * (16 + plain.size()) + 1;
    ASSERT_EQ(dcpEncodeText(plain.c_str(), encoded, size), 0);
    ASSERT_EQ(std::strlen(encoded), size - 1);
    unsigned char sealed[100];
    size_t sealed_size = 0;
    ASSERT_EQ(OPENSSL_hexstr2buf_ex(sealed, sizeof sealed, &sealed_size, encoded, '\0'), 1);
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(
        EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    unsigned char opened[100];
    int n = 0;
    EVP_DecryptInit_ex(context.get(), EVP_aes_256_ctr(), nullptr,
                       reinterpret_cast<unsigned char*>(key), sealed);
    EVP_DecryptUpdate(context.get(), opened, &n, sealed + 16, static_cast<int>(sealed_size - 16));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(opened), static_cast<size_t>(n)), plain);
    ASSERT_EQ(dcpEncodeText(plain.c_str(), again, sizeof again), 0);
    EXPECT_STRNE(again, encoded);
    EXPECT_EQ(dcpEncodeText(plain.c_str(), encoded, size - 1), -1);
    EXPECT_EQ(errno, ENOBUFS);
  }
  const auto no_memory = [](size_t, const std::nothrow_t&) -> void* { return nullptr; };
  for (const char* symbol : {"_ZnwmRKSt9nothrow_t", "_ZnamRKSt9nothrow_t"}) {
    const ImportHook hook(symbol, reinterpret_cast<void*>(+no_memory));
    EXPECT_EQ(dcpEncodeText("a", encoded, 99), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  reports.take();
  EXPECT_EQ(dcpGetDecrptKeyFromSeed(nullptr, 64, nullptr), -1);
  EXPECT_EQ(dcpGetDecrptKeyFromSeed(key, 0, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(dcpEncodeText(nullptr, encoded, 99), -1);
  EXPECT_EQ(dcpEncodeText("a", nullptr, 99), -1);
  const Fault<"HMAC", unsigned char*(const EVP_MD*, const void*, int, const unsigned char*, size_t,
                                     unsigned char*, unsigned*)>
      fault(1, nullptr, ENOMEM);
  EXPECT_EQ(dcpEncodeText("a", encoded, 99), -1);
  const std::string no_key = "dcpGetDecrptKeyFromSeed, The input param data_key is NULL";
  EXPECT_THAT(reports.take_texts(),
              ElementsAre(no_key, no_key, "dcpEncodeText, the input param: plain_text is NULL",
                          "dcpEncodeText, the output param: encode_text is NULL",
                          "dcpGetDecrptKeyFromSeed, The data_key generate fails",
                          "dcpEncodeText, get data_key fails"));
}

}  // namespace
