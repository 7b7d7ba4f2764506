#include <kel/logging.h>

#include <openssl/crypto.h>

#include <cstdlib>
#include <new>

#include "crypto/peer.h"
#include "crypto/stream_samples.h"

namespace {

using namespace kel::testing;

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
      EXPECT_THAT(reports.take(), ElementsAre(Field(&Report::code, -5)));
    }
  }
}

TEST_F(StreamBuffers, BadArgumentsAreRefused) {
  unsigned char room[300] = {}, *const none = nullptr;
  const auto encrypted = [&](unsigned char* in, size_t in_size, unsigned char* to, size_t to_size) {
    return dcpEncryptDataToBuffer(kStreamKey, 3, in, in_size, to, to_size, 0);
  };
  EXPECT_EQ(encrypted(none, 100, room, 300), -1);
  EXPECT_EQ(encrypted(room, 0, room, 300), -1);
  EXPECT_EQ(encrypted(room, 100, none, 300), -1);
  EXPECT_EQ(encrypted(room, 1UL << 32, room, ~0UL), -1);
  EXPECT_EQ(dcpDecryptDataToBuffer(kStreamKey, 3, none, 1, room, 1), -1);
  EXPECT_EQ(dcpDecryptDataToBuffer(kStreamKey, 3, room, 1, room, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_THAT(reports.take_texts(), Each(EndsWith("[Internal Error]")));
  EXPECT_EQ(dcpDecryptData(kStreamKey, 3, room, nullptr, nullptr, 0), nullptr);
}

TEST_F(StreamBuffers, FailuresNameWhatIsWrong) {
  const auto failed = [&](long result, int code) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, code == 0 ? errno : code);
    const auto texts = reports.take_texts();
    return texts.empty() ? "" : texts.back();
  };
  const std::string data(100, 'x');
  EXPECT_EQ(failed(encrypt(data, 204), ENOBUFS), "");
  EXPECT_GT(encrypt(data, 205), 0);
  EXPECT_THAT(failed(encrypt(data, 300, 0, 7), 0), EndsWith("encryption (stream error)"));
  {
    const Fault<"deflate", int(void*, int)> broken(1, -2, 0);
    EXPECT_THAT(failed(encrypt(data, 300, KEL_CRYPT_ZLIB), 0), EndsWith("error (stream error)"));
  }
  EXPECT_THAT(failed(decrypt("short", 10), EBADMSG), EndsWith("(data error)"));
  EXPECT_EQ(decrypt_data("short", 3), "");
  const std::string stream = write_stream("secret", {0, 1});
  EXPECT_THAT(failed(decrypt(stream, 100, 1, KelKey::Zero()), EACCES),
              EndsWith("(invalid or missing key)"));
  EXPECT_THAT(failed(decrypt(stream, 100, 7), 0), EndsWith("decryption (stream error)"));
  EXPECT_EQ(decrypt_data(stream, 7), "");
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

  kelLogSetFlags(KEL_LOG_VERBOSE | KEL_LOG_TRACE | KEL_LOG_NO_OUTPUT, 0xffff);
  const std::string stream = write_stream(std::string(40000, 'x'), {KEL_CRYPT_ZLIB, 2, 0});
  reports.take();
  EXPECT_EQ(decrypt_data(stream, 2, 33001).size(), 40000u);
  EXPECT_THAT(reports.take_texts(), Contains(HasSubstr("from 33001 to 66008 bytes")));
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
    std::string sealed(16 + plain.size(), 0);
    ASSERT_EQ(OPENSSL_hexstr2buf_ex(reinterpret_cast<unsigned char*>(sealed.data()), sealed.size(),
                                    nullptr, encoded, '\0'),
              1);
    EXPECT_EQ(peer_cipher(EVP_aes_256_ctr(), false, key, sealed.data(), sealed.substr(16)), plain);
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
  EXPECT_EQ(dcpGetDecrptKeyFromSeed(nullptr, 64, nullptr), -1);
  EXPECT_EQ(dcpGetDecrptKeyFromSeed(key, 0, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(dcpEncodeText(nullptr, encoded, 99), -1);
  EXPECT_EQ(dcpEncodeText("a", nullptr, 99), -1);
  using Hmac = unsigned char*(const EVP_MD*, const void*, int, const unsigned char*, size_t,
                              unsigned char*, unsigned*);
  const Fault<"HMAC", Hmac> fault(1, nullptr, ENOMEM);
  EXPECT_EQ(dcpEncodeText("a", encoded, 99), -1);
}

}  // namespace
