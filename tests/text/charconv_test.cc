#include <kel/charconv.h>

#include <gmock/gmock.h>
#include <iconv.h>

#include <cerrno>
#include <clocale>
#include <cstring>
#include <memory>
#include <string>

#include "support/import_hook.h"
#include "support/reports.h"
#include "text/peer.h"

namespace {

using kel::testing::error;
using kel::testing::Fault;
using kel::testing::ReportCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Close {
  void operator()(charconv_t* h) const { EXPECT_EQ(charconv_close(h), 0); }
};
using Handle = std::unique_ptr<charconv_t, Close>;

/// The text of a new string of known length, whose terminator is four bytes wide.
std::string take(char* text, size_t length) {
  const std::unique_ptr<char, decltype(&utf8free)> owned(text, utf8free);
  if (text == nullptr) return "null";
  EXPECT_EQ(std::memcmp(text + length, "\0\0\0", 4), 0);
  return {text, length};
}

std::string convert(charconv_t* h, const std::string& in) {
  size_t length = 77;
  char* const text = charconv_buf_malloced(h, in.data(), in.size(), &length);
  return take(text, length);
}

TEST(Charconv, AgreesWithIconvInEveryDirection) {
  ReportCapture reports;
  std::string text;
  for (int i = 0; i < 700; ++i)
    text += "Grüße, été, \xE6\x97\xA5\xE6\x9C\xAC " + std::to_string(i) + "\n";
  for (const char* set : {"UTF-8", "UTF-16", "UTF-16LE", "UTF-32BE", "ISO-2022-JP-2", "GB18030"}) {
    const Handle there(charconv_open(set, "UTF-8")), back(charconv_open("UTF-8", set));
    const std::string converted = convert(there.get(), text);
    EXPECT_TRUE(converted == kel::testing::filtered(std::string("iconv -f UTF-8 -t ") + set, text))
        << set;
    EXPECT_EQ(charconv_buf_len(there.get(), text.data(), text.size()), converted.size());
    EXPECT_EQ(charconv_string_len(there.get(), text.c_str()), converted.size());
    EXPECT_TRUE(convert(back.get(), converted) == text);
    EXPECT_EQ(convert(there.get(), ""), "");
  }
  const Handle utf16(charconv_open("UTF-16LE", "UTF-8"));
  EXPECT_EQ(charconv_buf_len(utf16.get(), std::string(10'000, 'a').data(), 10'000), 20'000);
  EXPECT_EQ(take(charconv_buf_malloced_simple(utf16.get(), "ab", 1), 2), std::string("a\0", 2));
  EXPECT_EQ(take(charconv_string_malloced_simple(utf16.get(), "a"), 2), std::string("a\0", 2));
  size_t length;
  EXPECT_EQ(take(charconv_string_malloced(utf16.get(), "ab", &length), 4),
            std::string("a\0b\0", 4));
  EXPECT_EQ(length, 4u);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST(Charconv, OneConversionTellsWhatWasReadAndWritten) {
  ReportCapture reports;
  const Handle latin(charconv_open("ISO-8859-1", "UTF-8"));
  struct Row {
    std::string in;
    size_t room;
    ssize_t result;
    int code;
    size_t left;
    std::string out;
  };
  for (const Row& row :
       {Row{"a\xC3\xA9z", 8, 0, 0, 0, "a\xE9z"}, Row{"a\xC3\xA9z", 2, -1, E2BIG, 1, "a\xE9"},
        Row{"ab\xFFz", 8, -1, EILSEQ, 2, "ab"}, Row{"ab\xC3", 8, -1, EINVAL, 1, "ab"}}) {
    std::string in = row.in;
    std::string out(row.room + 1, '#');
    size_t left = in.size(), written = row.room;
    errno = 0;
    EXPECT_EQ(_charconv_buf_buf(latin.get(), in.data(), &left, out.data(), &written), row.result);
    EXPECT_EQ(errno, row.code);
    EXPECT_EQ(left, row.left);
    EXPECT_EQ(out.substr(0, written), row.out);
    EXPECT_EQ(out[row.room], '#');
    const auto expected =
        row.code == 0 ? std::vector<kel::testing::Report>{}
                      : std::vector{error(row.code, "_charconv_buf_buf: Failed to convert")};
    EXPECT_EQ(reports.take(), expected);
  }
  char buf[4] = "a";
  size_t size = 1;
  EXPECT_EQ(_charconv_buf_buf(latin.get(), nullptr, &size, buf, &size), -1);
  EXPECT_EQ(_charconv_buf_buf(latin.get(), buf, &size, nullptr, &size), -1);
  EXPECT_EQ(_charconv_buf_buf(latin.get(), buf, &size, buf, nullptr), -1);
  const auto missing = error(EINVAL, "_charconv_buf_buf: Invalid NULL parameter");
  EXPECT_THAT(reports.take(), ElementsAre(missing, missing, missing));
}

TEST(Charconv, FailuresNameTheCall) {
  ReportCapture reports;
  errno = 0;
  EXPECT_EQ(charconv_open("UTF-8", "no such set"), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_THAT(reports.take(), IsEmpty());

  const Handle latin(charconv_open("ISO-8859-1", "UTF-8"));
  EXPECT_EQ(convert(latin.get(), "ab\xFF"), "null");
  EXPECT_EQ(errno, EILSEQ);
  EXPECT_EQ(charconv_string_malloced_simple(latin.get(), "\xE2\x82"), nullptr);
  EXPECT_EQ(charconv_buf_len(latin.get(), "\xE2\x82\xAC", 3), -1);
  errno = ENOENT;
  EXPECT_EQ(charconv_buf_len(latin.get(), nullptr, 3), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(charconv_string_malloced_simple(latin.get(), nullptr), nullptr);
  EXPECT_EQ(charconv_close(nullptr), -1);
  EXPECT_EQ(charconv_reset(latin.get()), 0);
  const std::string because = std::strerror(EILSEQ);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EILSEQ, "charconv_buf_malloced: Failed to convert"),
                          error(EINVAL, "charconv_string_malloced_simple: Failed to convert"),
                          error(EILSEQ, "charconv_buf_len: iconv returns (size_t)(-1): " + because),
                          error(ENOENT, "charconv_buf_len: Invalid NULL parameter"),
                          error(EINVAL, "charconv_string_malloced_simple: Invalid NULL parameter"),
                          error(EINVAL, "charconv_close: Invalid NULL conversion descriptor")));
}

TEST(Charconv, LocaleTextGoesToUtf8AndBack) {
  ReportCapture reports;
  using Text = std::unique_ptr<char, decltype(&utf8free)>;
  EXPECT_EQ(strtoutf8_malloced("\xC3\xA9"), nullptr);  // not in the locale "C"
  if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) GTEST_SKIP() << "no locale C.UTF-8";
  EXPECT_STREQ(Text(strtoutf8_malloced("\xC3\xA9"), utf8free).get(), "\xC3\xA9");
  EXPECT_STREQ(Text(utf8tostr_malloced("\xC3\xA9"), utf8free).get(), "\xC3\xA9");
  EXPECT_EQ(utf8tostr_malloced("\xC3"), nullptr);
  EXPECT_EQ(utf8tostr_malloced(nullptr), nullptr);
  std::setlocale(LC_CTYPE, "C");
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EILSEQ, "strtoutf8_malloced: Failed to convert"),
                          error(EINVAL, "utf8tostr_malloced: Failed to convert"),
                          error(EINVAL, "utf8tostr_malloced: Invalid NULL parameter")));
}

TEST(Charconv, EveryCallThatCanFailHasAWayOut) {
  ReportCapture reports;
  const Handle latin(charconv_open("UTF-32LE", "ISO-8859-1"));
  const std::string in(1000, 'a');
  const auto scenario = [&] {
    errno = 0;
    const std::string out = convert(latin.get(), in);
    EXPECT_TRUE(out.size() == 4000 || (out == "null" && errno == ENOMEM)) << out.size();
  };
  // The first block, which the compiler may ask malloc() for, two that grow, and one that shrinks,
  // or stays as it is.
  void* const failure = nullptr;
  const long failed =
      kel::testing::fail_each<"realloc", void*(void*, size_t)>(failure, ENOMEM, scenario) +
      kel::testing::fail_each<"malloc", void*(size_t)>(failure, ENOMEM, scenario);
  EXPECT_EQ(failed, 4);
  const auto text = error(ENOMEM, "charconv_buf_malloced: could not allocate memory");
  EXPECT_THAT(reports.take(), ElementsAre(text, text, text));

  const Fault<"malloc", void*(size_t)> no_memory(1, nullptr, ENOMEM);
  EXPECT_EQ(charconv_open(nullptr, nullptr), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(reports.take().size(), 1u);
  const Fault<"iconv", size_t(iconv_t, char**, size_t*, char**, size_t*)> no_reset(1, size_t(-1),
                                                                                   EBADF);
  size_t left = 1, room = 3;
  char buf[4] = "a";
  EXPECT_EQ(_charconv_buf_buf(latin.get(), buf, &left, buf, &room), -1);
  EXPECT_EQ(room, 0u);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(EBADF, "_charconv_buf_buf: charconv_reset failed")));
}

}  // namespace
