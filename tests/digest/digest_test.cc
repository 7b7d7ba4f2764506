#include <kel/digest.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <array>

#include "support/test.h"

namespace {

using namespace kel::testing;

/// The peer: the same digest through OpenSSL's high-level interface, as hexadecimal text.
std::string peer(const EVP_MD* type, const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(data.data(), data.size(), digest, &size, type, nullptr);
  char text[2 * EVP_MAX_MD_SIZE + 1];
  EXPECT_EQ(OPENSSL_buf2hexstr_ex(text, sizeof text, nullptr, digest, size, '\0'), 1);
  for (char& c : text) c = static_cast<char>(tolower(c));
  return text;
}

constexpr char kEmptyMd5[] = "d41d8cd98f00b204e9800998ecf8427e";
constexpr char kAbcSha[] = "53048e2681941ef99b2e29b76b4c7dabe4c2d0c634fc6d46e0e2f13107e7af23";

TEST(Digest, StandardVectorsAndRandomDataInPieces) {
  EXPECT_STREQ(MD5FromData("abc", 3), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_STREQ(SHA256FromData("abc", 3), kAbcSha);
  EXPECT_STREQ(MD5FromData("", 0), kEmptyMd5);
  EXPECT_STREQ(SHA256FromData(nullptr, 0),
               "c672b8d1ef56ed28ab87c3622c5114069bdd3ad7b8f9737498d0c01ecef0967a");
  std::mt19937 random(1);
  for (int round = 0; round < 300; ++round) {
    const std::string data = random_bytes(random, random() % 600);
    MD5Context md5;
    SHA256Context sha;
    MD5Initialize(&md5);
    SHA256Initialize(&sha);
    for (size_t at = 0; at < data.size();) {
      const size_t piece = std::min<size_t>(data.size() - at, 1 + random() % 200);
      MD5Append(&md5, data.data() + at, static_cast<uint32_t>(piece));
      SHA256Append(&sha, data.data() + at, piece);
      at += piece;
    }
    MD5Finalize(&md5);
    SHA256Finalize(&sha);
    char text[65];
    ASSERT_EQ(MD5GetString(&md5), peer(EVP_md5(), data));
    ASSERT_EQ(MD5GetString_r(&md5, text, 33), peer(EVP_md5(), data));
    ASSERT_EQ(SHA256GetString_r(&sha, text, 65), peer(EVP_sha512_256(), data));
    ASSERT_EQ(SHA256FromData_r(data.data(), data.size(), text, 65), peer(EVP_sha512_256(), data));
  }
}

TEST(Digest, EmptyInputIsRecognised) {
  EXPECT_TRUE(MD5IsEmptyDigest(MD5EmptyDigest()));
  EXPECT_TRUE(SHA256IsEmptyDigest(SHA256EmptyDigest()));
  EXPECT_FALSE(SHA256IsEmptyDigest(std::array<unsigned char, 32>{}.data()));
  EXPECT_TRUE(MD5IsEmptyFP("D41D8CD98F00B204E9800998ECF8427E"));
  EXPECT_FALSE(SHA256IsEmptyFP(kEmptyMd5));
  unsigned char digest[16];
  EXPECT_TRUE(MD5IsEmptyDigest(MD5DigestFromData_r(nullptr, 0, digest)));
  EXPECT_EQ(MD5DigestHash32(digest), 0xd41d8cd9u);
}

// The low 8 bytes against 64-bit arithmetic, and the carries and borrows through the whole number.
TEST(Digest, StepsAreThoseOfABigEndianNumber) {
  std::mt19937_64 random(2);
  unsigned char d[32];
  for (int round = 0; round < 2000; ++round) {
    SHA256DigestInitMinimum(d);
    const uint64_t value = round % 2 == 0 ? random() >> 1 : (random() % 4096) << 48 | 0xffffffff;
    const uint64_t stored = __builtin_bswap64(value);
    std::memcpy(d + 24, &stored, 8);
    uint64_t read;
    std::memcpy(&read, SHA256DigestIncrement(d) + 24, 8);
    ASSERT_EQ(__builtin_bswap64(read), value + 1);
    SHA256DigestDecrement(SHA256DigestDecrement(SHA256DigestIncrement(d)));
    std::memcpy(&read, d + 24, 8);
    ASSERT_EQ(__builtin_bswap64(read), value);
  }
}

/// Text, order and arithmetic of one family.
struct Family {
  std::string text;
  unsigned char* (*from_text)(const char*, unsigned char*);
  char* (*to_text)(const unsigned char*, char*, size_t);
  size_t (*serialize)(void*, size_t, const unsigned char*, int);
  size_t (*deserialize)(unsigned char*, const void*, size_t, int);
  size_t (*serialized_size)(int);
  uint32_t (*hash32)(const unsigned char*);
  unsigned char* (*minimum)(unsigned char*), *(*maximum)(unsigned char*);
  unsigned char* (*increment)(unsigned char*), *(*decrement)(unsigned char*);
};
const Family kFamilies[] = {
    {kEmptyMd5, MD5StringToDigest_r, MD5DigestToString_r, MD5DigestSerialize, MD5DigestDeserialize,
     MD5DigestSerializedSize, MD5DigestHash32, MD5DigestInitMinimum, MD5DigestInitMaximum,
     MD5DigestIncrement, MD5DigestDecrement},
    {kAbcSha, SHA256StringToDigest_r, SHA256DigestToString_r, SHA256DigestSerialize,
     SHA256DigestDeserialize, SHA256DigestSerializedSize, SHA256DigestHash32,
     SHA256DigestInitMinimum, SHA256DigestInitMaximum, SHA256DigestIncrement,
     SHA256DigestDecrement}};

TEST(Digest, RawAndTextFormsRoundTripInEitherCase) {
  for (const Family& family : kFamilies) {
    const size_t size = family.text.size() / 2;
    ASSERT_TRUE(family.serialized_size(0) == 2 * size && family.serialized_size(1) == size);
    std::string upper = family.text;
    for (char& c : upper) c = static_cast<char>(toupper(c));
    unsigned char a[32], b[32];
    ASSERT_EQ(family.from_text(family.text.c_str(), a), a);
    EXPECT_EQ(family.hash32(a), std::stoul(family.text.substr(0, 8), nullptr, 16));
    EXPECT_EQ(family.deserialize(b, upper.data(), 2 * size, 0), 2 * size);
    EXPECT_EQ(std::memcmp(a, b, size), 0);
    EXPECT_EQ(family.serialize(b, size, a, 1), size);
    EXPECT_EQ(family.deserialize(a, b, size, 1), size);
    char text[65];
    EXPECT_EQ(family.to_text(a, text, 2 * size + 1), family.text);
    std::string buf(2 * size + 1, '#');
    EXPECT_EQ(family.serialize(buf.data(), 2 * size, a, 0), 2 * size);
    EXPECT_EQ(buf, family.text + "#") << "no terminator where there is no room for one";

    EXPECT_EQ(family.increment(family.maximum(a)), a);
    EXPECT_EQ(std::memcmp(a, family.minimum(b), size), 0);
    family.decrement(a);
    EXPECT_EQ(std::memcmp(a, family.maximum(b), size), 0);
  }
  EXPECT_STREQ(MD5DigestToString(MD5StringToDigest(kEmptyMd5)), kEmptyMd5);
  char text[65];
  EXPECT_STREQ(SHA256DigestToString_r(SHA256StringToDigest(kAbcSha), text, 65), kAbcSha);
}

TEST(Digest, TextsAndBuffersThatDoNotFitAreRefused) {
  ReportCapture reports;
  unsigned char d[32] = {1};
  char buf[65];
  const std::string bad_first = std::string(10, 'a') + "g" + std::string(53, 'a');
  const std::string bad_second = std::string(11, 'a') + "g" + std::string(52, 'a');
  EXPECT_EQ(SHA256StringToDigest_r(bad_first.c_str(), d), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_THAT(reports.take_texts().front(), EndsWith("[" + bad_first + "]"));
  EXPECT_EQ(d[0], 1) << "unchanged on failure";
  EXPECT_EQ(MD5StringToDigest("abc"), nullptr);
  EXPECT_EQ(SHA256DigestToString_r(sha256_empty_digest, buf, 63), nullptr);
  reports.take();
  expect_refused(reports, EINVAL,
                 {[&] { return MD5DigestDeserialize(d, bad_second.data(), 32, 0) == 0; },
                  [&] { return !SHA256DigestToString_r(sha256_empty_digest, buf, 64); },
                  [&] { return !MD5GetString_r(nullptr, buf, 33); },
                  [&] { return !SHA256FromData_r("a", 1, buf, 64); }});
}

TEST(Digest, ValidationEndsTheProcess) {
  const std::string good(32, 'a');
  MD5ValidateAndExitOnError(good.c_str());
  SHA256ValidateAndExitOnError((good + good).c_str());
  EXPECT_EXIT(MD5ValidateAndExitOnError("abc"), ::testing::ExitedWithCode(1),
              "22: abc is not a valid FP, it has 3 instead of 32 characters");
  EXPECT_EXIT(MD5ValidateAndExitOnError((good.substr(1) + "A").c_str()),
              ::testing::ExitedWithCode(1), "A is not in the range \\[0-9a-f\\]");
}

TEST(Digest, FilesAreDigestedWholeOrNotAtAll) {
  TempDir dir;
  const std::string path = dir / "data";
  std::mt19937 random(3);
  char text[65];
  for (const size_t size : {0, 1, 32767, 32768, 32769, 65536, 100000}) {
    const std::string data = random_bytes(random, size);
    write_file(path, data);
    EXPECT_EQ(SHA256FromFile_r(path.c_str(), text, sizeof text), peer(EVP_sha512_256(), data));
    EXPECT_STREQ(SHA256FromFile(path.c_str()), text);
  }

  ReportCapture reports;
  const size_t descriptors = open_descriptors();
  const std::string missing = dir / "missing";
  expect_refused(reports, ENOENT, {[&] { return !SHA256FromFile(missing.c_str()); }});
  expect_refused(reports, EIO, {[&] {
                   Fault<"read", ssize_t(int, void*, size_t)> broken(2, -1, EIO);
                   return !SHA256FromFile(path.c_str());
                 }});
  {
    Fault<"read", ssize_t(int, void*, size_t)> interrupted(2, -1, EINTR);
    EXPECT_STREQ(SHA256FromFile(path.c_str()), text);
  }
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(Digest, ApprovedModeComputesTheSameAndRefusesMd5) {
  ReportCapture reports;
  Hooked<"EVP_default_properties_is_fips_enabled", int(OSSL_LIB_CTX*)> approved(
      [](OSSL_LIB_CTX*) { return 1; });
  EXPECT_STREQ(SHA256FromData("abc", 3), kAbcSha);
  EXPECT_STREQ(MD5FromData("abc", 3), std::string(32, '0').c_str());
  EXPECT_THAT(reports.take_texts(), Each(EndsWith(" should not be used in FIPS mode")));
  Fault<"EVP_DigestInit_ex", int(EVP_MD_CTX*, const EVP_MD*, ENGINE*)> broken(1, 0, 0);
  EXPECT_STREQ(SHA256FromData("abc", 3), std::string(64, '0').c_str());
  EXPECT_EQ(reports.take().size(), 1u);
}

}  // namespace
