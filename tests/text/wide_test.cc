#include <kel/charconv.h>

#include <clocale>

#include "text/text_fixture.h"

namespace {

using namespace kel::testing;

TEST(Wide, PlainSetsKeepTheirValuesAndRefuseWhatTheyDoNotHave) {
  ReportCapture reports;
  wchar_t wide[4];
  char narrow[4];
  EXPECT_STREQ(iso8859_1towcs_buf(wide, bytes_of("\xE9\xFFz"), 4), L"\u00E9\u00FFz");
  EXPECT_STREQ(ascii7towcs_buf(wide, "abc", 4), L"abc");
  EXPECT_STREQ(wcstoascii7_buf(narrow, L"a\x7F", 4), "a\x7F");
  EXPECT_THAT(reports.take(), IsEmpty());

  const auto emptied = [](auto* dst, auto function, auto* text) {
    dst[0] = 'x';
    return function(dst, text, 4) == nullptr && dst[0] == 0;
  };
  const unsigned char* none = nullptr;
  expect_refused(
      reports, EINVAL,
      {[&] { return emptied(wide, iso8859_1towcs_buf, bytes_of("abcd")); },
       [&] { return emptied(wide, iso8859_1towcs_buf, none); },
       [&] { return emptied(wide, ascii7towcs_buf, "abcd"); },
       [&] { return emptied(wide, ascii7towcs_buf, "a\x80"); },
       [&] { return !ascii7towcs_buf(wide, "", -1); }, [] { return !ascii7towcs_malloced("\xE9"); },
       [] { return !wcstoascii7_malloced(nullptr); }});
  expect_refused(reports, EILSEQ,
                 {[&] { return emptied(narrow, wcstoascii7_buf, L"a\u00E9"); },
                  [&] { return emptied(narrow, wcstoascii7_buf, L"\x80000041"); }});
  EXPECT_TRUE(emptied(narrow, wcstoascii7_buf, L"abcd"));
  EXPECT_EQ(errno, ENOBUFS);
}

TEST(Wide, NewTextsFollowTheBufferForms) {
  ReportCapture reports;
  const auto is_null_or = [](auto* text, auto* expected) {
    EXPECT_STREQ(text, text == nullptr ? nullptr : expected);
    utf8free(text);
  };
  EXPECT_EQ(fail_each_malloc([&] {
              is_null_or(iso8859_1towcs_malloced(bytes_of("\xE9")), L"\u00E9");
              is_null_or(ascii7towcs_malloced("abc"), L"abc");
              is_null_or(wcstoascii7_malloced(L"abc"), "abc");
            }),
            3);
}

/// Both directions in turn: the text fits, does not fit, is measured, has a
/// flaw.
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
      const NewText<To> fresh(convert(text, dst, n, KEL_CONVERT_ALLOCATE));
      ASSERT_NE(fresh.get(), nullptr);
      EXPECT_NE(fresh.get(), dst);
      EXPECT_EQ(fresh.get(), expected);
    }
  }
  EXPECT_EQ(convert(text, nullptr, 0, 0), nullptr);
  EXPECT_EQ(convert(flawed, buf, 16, KEL_CONVERT_ALLOCATE), nullptr);
  EXPECT_EQ(errno, EILSEQ);
}

TEST(LocaleText, FitsOrIsNewOrIsRefused) {
  if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) GTEST_SKIP() << "no locale C.UTF-8";
  ReportCapture reports;
  check_locale_text<wchar_t, char>(mbsconvert, "a\xC3\xA9\xE2\x82\xAC", L"a\u00E9\u20AC", "ab\xC3");
  check_locale_text<char, wchar_t>(wcsconvert, L"a\u00E9\u20AC", "a\xC3\xA9\xE2\x82\xAC",
                                   L"ab\xD800");
  EXPECT_THAT(reports.take(), IsEmpty());

  // A flaw behind what fits is found when the whole is measured.
  wchar_t wide[1];
  char narrow[1];
  expect_refused(reports, EILSEQ,
                 {[&] { return !mbsconvert("ab\xC3", wide, 1, KEL_CONVERT_ALLOCATE); },
                  [&] { return !wcsconvert(L"ab\xD800", narrow, 1, KEL_CONVERT_ALLOCATE); }});
  expect_refused(reports, EINVAL, {[&] { return !mbsconvert(nullptr, wide, 1, 0); }});
  expect_refused(reports, ENOMEM, {[&] {
                   const Fault<"malloc", void*(size_t)> fault(1, nullptr, ENOMEM);
                   return !mbsconvert("ab", nullptr, 0, KEL_CONVERT_ALLOCATE);
                 }});
  std::setlocale(LC_CTYPE, "C");
}

}  // namespace
