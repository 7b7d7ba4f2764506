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

// Every length up to some blocks more than run side by side, in place and not, both modes and
// directions, against OpenSSL.
TEST(Blowfish, AgreesWithOpenSslForEveryLengthModeAndDirection) {
  std::mt19937 random(7);
  for (uint32_t length = 0; length <= 100; ++length) {
    const Bytes key = random_bytes<Bytes>(random, 1 + random() % 80);
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

TEST(Blowfish, ModesThatDoNotFitTheDirectionAreRefused) {
  ReportCapture reports;
  BlowfishContext c;
  EXPECT_EQ(BlowfishTest(&c), 1);
  EXPECT_EQ(bf_errno, 0);
  unsigned char block[8] = {};
  for (const int direction : {0, 1}) {
    const auto wrong = direction == 1 ? BlowfishEncode : BlowfishDecode;
    BlowfishInitCBC(&c, block, sizeof block, direction);
    errno = 5;
    EXPECT_EQ(wrong(&c, block, block, 8), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(reports.take(), ElementsAre(Field(&Report::code, 5)));
  }
  c.mode = 3;
  expect_refused(reports, EINVAL, {[&] { return BlowfishDecode(nullptr, block, block, 8) == -1; }});
  EXPECT_EQ(BlowfishEncode(&c, block, block, 8), -1);
}

}  // namespace
