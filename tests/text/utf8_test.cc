#include <kel/charconv.h>

#include <iconv.h>

#include "text/text_fixture.h"

namespace {

using namespace kel::testing;

using Wide = NewText<wchar_t>;
using Narrow = NewText<char>;

int valid_char(std::string_view s) {
  return is_valid_utf8_char(bytes_of(s), static_cast<unsigned>(s.size()));
}
int valid_string(std::string_view s) {
  return is_valid_utf8_string(bytes_of(s), static_cast<int>(s.size()));
}

template <class Unit>
std::string memory_of(const std::basic_string<Unit>& text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(Unit)};
}

TEST(Utf8, EveryCodePointAgreesWithIconv) {
  std::wstring all;
  std::string utf8;
  std::u16string utf16;
  for (wchar_t c = 1; c <= 0x10FFFF; ++c) {
    if (c >= 0xD800 && c <= 0xDFFF) continue;
    all += c;
    unsigned char bytes[6];
    const auto size = static_cast<size_t>(wc_to_utf8c(c, bytes) - bytes);
    ASSERT_EQ(wc_to_utf8c_len(c), static_cast<int>(size));
    utf8.append(bytes, bytes + size);
    wchar_t again;
    ASSERT_EQ(utf8c_to_wc_nochecks(bytes, &again), bytes + size);
    ASSERT_EQ(again, c);
    uint16_t units[2] = {};
    const int count = wc_to_utf16(c, units);
    ASSERT_EQ(validate_utf16_codeunit(units), count);
    utf16.append(units, units + count);
  }
  EXPECT_TRUE(filtered("iconv -f UTF-32LE -t UTF-8", memory_of(all)) == utf8);
  EXPECT_TRUE(filtered("iconv -f UTF-32LE -t UTF-16LE", memory_of(all)) == memory_of(utf16));
  EXPECT_EQ(valid_string(utf8), static_cast<int>(all.size()));
  EXPECT_TRUE(Wide(utf8towcs_malloced(utf8.c_str())).get() == all);
  EXPECT_TRUE(Narrow(wcstoutf8_malloced(all.c_str())).get() == utf8);
}

class Iconv {
 public:
  Iconv() : descriptor_(iconv_open("UTF-32LE", "UTF-8")) {}
  ~Iconv() { iconv_close(descriptor_); }

  /// How many characters `text` holds; -1 when it is not well-formed.
  int characters(std::string text) const {
    char out[4 * 256];
    char *from = text.data(), *to = out;
    size_t left = text.size(), room = sizeof out;
    iconv(descriptor_, nullptr, nullptr, nullptr, nullptr);
    if (iconv(descriptor_, &from, &left, &to, &room) == size_t(-1)) return -1;
    return static_cast<int>((to - out) / 4);
  }

 private:
  iconv_t descriptor_;
};

TEST(Utf8, EverySequenceOfTwoAndThreeBytesIsJudgedAsByIconv) {
  const ReportCapture silence(KEL_LOG_NONE);
  const Iconv iconv;
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string two = {static_cast<char>(first), static_cast<char>(second)};
      ASSERT_EQ(valid_string(two), iconv.characters(two)) << first << ' ' << second;
      ASSERT_EQ(valid_char(two) == 2, iconv.characters(two) == 1);
    }
  }
  // Below E0 the third byte is a character of its own.
  for (int first = 0xE0; first < 256; ++first) {
    for (int rest = 0; rest < 65536; ++rest) {
      const std::string three = {static_cast<char>(first), static_cast<char>(rest >> 8),
                                 static_cast<char>(rest)};
      const int length = valid_char(three);
      ASSERT_EQ(length == 3, iconv.characters(three) == 1) << first << ' ' << rest;
      ASSERT_EQ(length == -1, length != 3);
    }
  }
}

TEST(Utf8, DamagedTextsOfAnyLengthAreJudgedAsByIconv) {
  const ReportCapture silence(KEL_LOG_NONE);
  const Iconv iconv;
  std::mt19937 random(6);
  const std::string_view pieces[] = {"plain", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
  for (int round = 0; round < 100'000; ++round) {
    std::string text;
    for (size_t i = random() % 20; i != 0; --i) text += pieces[random() % 4];
    ASSERT_EQ(valid_string(text), iconv.characters(text));
    if (text.empty()) continue;
    text[random() % text.size()] = static_cast<char>(random());
    ASSERT_EQ(valid_string(text), iconv.characters(text)) << testing::PrintToString(text);
    text.resize(random() % text.size());  // cut short
    ASSERT_EQ(valid_string(text), iconv.characters(text)) << testing::PrintToString(text);
  }
}

TEST(Utf8, SurrogatesAndFormsOfUpToSixBytesPassTheConverters) {
  const std::pair<wchar_t, std::string_view> rows[] = {{0xD800, "\xED\xA0\x80"},
                                                       {0x110000, "\xF4\x90\x80\x80"},
                                                       {0x1FFFFF, "\xF7\xBF\xBF\xBF"},
                                                       {0x200000, "\xF8\x88\x80\x80\x80"},
                                                       {0x3FFFFFF, "\xFB\xBF\xBF\xBF\xBF"},
                                                       {0x4000000, "\xFC\x84\x80\x80\x80\x80"},
                                                       {0x7FFFFFFF, "\xFD\xBF\xBF\xBF\xBF\xBF"}};
  std::wstring wide;
  std::string utf8;
  for (const auto& [c, bytes] : rows) {
    unsigned char out[6];
    EXPECT_EQ(std::string(out, wc_to_utf8c(c, out)), bytes);
    EXPECT_EQ(wc_to_utf8c_len(c), static_cast<int>(bytes.size()));
    wide += c;
    utf8 += bytes;
  }
  EXPECT_EQ(Narrow(wcstoutf8_malloced(wide.c_str())).get(), utf8);
  EXPECT_EQ(Wide(utf8towcs_malloced(utf8.c_str())).get(), wide);
  EXPECT_EQ(Wide(utf8towcs_malloced("\xC0\xAF")).get(), std::wstring(L"/"));
  unsigned char out[6];
  EXPECT_EQ(std::string(out, wc_to_utf8c(wchar_t(0x80000041U), out)),
            std::string_view("\xFC\x80\x80\x80\x81\x81"));

  const uint16_t low[] = {0xDFFF, 0xDE00}, high[] = {0xD83D, 0x0041}, last[] = {0xFFFF};
  EXPECT_EQ(validate_utf16_codeunit(low), 0);
  EXPECT_EQ(validate_utf16_codeunit(high), 0);
  EXPECT_EQ(validate_utf16_codeunit(last), 1);
}

TEST(Utf8, ConvertersStopAtTheFirstByteOutOfPlaceWhereverItStands) {
  ReportCapture reports;
  const std::wstring wide = L"plain text \u00E9\u20AC\U0001F600 and more of it, long enough";
  for (const std::string_view bad : {"\x80", "\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xF8\x88\x80\x80",
                                     "\xFC\x84\x80\x80\x80", "\xFE", "\xFF", "\xE2\xC3\xA9"}) {
    for (size_t at = 0; at <= wide.size(); ++at) {
      const std::string head = Narrow(wcstoutf8_malloced(wide.substr(0, at).c_str())).get();
      const std::string tail =
          std::string(bad) + Narrow(wcstoutf8_malloced(wide.substr(at).c_str())).get();
      errno = 0;
      ASSERT_EQ(utf8towcs_malloced((head + tail).c_str()), nullptr);
      EXPECT_EQ(errno, EINVAL);
      ASSERT_THAT(reports.take_texts(), ElementsAre(EndsWith(": " + tail)));
    }
  }
}

TEST(Utf8, FailuresShowTheTextAndNothingBehindIt) {
  ReportCapture reports;
  errno = ENOENT;
  EXPECT_EQ(is_valid_utf8_char(bytes_of("\xC2\xA9"), 1), -1);
  EXPECT_EQ(errno, EILSEQ);
  errno = 0;
  EXPECT_EQ(is_valid_utf8_string(bytes_of("a\xED\xA0\x80 hidden"), 5), -1);
  EXPECT_EQ(errno, EILSEQ);
  EXPECT_THAT(reports.take_texts(), ElementsAre(EndsWith(": \xC2"), EndsWith(": \xED\xA0\x80 "),
                                                EndsWith(": \xED\xA0\x80 ")));
  EXPECT_EQ(is_valid_utf8_string(nullptr, 0), 0);
  EXPECT_EQ(is_valid_utf8_string(nullptr, 1), -1);
  EXPECT_EQ(is_valid_utf8_string(bytes_of("a"), -1), -1);
  EXPECT_EQ(fail_each_malloc([] {
              errno = 0;
              const Wide wide(utf8towcs_malloced("a"));
              const Narrow text(wcstoutf8_malloced(L"a"));
              EXPECT_EQ(errno, wide == nullptr || text == nullptr ? ENOMEM : 0);
            }),
            2);
}

}  // namespace
