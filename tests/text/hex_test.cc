#include <kel/base64.h>

#include <gmock/gmock.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "support/import_hook.h"
#include "support/reports.h"
#include "text/peer.h"

namespace {

using kel::testing::error;
using kel::testing::ReportCapture;
using ::testing::ElementsAre;

TEST(AsciiTables, AgreeWithTheCLocale) {
  for (int c = 0; c < 256; ++c) {
    const bool ascii = c < 128;
    const int expected =
        ascii
            ? (std::islower(c) ? KELASCII_LOWER : 0) | (std::isupper(c) ? KELASCII_UPPER : 0) |
                  (std::isdigit(c) ? KELASCII_DIGIT : 0) | (std::ispunct(c) ? KELASCII_PUNCT : 0) |
                  (std::isspace(c) ? KELASCII_SPACE : 0) | (std::isxdigit(c) ? KELASCII_XDIGIT : 0)
            : 0;
    EXPECT_EQ(kelascii_ctype_table[c], expected) << c;
    EXPECT_EQ(kelascii_toupper_table[c], ascii ? std::toupper(c) : c);
  }
  EXPECT_STREQ(__kel_hex_tab, "0123456789ABCDEF");
}

TEST(Hex, GoesThereAndBackAtEverySizeAndInEitherCase) {
  std::mt19937 random(4);
  for (unsigned size = 0; size < 100; ++size) {
    const std::string bytes = kel::testing::random_bytes(random, size);
    std::string expected;
    for (const char byte : bytes) {
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02X", static_cast<unsigned char>(byte));
      expected += digits;
    }
    std::string text(2 * size + 2, '#');
    EXPECT_EQ(HexEncode(bytes.data(), text.data(), size), 2 * size);
    EXPECT_EQ(text, expected + '\0' + '#');
    std::string out = "old";
    blob2hexstring(reinterpret_cast<const unsigned char*>(bytes.data()), size, out);
    EXPECT_EQ(out, expected);

    for (char& c : out)
      if (random() % 2 != 0) c = static_cast<char>(std::tolower(c));
    unsigned long length = 77;
    const std::unique_ptr<unsigned char, decltype(&std::free)> blob(hexstring2blob(out, length),
                                                                    std::free);
    EXPECT_EQ(length, size);
    EXPECT_EQ(std::memcmp(blob.get(), bytes.data(), size), 0);
    EXPECT_EQ(HexDecode(out.data(), static_cast<int>(out.size())), static_cast<int>(size));
    EXPECT_EQ(out, bytes + std::string(size, '\0'));
  }
}

// A long text takes the fast way, a pair alone the slow one; both have to value anything alike.
TEST(Hex, ValuesEveryPairOfCharactersAlikeInLongAndShortTexts) {
  std::string text;
  for (int c = 0; c < 65536; ++c) text += {static_cast<char>(c >> 8), static_cast<char>(c)};
  std::string decoded = text;
  HexDecode(decoded.data(), static_cast<int>(decoded.size()));
  unsigned long length;
  const std::unique_ptr<unsigned char, decltype(&std::free)> blob(hexstring2blob(text, length),
                                                                  std::free);
  for (size_t i = 0; i < length; ++i) {
    std::string pair = text.substr(2 * i, 2);
    unsigned long one;
    const std::unique_ptr<unsigned char, decltype(&std::free)> alone(hexstring2blob(pair, one),
                                                                     std::free);
    ASSERT_EQ(blob.get()[i], *alone) << i;
    HexDecode(pair.data(), 2);
    ASSERT_EQ(decoded[i], pair[0]) << i;
  }
}

TEST(Hex, WrongDigitsHaveAValueOrAreReported) {
  ReportCapture reports;
  char text[] = "0aFfGz:";
  EXPECT_EQ(HexDecode(text, 7), 4);
  EXPECT_EQ(std::memcmp(text, "\x0A\xFF\x23\xA0\0\0", 7), 0);  // 16 * 16 + 35, 10 << 4
  EXPECT_EQ(HexDecode(text, 0), 0);

  unsigned long length;
  unsigned char* blob = hexstring2blob("g1A/abc", length);
  EXPECT_EQ(length, 3u);
  EXPECT_EQ(std::memcmp(blob, "\x01\xA0\xAB", 3), 0);
  std::free(blob);
  const auto failed = kel::testing::fail_each<"calloc", void*(size_t, size_t)>(
      static_cast<void*>(nullptr), ENOMEM, [&] {
        blob = hexstring2blob("ab", length);
        EXPECT_EQ(length, blob == nullptr ? 0u : 1u);
        std::free(blob);
      });
  EXPECT_EQ(failed, 1);

  EXPECT_EQ(hextobyte("7F"), 127);
  EXPECT_EQ(hextobyte("fe"), 254);
  EXPECT_EQ(hextobyte(nullptr), -1);
  EXPECT_EQ(hextobyte("g0"), -1);
  EXPECT_EQ(hextobyte("0"), -1);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EINVAL, "hextobyte: invalid NULL parameter"),
                          error(EINVAL, "hextobyte: invalid hex digit in position 0"),
                          error(EINVAL, "hextobyte: invalid hex digit in position 1")));
}

}  // namespace
