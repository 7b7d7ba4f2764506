#include <kel/base64.h>

#include <cctype>

#include "text/text_fixture.h"

namespace {

using namespace kel::testing;

std::string decoded(std::string text) {
  const int size = HexDecode(text.data(), static_cast<int>(text.size()));
  EXPECT_EQ(text.substr(static_cast<size_t>(size)), std::string(text.size() / 2, '\0'));
  return text.substr(0, static_cast<size_t>(size));
}

std::string blob_of(const std::string& text) {
  unsigned long length = 77;
  const NewText<unsigned char> blob(hexstring2blob(text, length));
  if (blob == nullptr) return "none of " + std::to_string(length);
  return {reinterpret_cast<const char*>(blob.get()), length};
}

TEST(AsciiTables, AgreeWithTheCLocale) {
  using Class = std::pair<int (*)(int), int>;
  for (int c = 0; c < 256; ++c) {
    int expected = 0;
    for (const auto& [belongs, bit] :
         {Class{std::islower, KELASCII_LOWER}, Class{std::isupper, KELASCII_UPPER},
          Class{std::isdigit, KELASCII_DIGIT}, Class{std::ispunct, KELASCII_PUNCT},
          Class{std::isspace, KELASCII_SPACE}, Class{std::isxdigit, KELASCII_XDIGIT}})
      if (c < 128 && belongs(c) != 0) expected |= bit;
    EXPECT_EQ(kelascii_ctype_table[c], expected) << c;
    EXPECT_EQ(kelascii_toupper_table[c], c < 128 ? std::toupper(c) : c);
  }
  EXPECT_STREQ(__kel_hex_tab, "0123456789ABCDEF");
}

TEST(Hex, GoesThereAndBackAtEverySizeAndInEitherCase) {
  std::mt19937 random(4);
  for (unsigned size = 0; size < 100; ++size) {
    const std::string bytes = random_bytes(random, size);
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
    EXPECT_EQ(blob_of(out), bytes);
    EXPECT_EQ(decoded(out), bytes);
  }
}

// A long text takes the fast way, a pair alone the slow one; both have to value
// anything alike.
TEST(Hex, ValuesEveryPairOfCharactersAlikeInLongAndShortTexts) {
  std::string text;
  for (int c = 0; c < 65536; ++c) text += {static_cast<char>(c >> 8), static_cast<char>(c)};
  const std::string all = decoded(text), blob = blob_of(text);
  for (size_t i = 0; i < 65536; ++i) {
    const std::string pair = text.substr(2 * i, 2);
    ASSERT_EQ(blob.substr(i, 1), blob_of(pair)) << i;
    ASSERT_EQ(all.substr(i, 1), decoded(pair)) << i;
  }
}

TEST(Hex, WrongDigitsHaveAValueOrAreReported) {
  ReportCapture reports;
  EXPECT_EQ(decoded("0aFfGz:"), "\x0A\xFF\x23\xA0");  // 16 * 16 + 35, 10 << 4
  EXPECT_EQ(decoded(""), "");
  EXPECT_EQ(blob_of("g1A/abc"), "\x01\xA0\xAB");
  EXPECT_EQ(fail_each_calloc([] { EXPECT_THAT(blob_of("ab"), AnyOf("\xAB", "none of 0")); }), 1);

  EXPECT_EQ(hextobyte("7F"), 127);
  EXPECT_EQ(hextobyte("fe"), 254);
  expect_refused(reports, EINVAL,
                 {[] { return hextobyte(nullptr) == -1; }, [] { return hextobyte("g0") == -1; },
                  [] { return hextobyte("0") == -1; }});
}

}  // namespace
