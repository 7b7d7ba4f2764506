#include <kel/blowfish.h>

// The peer is OpenSSL's own implementation, whose low-level interface is deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/blowfish.h>

#include "support/test.h"

namespace {

using namespace kel::testing;

using Bytes = std::vector<unsigned char>;

Bytes peer(const Bytes& key, Bytes in, bool cbc, int direction) {
  BF_KEY schedule;
  BF_set_key(&schedule, static_cast<int>(key.size()), key.data());
  in.resize((in.size() + 7) / 8 * 8);
  Bytes out(in.size());
  unsigned char iv[8] = {};
  if (cbc) {
    BF_cbc_encrypt(in.data(), out.data(), static_cast<long>(in.size()), &schedule, iv, direction);
  } else {
    for (size_t i = 0; i < in.size(); i += 8)
      BF_ecb_encrypt(in.data() + i, out.data() + i, &schedule, direction);
  }
  return out;
}

// From the vectors published with the cipher.
TEST(Blowfish, PublishedVectors) {
  struct Row {
    uint64_t key, clear, cipher;
  };
  const Row rows[] = {
      {0x0000000000000000, 0x0000000000000000, 0x4EF997456198DD78},
      {0xFFFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFFFF, 0x51866FD5B85ECB8A},
      {0x3000000000000000, 0x1000000000000001, 0x7D856F9A613063F2},
      {0x0123456789ABCDEF, 0x1111111111111111, 0x61F9C3802281B096},
      {0xFEDCBA9876543210, 0x0123456789ABCDEF, 0x0ACEAB0FC6A0A28D},
  };
  for (const Row& row : rows) {
    const uint64_t key = __builtin_bswap64(row.key);
    const uint64_t clear = __builtin_bswap64(row.clear);
    BlowfishContext c;
    ASSERT_TRUE(BlowfishInit(&c, reinterpret_cast<const unsigned char*>(&key), sizeof key));
    uint64_t block = 0;
    ASSERT_EQ(BlowfishEncode(&c, &clear, &block, 8), 8);
    EXPECT_EQ(__builtin_bswap64(block), row.cipher);
    ASSERT_EQ(BlowfishDecode(&c, &block, &block, 8), 8);
    EXPECT_EQ(block, clear);
  }
}

// Every length up to some blocks more than run side by side, in place and not, both modes and
// directions, against OpenSSL.
TEST(Blowfish, AgreesWithOpenSslForEveryLengthModeAndDirection) {
  std::mt19937 random(7);
  for (uint32_t length = 0; length <= 100; ++length) {
    const Bytes key = random_bytes<Bytes>(random, 1 + random() % 72);
    const Bytes input = random_bytes<Bytes>(random, length);
    const auto rounded = static_cast<size_t>(BlowfishGetOutputLength(length));
    for (const bool cbc : {false, true}) {
      for (const int direction : {BF_ENCRYPT, BF_DECRYPT}) {
        BlowfishContext c;
        const auto start = [&] {
          if (cbc)
            BlowfishInitCBC(&c, key.data(), key.size(), direction == BF_DECRYPT);
          else
            BlowfishInit(&c, key.data(), key.size());
        };
        const auto run = direction == BF_ENCRYPT ? BlowfishEncode : BlowfishDecode;
        const Bytes expected = peer(key, input, cbc, direction);

        start();
        Bytes out(rounded + 1, 0xEE);
        ASSERT_EQ(run(&c, input.data(), out.data(), length), static_cast<int>(rounded));
        ASSERT_EQ(out.back(), 0xEE);
        out.pop_back();
        ASSERT_EQ(out, expected) << length << (cbc ? " cbc " : " ecb ") << direction;

        start();
        Bytes in_place = input;
        in_place.resize(rounded, 0xEE);
        run(&c, in_place.data(), in_place.data(), length);
        ASSERT_EQ(in_place, expected);

        start();
        Bytes pieces(rounded);
        const uint32_t first = length / 8 / 2 * 8;
        run(&c, input.data(), pieces.data(), first);
        run(&c, input.data() + first, pieces.data() + first, length - first);
        ASSERT_EQ(pieces, expected) << "in two calls";
      }
    }
  }
}

TEST(Blowfish, KeysAreCutAt72Bytes) {
  const auto tables = [](const Bytes& key) {
    BlowfishContext c = {};
    BlowfishInit(&c, key.data(), key.size());
    return std::string(reinterpret_cast<const char*>(c.P), sizeof c.P) +
           std::string(reinterpret_cast<const char*>(c.S), sizeof c.S);
  };
  std::mt19937 random(8);
  const Bytes key = random_bytes<Bytes>(random, 73);
  EXPECT_EQ(tables(key), tables(Bytes(key.begin(), key.end() - 1)));
  EXPECT_NE(tables(key), tables(Bytes(key.begin(), key.end() - 2)));
}

TEST(Blowfish, ModesThatDoNotFitTheDirectionAreRefused) {
  ReportCapture reports;
  BlowfishContext c;
  EXPECT_EQ(BlowfishTest(&c), 1);
  EXPECT_EQ(bf_errno, 0);
  unsigned char block[8] = {};
  BlowfishInitCBC(&c, block, sizeof block, 1);
  errno = 5;
  EXPECT_EQ(BlowfishEncode(&c, block, block, 8), -1);
  EXPECT_EQ(errno, EINVAL);
  BlowfishInitCBC(&c, block, sizeof block, 0);
  EXPECT_EQ(BlowfishDecode(&c, block, block, 8), -1);
  c.mode = 3;
  EXPECT_EQ(BlowfishEncode(&c, block, block, 8), -1);
  EXPECT_EQ(BlowfishDecode(nullptr, block, block, 8), -1);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(5, "BlowfishEncode: Invalid mode: 2"),
                          error(EINVAL, "BlowfishDecode: Invalid mode: 1"),
                          error(EINVAL, "BlowfishEncode: Invalid mode: 3"),
                          error(EINVAL, "BlowfishDecode: Invalid parameter: Null context")));
}

}  // namespace
