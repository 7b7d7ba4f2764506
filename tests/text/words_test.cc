#include <kel/text.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/reports.h"

namespace {

using kel::testing::error;
using kel::testing::ReportCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(Words, BooleansMatchByTheStartOfTheText) {
  ReportCapture reports;
  struct Row {
    std::string text;
    int value;
    size_t read;
  };
  for (const Row& row : {Row{"YES", 1, 3},
                         {"yesterday", 1, 3},
                         {"y", 1, 1},
                         {"yeah", 1, 1},
                         {"1", 1, 1},
                         {"True", 1, 4},
                         {"tru", 1, 1},
                         {"No", 0, 2},
                         {"nope", 0, 2},
                         {"n", 0, 1},
                         {"0", 0, 1},
                         {"False", 0, 5},
                         {"fa", 0, 1},
                         {"10", 1, 1}}) {
    char* end;
    EXPECT_EQ(strtobool(row.text.c_str(), &end), row.value);
    EXPECT_EQ(end, row.text.c_str() + row.read) << row.text;
    const std::wstring wide(row.text.begin(), row.text.end());
    wchar_t* wide_end;
    EXPECT_EQ(wcstobool(wide.c_str(), &wide_end), row.value);
    EXPECT_EQ(wide_end, wide.c_str() + row.read);
  }
  EXPECT_THAT(reports.take(), IsEmpty());
  const char* const other = "2";
  char* end;
  errno = 0;
  EXPECT_EQ(strtobool(other, &end), 0);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(end, other);
  EXPECT_EQ(wcstobool(L"", nullptr), 0);
  EXPECT_EQ(strtobool(nullptr, nullptr), 0);
  EXPECT_THAT(reports.take(), ElementsAre(error(ERANGE, "strtobool: value outside of range"),
                                          error(ERANGE, "wcstobool: value outside of range"),
                                          error(EINVAL, "strtobool: invalid NULL parameter")));
}

TEST(Words, TimesOfDayAreReadOrRefusedByTheirPart) {
  ReportCapture reports;
  struct Row {
    std::string text;
    int seconds;
    std::string rest;
  };
  for (const Row& row : {Row{"7:05", 25500, ""},
                         {"23:59:59", 86399, ""},
                         {"0:00", 0, ""},
                         {"07:5:9 h", 25509, " h"},
                         {"1:2:3:4", 3723, ":4"},
                         {"00012:00", 43200, ""}}) {
    char* end;
    errno = EIO;
    EXPECT_EQ(strtotimeofday(row.text.c_str(), &end), row.seconds);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(end, row.rest);
  }
  EXPECT_THAT(reports.take(), IsEmpty());
  const std::pair<const char*, const char*> refused[] = {
      {"", "hour value not a digit"},
      {" 7:05", "hour value not a digit"},
      {"24:00", "hour value outside of range or inproper format"},
      {"12", "hour value outside of range or inproper format"},
      {"1 :00", "hour value outside of range or inproper format"},
      {"12:", "minute value not a digit"},
      {"12:+1", "minute value not a digit"},
      {"12:60", "minute value outside of range"},
      {"12:99999999999999999999", "minute value outside of range"},
      {"12:00:", "second value not a digit"},
      {"12:00:60", "second value outside of range"}};
  for (const auto& [text, message] : refused) {
    char* end;
    errno = 0;
    EXPECT_EQ(strtotimeofday(text, &end), 0) << text;
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(end, text);
    EXPECT_THAT(reports.take(),
                ElementsAre(error(ERANGE, std::string("strtotimeofday: ") + message)));
  }
  EXPECT_EQ(strtotimeofday("99999999999999999999:00", nullptr), 0);  // no number to speak of
  EXPECT_EQ(errno, ERANGE);
  EXPECT_THAT(reports.take(), IsEmpty());
  EXPECT_EQ(strtotimeofday(nullptr, nullptr), 0);
  EXPECT_THAT(reports.take(), ElementsAre(error(EINVAL, "strtotimeofday: invalid NULL parameter")));
}

TEST(Words, PercentagesHaveANumberAndOneSign) {
  ReportCapture reports;
  double value = -1;
  for (const char* text : {"12.5%", "12.5 %", " 12.5% ", "1.25e1\t%\n"}) {
    value = -1;
    EXPECT_EQ(strpercentotvalue(text, &value), 1) << text;
    EXPECT_EQ(value, 12.5);
  }
  value = -1;
  for (const char* text : {"12.5", "12.5%%", "12.5%x", "12.5x%", "%", "", "% 5", "1e-999%", "5 "})
    EXPECT_EQ(strpercentotvalue(text, &value), 0) << text;
  EXPECT_EQ(value, -1);
  EXPECT_EQ(strpercentotvalue("5%", nullptr), 0);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST(Words, TextIsStrippedCutIntoTokensAndReplacedInPlace) {
  char text[] = " two  words\n\tand\v\f\r\xA0more ";
  char stripped[sizeof text];
  std::copy(text, text + sizeof text, stripped);
  EXPECT_STREQ(strstrip(stripped), "twowordsand\xA0more");

  std::vector<std::string> tokens;
  char* cursor = text;
  while (const char* token = StringGetNextTokenA(&cursor)) tokens.emplace_back(token);
  EXPECT_THAT(tokens, ElementsAre("two", "words", "and", "\xA0more"));
  EXPECT_EQ(*cursor, '\0');
  char last[] = "last";
  cursor = last;
  EXPECT_STREQ(StringGetNextTokenA(&cursor), "last");
  EXPECT_EQ(cursor, last + 4);
  EXPECT_EQ(StringGetNextTokenA(&cursor), nullptr);

  char path[] = "a/b//c";
  EXPECT_EQ(strrepl(path, '/', '\\'), 3);
  EXPECT_STREQ(path, "a\\b\\\\c");
  EXPECT_EQ(strrepl(path, '\\', 0), 3);
  EXPECT_EQ(std::string(path, 6), std::string("a\0b\0\0c", 6));
  EXPECT_EQ(strrepl(nullptr, 'a', 'b'), 0);
}

}  // namespace
