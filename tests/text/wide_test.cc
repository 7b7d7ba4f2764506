#include <kel/charconv.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <clocale>
#include <memory>
#include <string>

#include "support/import_hook.h"
#include "support/reports.h"

namespace {

using kel::testing::error;
using kel::testing::ReportCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const unsigned char* latin1(const char* s) { return reinterpret_cast<const unsigned char*>(s); }

TEST(Wide, PlainSetsKeepTheirValuesAndRefuseWhatTheyDoNotHave) {
  ReportCapture reports;
  wchar_t wide[4];
  char narrow[4];
  EXPECT_STREQ(iso8859_1towcs_buf(wide, latin1("\xE9\xFFz"), 4), L"\u00E9\u00FFz");
  EXPECT_STREQ(ascii7towcs_buf(wide, "abc", 4), L"abc");
  EXPECT_STREQ(wcstoascii7_buf(narrow, L"a\x7F", 4), "a\x7F");
  EXPECT_THAT(reports.take(), IsEmpty());

  const auto refused = [&](auto* dst, int code, auto call) {
    dst[0] = 'x';
    errno = 0;
    EXPECT_EQ(call(), nullptr);
    EXPECT_EQ(errno, code);
    EXPECT_EQ(dst[0], 0);
  };
  refused(wide, EINVAL, [&] { return iso8859_1towcs_buf(wide, latin1("abcd"), 4); });
  refused(wide, EINVAL, [&] { return iso8859_1towcs_buf(wide, nullptr, 4); });
  refused(wide, EINVAL, [&] { return ascii7towcs_buf(wide, "abcd", 4); });
  refused(wide, EINVAL, [&] { return ascii7towcs_buf(wide, "a\x80", 4); });
  refused(narrow, EILSEQ, [&] { return wcstoascii7_buf(narrow, L"a\u00E9", 4); });
  refused(narrow, EILSEQ, [&] { return wcstoascii7_buf(narrow, L"\x80000041", 4); });
  EXPECT_EQ(ascii7towcs_buf(wide, "", -1), nullptr);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EINVAL, "iso8859_1towcs_buf: string too long"),
                          error(EINVAL, "iso8859_1towcs_buf: invalid NULL parameter"),
                          error(EINVAL, "ascii7towcs_buf: string too long"),
                          error(EINVAL, "ascii7towcs_buf: invalid character"),
                          error(EILSEQ, "wcstoascii7_buf: illegal character"),
                          error(EILSEQ, "wcstoascii7_buf: illegal character"),
                          error(EINVAL, "ascii7towcs_buf: invalid NULL parameter")));
  refused(narrow, ENOBUFS, [&] { return wcstoascii7_buf(narrow, L"abcd", 4); });
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST(Wide, NewTextsFollowTheBufferForms) {
  ReportCapture reports;
  const auto all = [&] {
    wchar_t* const from_latin1 = iso8859_1towcs_malloced(latin1("\xE9"));
    wchar_t* const from_ascii = ascii7towcs_malloced("abc");
    char* const to_ascii = wcstoascii7_malloced(L"abc");
    EXPECT_STREQ(from_latin1, from_latin1 == nullptr ? nullptr : L"\u00E9");
    EXPECT_STREQ(from_ascii, from_ascii == nullptr ? nullptr : L"abc");
    EXPECT_STREQ(to_ascii, to_ascii == nullptr ? nullptr : "abc");
    for (void* text : {static_cast<void*>(from_latin1), static_cast<void*>(from_ascii),
                       static_cast<void*>(to_ascii)})
      utf8free(text);
  };
  EXPECT_EQ(
      (kel::testing::fail_each<"malloc", void*(size_t)>(static_cast<void*>(nullptr), ENOMEM, all)),
      3);
  EXPECT_EQ(ascii7towcs_malloced("\xE9"), nullptr);
  EXPECT_EQ(wcstoascii7_malloced(nullptr), nullptr);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(ENOMEM, "iso8859_1towcs_malloced: could not allocate memory"),
                          error(ENOMEM, "ascii7towcs_malloced: could not allocate memory"),
                          error(ENOMEM, "wcstoascii7_malloced: could not allocate memory"),
                          error(EINVAL, "ascii7towcs_malloced: invalid character"),
                          error(EINVAL, "wcstoascii7_malloced: invalid NULL parameter")));
}

class LocaleText : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) GTEST_SKIP() << "no locale C.UTF-8";
  }
  void TearDown() override { std::setlocale(LC_CTYPE, "C"); }

  ReportCapture reports;
};

/// Both directions in turn: the text fits, does not fit, is measured, has a flaw.
template <class To, class From, class Convert>
void check_locale_text(Convert convert, const From* text, const To* converted, const From* flawed) {
  const std::basic_string<To> expected = converted;
  To buf[16];
  EXPECT_EQ(convert(text, buf, expected.size() + 1, 0), buf);
  EXPECT_EQ(buf, expected);
  for (size_t n = 0; n <= expected.size(); ++n) {
    buf[0] = buf[n] = 'x';
    errno = 0;
    EXPECT_EQ(convert(text, buf, n, 0), nullptr);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(buf[0], n == 0 ? To('x') : To(0));
    EXPECT_EQ(buf[n], To('x'));
    for (To* const dst : {buf, static_cast<To*>(nullptr)}) {
      const std::unique_ptr<To, decltype(&utf8free)> fresh(
          convert(text, dst, n, KEL_CONVERT_ALLOCATE), utf8free);
      ASSERT_NE(fresh.get(), nullptr);
      EXPECT_NE(fresh.get(), dst);
      EXPECT_EQ(fresh.get(), expected);
    }
  }
  EXPECT_EQ(convert(text, nullptr, 0, 0), nullptr);
  EXPECT_EQ(convert(flawed, buf, 16, KEL_CONVERT_ALLOCATE), nullptr);
  EXPECT_EQ(errno, EILSEQ);
}

TEST_F(LocaleText, FitsOrIsNewOrIsRefused) {
  check_locale_text<wchar_t, char>(mbsconvert, "a\xC3\xA9\xE2\x82\xAC", L"a\u00E9\u20AC", "ab\xC3");
  check_locale_text<char, wchar_t>(wcsconvert, L"a\u00E9\u20AC", "a\xC3\xA9\xE2\x82\xAC",
                                   L"ab\xD800");
  EXPECT_THAT(reports.take(), IsEmpty());

  // A flaw behind what fits is found when the whole is measured.
  wchar_t wide[1];
  char narrow[1];
  EXPECT_EQ(mbsconvert("ab\xC3", wide, 1, KEL_CONVERT_ALLOCATE), nullptr);
  EXPECT_EQ(wcsconvert(L"ab\xD800", narrow, 1, KEL_CONVERT_ALLOCATE), nullptr);
  EXPECT_EQ(mbsconvert(nullptr, wide, 1, 0), nullptr);
  const kel::testing::Fault<"malloc", void*(size_t)> fault(1, nullptr, ENOMEM);
  EXPECT_EQ(mbsconvert("ab", nullptr, 0, KEL_CONVERT_ALLOCATE), nullptr);
  EXPECT_THAT(
      reports.take(),
      ElementsAre(error(EILSEQ, "__towc: could not determine number of bytes to convert"),
                  error(EILSEQ, "wcsconvert: could not determine number of bytes to convert"),
                  error(EINVAL, "__towc: invalid NULL parameter"),
                  error(ENOMEM, "__towc: could not allocate memory")));
}

}  // namespace
