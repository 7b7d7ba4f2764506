#include <kel/crypt.h>
#include <kel/logging.h>

#include <gmock/gmock.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/types.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "crypto/stream_samples.h"
#include "support/import_hook.h"
#include "support/reports.h"

namespace {

using namespace kel::testing;
using ::testing::ElementsAre;
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

TEST_F(StreamBuffers, EncryptionRefusesBadArgumentsAndTightBuffers) {
  const std::string data(100, 'x');
  const auto warned = ElementsAre(
      warning(1144, "dcpEncryptDataToBuffer: invalid argument specified [Internal Error]"));
  unsigned char room[300];
  const struct {
    const unsigned char* in;
    unsigned long in_size;
    unsigned char* out;
    unsigned long out_size;
  } rows[] = {{nullptr, 100, room, 300},
              {bytes_of(data), 0, room, 300},
              {bytes_of(data), 100, nullptr, 300},
              {bytes_of(data), 100, room, 0},
              {bytes_of(data), 1UL << 32, room, ~0UL}};
  for (const auto& row : rows) {
    errno = 0;
    EXPECT_EQ(dcpEncryptDataToBuffer(kStreamKey, 3, row.in, row.in_size, row.out, row.out_size, 0),
              -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(reports.take(), warned);
  }
  EXPECT_EQ(encrypt(data, 204), -1);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_THAT(reports.take(), IsEmpty());
  EXPECT_GT(encrypt(data, 205), 0);

  EXPECT_EQ(encrypt(data, 300, 0, 7), -1);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EINVAL, "Invalid cipher type 7"),
                          error(-2,
                                "dcpEncryptDataToBuffer: Could not initialize encryption "
                                "(stream error)")));
  const Fault<"deflate", int(void*, int)> broken(1, -2, 0);
  EXPECT_EQ(encrypt(data, 300, KEL_CRYPT_ZLIB), -1);
  EXPECT_EQ(reports.take().back(),
            error(-2, "dcpEncryptDataToBuffer: Encryption error (stream error)"));
}

TEST_F(StreamBuffers, DecryptionNamesWhatIsWrong) {
  unsigned char byte = 0;
  unsigned size = 0;
  const auto warned = ElementsAre(warning(1120, "invalid argument specified [Internal Error]"));
  EXPECT_EQ(dcpDecryptDataToBuffer(kStreamKey, 3, nullptr, 1, &byte, 1), -1);
  EXPECT_THAT(reports.take(), warned);
  EXPECT_EQ(dcpDecryptDataToBuffer(kStreamKey, 3, &byte, 1, &byte, 0), -1);
  EXPECT_THAT(reports.take(), warned);
  EXPECT_EQ(dcpDecryptData(kStreamKey, 3, nullptr, &size, nullptr, 0), nullptr);
  EXPECT_EQ(dcpDecryptData(kStreamKey, 3, &byte, nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(errno, EINVAL);
  reports.take();

  EXPECT_EQ(decrypt("short", 10), -1);
  EXPECT_EQ(errno, EBADMSG);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(ENODATA, "kelMagicDecode: insufficient header buffer"),
                          error(-3, "<stream>: decryption error (data error)")));
  EXPECT_EQ(decrypt_data("short", 3), "");
  EXPECT_THAT(reports.take(), ElementsAre(error(-3, "decryption error (data error)")));

  const std::string stream = write_stream("secret", {0, 1});
  EXPECT_EQ(decrypt(stream, 100, 1, KelKey::Zero()), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(-31, "<stream>: decryption error (invalid or missing key)")));
  EXPECT_EQ(decrypt(stream, 100, 9), -1);
  EXPECT_EQ(decrypt_data(stream, 9), "");
  EXPECT_THAT(
      reports.take_texts(),
      ElementsAre("Invalid cipher type 9",
                  "<stream>: could not initialize decryption (stream error)",
                  "Invalid cipher type 9", "could not initialize decryption (stream error)"));
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
}

TEST_F(StreamBuffers, TracingNamesSizesAndGrowth) {
  const std::string stream = write_stream(std::string(40000, 'x'), {KEL_CRYPT_ZLIB, 2, 0});
  kelLogSetFlags(KEL_LOG_VERBOSE | KEL_LOG_TRACE | KEL_LOG_NO_OUTPUT, 0xffff);
  EXPECT_EQ(decrypt_data(stream, 2, 33001).size(), 40000u);
  const std::string size = std::to_string(stream.size());
  EXPECT_THAT(reports.take_texts(),
              ElementsAre(HasSubstr("dcpDecryptData: " + size +
                                    " bytes input, initial output buffer is 33001 bytes"),
                          HasSubstr("dcpDecryptData: resizing output buffer from 33001 to 66008 "
                                    "bytes")));
  EXPECT_EQ(decrypt(stream, 40000, 2), 40000);
  EXPECT_THAT(reports.take_texts(), ElementsAre(HasSubstr("<stream>: decrypt completed, " + size +
                                                          " bytes input, 40000 bytes output)")));
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
  EXPECT_EQ(key(80, nullptr), whole + '\0' + "#####");
  EXPECT_EQ(key(80, ""), whole + '\0' + "#####");
  EXPECT_EQ(key(65, nullptr), whole + '\0' + "#####");
  EXPECT_EQ(key(64, nullptr), whole + "######");
  EXPECT_EQ(key(5, nullptr), whole.substr(0, 5) + std::string(65, '#'));
  EXPECT_NE(key(64, "a"), whole + "######");
  EXPECT_NE(key(64, "a"), key(64, "b"));

  EXPECT_EQ(dcpGetDecrptKeyFromSeed(nullptr, 64, nullptr), -1);
  EXPECT_EQ(dcpGetDecrptKeyFromSeed(text, 0, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  const auto null_key = error(-1, "dcpGetDecrptKeyFromSeed, The input param data_key is NULL");
  EXPECT_THAT(reports.take(), ElementsAre(null_key, null_key));
}

void* no_new(size_t, const std::nothrow_t&) { return nullptr; }

TEST_F(StreamBuffers, EncodedTextsOpenWithTheDerivedKey) {
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
  for (const char* symbol : {"_ZnwmRKSt9nothrow_t", "_ZnamRKSt9nothrow_t"}) {
    const ImportHook no_memory(symbol, reinterpret_cast<void*>(no_new));
    EXPECT_EQ(dcpEncodeText("a", encoded, 99), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  reports.take();
  EXPECT_EQ(dcpEncodeText(nullptr, encoded, 99), -1);
  EXPECT_EQ(dcpEncodeText("a", nullptr, 99), -1);
  const Fault<"HMAC", unsigned char*(const EVP_MD*, const void*, int, const unsigned char*, size_t,
                                     unsigned char*, unsigned*)>
      fault(1, nullptr, ENOMEM);
  EXPECT_EQ(dcpEncodeText("a", encoded, 99), -1);
  EXPECT_THAT(reports.take_texts(),
              ElementsAre("dcpEncodeText, the input param: plain_text is NULL",
                          "dcpEncodeText, the output param: encode_text is NULL",
                          "dcpGetDecrptKeyFromSeed, The data_key generate fails",
                          "dcpEncodeText, get data_key fails"));
}

}  // namespace
