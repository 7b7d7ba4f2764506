#include <kel/charconv.h>

#include <iconv.h>

#include <clocale>

#include "text/text_fixture.h"

namespace {

using namespace kel::testing;

struct Close {
  void operator()(charconv_t* h) const { EXPECT_EQ(charconv_close(h), 0); }
};
using Handle = std::unique_ptr<charconv_t, Close>;

/// The text of a new string of known length, whose terminator is four bytes
/// wide.
std::string take(char* text, size_t length) {
  const NewText<char> owned(text);
  if (text == nullptr) return "null";
  EXPECT_EQ(std::memcmp(text + length, "\0\0\0", 4), 0);
  return {text, length};
}

std::string convert(const Handle& h, const std::string& in) {
  size_t length = 77;
  char* const text = charconv_buf_malloced(h.get(), in.data(), in.size(), &length);
  return take(text, length);
}

TEST(Charconv, AgreesWithIconvInEveryDirection) {
  ReportCapture reports;
  std::string text;
  for (int i = 0; i < 700; ++i)
    text += "Grüße, été, \xE6\x97\xA5\xE6\x9C\xAC " + std::to_string(i) + "\n";
  for (const char* set : {"UTF-8", "UTF-16", "UTF-16LE", "UTF-32BE", "ISO-2022-JP-2", "GB18030"}) {
    SCOPED_TRACE(set);
    const Handle there(charconv_open(set, "UTF-8")), back(charconv_open("UTF-8", set));
    const std::string converted = convert(there, text);
    EXPECT_TRUE(converted == filtered(std::string("iconv -f UTF-8 -t ") + set, text));
    EXPECT_EQ(charconv_buf_len(there.get(), text.data(), text.size()), converted.size());
    EXPECT_EQ(charconv_string_len(there.get(), text.c_str()), converted.size());
    EXPECT_TRUE(convert(back, converted) == text);
    EXPECT_EQ(convert(there, ""), "");
  }
  const Handle utf16(charconv_open("UTF-16LE", "UTF-8"));
  const std::string a("a\0", 2);
  size_t length;
  EXPECT_EQ(take(charconv_buf_malloced_simple(utf16.get(), "ab", 1), 2), a);
  EXPECT_EQ(take(charconv_string_malloced_simple(utf16.get(), "a"), 2), a);
  EXPECT_EQ(take(charconv_string_malloced(utf16.get(), "aa", &length), 4), a + a);
  EXPECT_EQ(length, 4u);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST(Charconv, OneConversionTellsWhatWasReadAndWritten) {
  ReportCapture reports;
  const Handle latin(charconv_open("ISO-8859-1", "UTF-8"));
  struct Row {
    std::string in;
    size_t room;
    int code;
    size_t left;
    std::string out;
  };
  for (const Row& row :
       {Row{"a\xC3\xA9z", 8, 0, 0, "a\xE9z"}, Row{"a\xC3\xA9z", 2, E2BIG, 1, "a\xE9"},
        Row{"ab\xFFz", 8, EILSEQ, 2, "ab"}, Row{"ab\xC3", 8, EINVAL, 1, "ab"}}) {
    std::string in = row.in, out(row.room + 1, '#');
    size_t left = in.size(), written = row.room;
    errno = 0;
    EXPECT_EQ(_charconv_buf_buf(latin.get(), in.data(), &left, out.data(), &written),
              row.code == 0 ? 0 : -1);
    EXPECT_EQ(errno, row.code);
    EXPECT_EQ(left, row.left);
    EXPECT_EQ(out.substr(0, written), row.out);
    EXPECT_EQ(out[row.room], '#');
    EXPECT_EQ(reports.take().size(), row.code == 0 ? 0u : 1u);
  }
}

TEST(Charconv, FailuresAreReported) {
  ReportCapture reports;
  const Handle handle(charconv_open("ISO-8859-1", "UTF-8"));
  charconv_t* const latin = handle.get();
  char buf[4] = "a";
  size_t size = 1;
  EXPECT_EQ(charconv_open("UTF-8", "no such set"), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(charconv_buf_len(latin, nullptr, 3), -1);
  EXPECT_EQ(errno, EINVAL);
  reports.take();
  expect_refused(reports, EILSEQ,
                 {[&] { return convert(handle, "ab\xFF") == "null"; },
                  [&] { return charconv_buf_len(latin, "\xE2\x82\xAC", 3) == -1; }});
  expect_refused(reports, EINVAL,
                 {[&] { return !charconv_string_malloced_simple(latin, "\xE2\x82"); },
                  [&] { return !charconv_string_malloced_simple(latin, nullptr); },
                  [&] { return charconv_close(nullptr) == -1; },
                  [&] { return _charconv_buf_buf(latin, nullptr, &size, buf, &size) == -1; },
                  [&] { return _charconv_buf_buf(latin, buf, &size, nullptr, &size) == -1; },
                  [&] { return _charconv_buf_buf(latin, buf, &size, buf, nullptr) == -1; }});
  EXPECT_EQ(charconv_reset(latin), 0);
}

TEST(Charconv, LocaleTextGoesToUtf8AndBack) {
  ReportCapture reports;
  // In the locale "C".
  expect_refused(reports, EILSEQ, {[] { return !strtoutf8_malloced("\xC3\xA9"); }});
  if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) GTEST_SKIP() << "no locale C.UTF-8";
  EXPECT_EQ(take(strtoutf8_malloced("\xC3\xA9"), 2), "\xC3\xA9");
  EXPECT_EQ(take(utf8tostr_malloced("\xC3\xA9"), 2), "\xC3\xA9");
  expect_refused(
      reports, EINVAL,
      {[] { return !utf8tostr_malloced("\xC3"); }, [] { return !utf8tostr_malloced(nullptr); }});
  std::setlocale(LC_CTYPE, "C");
}

TEST(Charconv, EveryCallThatCanFailHasAWayOut) {
  ReportCapture reports;
  const Handle utf32(charconv_open("UTF-32LE", "ISO-8859-1"));
  const auto scenario = [&] {
    errno = 0;
    const std::string out = convert(utf32, std::string(1000, 'a'));
    EXPECT_TRUE(out.size() == 4000 || (out == "null" && errno == ENOMEM)) << out.size();
  };
  // The first block, which the compiler may ask malloc() for, two that grow,
  // and one that shrinks, or stays as it is.
  EXPECT_EQ(fail_each_realloc(scenario) + fail_each_malloc(scenario), 4);
  EXPECT_EQ(reports.take().size(), 3u);

  const Fault<"malloc", void*(size_t)> no_memory(1, nullptr, ENOMEM);
  EXPECT_EQ(charconv_open(nullptr, nullptr), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(reports.take().size(), 1u);
  const Fault<"iconv", size_t(iconv_t, char**, size_t*, char**, size_t*)> no_reset(1, size_t(-1),
                                                                                   EBADF);
  size_t left = 1, room = 3;
  char buf[4] = "a";
  EXPECT_EQ(_charconv_buf_buf(utf32.get(), buf, &left, buf, &room), -1);
  EXPECT_EQ(room, 0u);
  EXPECT_THAT(reports.take(), ElementsAre(Field(&Report::code, EBADF)));
}

}  // namespace
