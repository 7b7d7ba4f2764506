#include <kel/url.h>

#include "text/text_fixture.h"

namespace {

using namespace kel::testing;

std::string encode(const std::string& text) {
  std::string out(3 * text.size() + 1, '#');
  EXPECT_EQ(URLEncode(text.c_str(), out.data()), out.data());
  return out.c_str();
}

std::string encode(const std::wstring& text) {
  std::string out(6 * text.size() + 1, '#');
  URLEncodeW(text.c_str(), out.data());
  return out.c_str();
}

std::string decode(std::string text) { return URLDecode(text.data()); }
std::string decode_utf8(std::string text) { return URLDecodeUTF8(text.data()); }
std::wstring decode_wide(const std::string& text) {
  std::wstring out(text.size() + 1, L'#');
  return URLDecodeW(text.c_str(), out.data());
}

TEST(Url, EncodesAllButTheCharactersThatStandForThemselves) {
  const std::string kept = "-.0123456789@ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz";
  for (int c = 1; c < 256; ++c) {
    char escape[4];
    std::snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned>(c));
    const bool stays = kept.find(static_cast<char>(c)) != std::string::npos;
    const std::string expected = stays ? std::string(1, static_cast<char>(c)) : escape;
    EXPECT_EQ(encode(std::string(1, static_cast<char>(c))), expected);
    EXPECT_EQ(encode(std::wstring(1, static_cast<wchar_t>(c))), expected);
    if (c >= 32 && c < 128) {
      EXPECT_EQ(__kel_url_allow_chars[c - 32], stays ? 1 : 0);
    }
  }
  EXPECT_EQ(encode("a b&c~d"), "a%20b%26c%7Ed");
  EXPECT_EQ(encode(""), "");
  EXPECT_EQ(encode(L"\u00E9\u20AC\U0001F600\x80000041"), "%E9%u20AC%uF600%u0041");
  char out[16];
  EXPECT_STREQ(URLEncodeN("a b", out, 2), "a%20");
  EXPECT_STREQ(URLEncodeN("a", out, 9), "a");
  EXPECT_STREQ(URLEncodeNW(L"a\u20AC", out, 1), "a");
  EXPECT_STREQ(URLEncodeNW(L"a", out, -1), "");
}

TEST(Url, DecodesEscapesPlusAndCodePoints) {
  struct Row {
    const char *text, *bytes, *utf8;
    const wchar_t* wide;
  };
  // What an escape of other characters than digits gives follows from their
  // codes.
  const Row rows[] = {{"a+b%41", "a bA", "a bA", L"a bA"},
                      {"%u0041", "%u0041", "A", L"A"},
                      {"%E9", "\xE9", "\xC3\xA9", L"\u00E9"},
                      {"%u20AC+", "%u20AC ", "\xE2\x82\xAC ", L"\u20AC "},
                      {"%u07FF%u0800", "%u07FF%u0800", "\xDF\xBF\xE0\xA0\x80", L"\u07FF\u0800"},
                      {"%7e%7E", "~~", "~~", L"~~"},
                      {"%zz", "S", "S", L"S"},
                      {"%u20zz!", "%u20zz!", "\xE2\x89\x93!", L"\u2253!"},
                      {"\xE9", "\xE9", "\xE9", L"\u00E9"},
                      {"x%", "x%", "x%", L"x%"},
                      {"x%+", "x%+", "x%+", L"x%+"},
                      {"%%4", "T", "T", L"T"},
                      {"%u12+", "%u12 ", "%u12+", L"%u12+"},
                      {"%u", "%u", "%u", L"%u"},
                      {"a%00b", "a", "a", L"a"}};
  for (const Row& row : rows) {
    EXPECT_EQ(decode(row.text), row.bytes) << row.text;
    EXPECT_EQ(decode_utf8(row.text), row.utf8) << row.text;
    EXPECT_EQ(decode_wide(row.text), row.wide) << row.text;
  }
}

TEST(Url, GoesThereAndBackAndAgreesWithPython) {
  std::mt19937 random(5);
  const std::string bytes = random_bytes(random, 5000);
  std::string text = "\x80\xFF +%";
  std::copy_if(bytes.begin(), bytes.end(), std::back_inserter(text), [](char c) { return c != 0; });
  const std::string encoded = encode(text);
  EXPECT_EQ(decode(encoded), text);
  if (std::system("command -v python3 >/dev/null") != 0) GTEST_SKIP() << "no python3";
  EXPECT_EQ(filtered("python3 -c 'import sys, urllib.parse as u; "
                     "sys.stdout.buffer.write(u.unquote_to_bytes(sys.stdin.read()))'",
                     encoded),
            text);
}

TEST(Url, NewTextsAndStreamsSurviveFailures) {
  ReportCapture reports;
  char printed[16] = "";
  FILE* stream = fmemopen(printed, sizeof printed, "w");
  const long failed = fail_each_malloc([&] {
    errno = 0;
    std::rewind(stream);
    const NewText<char> text(URLEncodeW_malloced(L"\u20AC\u20AC"));
    const NewText<wchar_t> wide(URLDecodeW_malloced("%u20AC+"));
    const bool whole = fprint_urlencoded(stream, "a b") == 0 && text != nullptr && wide != nullptr;
    EXPECT_EQ(errno, whole ? 0 : ENOMEM);
    EXPECT_STREQ(text.get(), text == nullptr ? nullptr : "%u20AC%u20AC");
    EXPECT_STREQ(wide.get(), wide == nullptr ? nullptr : L"\u20AC ");
  });
  EXPECT_EQ(failed, 3);
  std::fflush(stream);
  EXPECT_STREQ(printed, "a%20b");
  EXPECT_EQ(reports.take().size(), 3u);
  expect_refused(reports, EINVAL,
                 {[] { return fprint_urlencoded(nullptr, "a") == -1; },
                  [&] { return fprint_urlencoded(stream, nullptr) == -1; }});
  std::fclose(stream);
}

}  // namespace
